// Reading CAPWAP packets, from the payload of UDP on (RFC 5415, section 4).
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "capwap/packet_builder.h"

namespace capwap {

// What follows a packet's header.
struct Unwrapped {
    bool dtls = false;  // a DTLS record; the flags are those of a CAPWAP header
    bool fragment = false;
    bool keepalive = false;
    bool extension = false;
    std::span<const uint8_t> rest;
};

// Takes off the CAPWAP header or the CAPWAP DTLS header (section 4.2 and 4.3); nothing for a
// payload that has no whole one.
std::optional<Unwrapped> ReadHeader(std::span<const uint8_t> payload);

// A control message (section 4.5.1).
struct Message {
    uint32_t type;
    uint8_t sequence;
    std::span<const uint8_t> elements;
};

// What follows the header of a whole control message; nothing unless all its lengths fit.
std::optional<Message> ReadMessage(std::span<const uint8_t> rest);

// The value of the first message element of a type (section 4.6).
std::optional<std::span<const uint8_t>> FindElement(std::span<const uint8_t> elements,
                                                    uint16_t type);

// What follows the header of a data channel keepalive (section 4.4.1): the session's id.
std::optional<SessionId> ReadKeepalive(std::span<const uint8_t> rest);

}  // namespace capwap
