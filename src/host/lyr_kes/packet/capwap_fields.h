// Fields of CAPWAP packets (RFC 5415) that the module reads in more than one place. Packet fields
// are read in place and converted one by one.
#pragma once

#include <endian.h>

#include <cstdint>
#include <cstring>

#include "packet/packet_fields.h"

namespace lyr {

// RFC 5415, section 3.1.
constexpr uint16_t kCapwapControlPort = 5246;
constexpr uint16_t kCapwapDataPort = 5247;

// CAPWAP header (RFC 5415, section 4.3).
constexpr uint32_t kCapwapFlagBytes = 4;       // the bytes up to the flags
constexpr uint8_t kCapwapFlagFragment = 0x80;  // byte 3, as the flags that follow
constexpr uint8_t kCapwapFlagKeepalive = 0x08;
constexpr uint8_t kCapwapFlagExtension = 0x04;  // the first reserved flag

// Control header (RFC 5415, section 4.5.1): the message type comes first.
constexpr uint32_t kMessageTypeLength = 4;

inline uint16_t ReadBe16(const uint8_t *bytes) {
    uint16_t value;
    std::memcpy(&value, bytes, sizeof(value));
    return be16toh(value);
}

inline uint32_t ReadBe32(const uint8_t *bytes) {
    uint32_t value;
    std::memcpy(&value, bytes, sizeof(value));
    return be32toh(value);
}

// Bytes of the CAPWAP header: HLEN, the five upper bits of byte 1, counts 32-bit words.
inline uint32_t CapwapHeaderLength(const uint8_t *header) {
    return (header[1] >> 1) & 0x7Cu;
}

// A packet's ports. A port test is true for the source or the destination port.
struct Ports {
    explicit Ports(const HostMbuf *packet) : src(SrcPort(packet)), dst(DstPort(packet)) {}

    bool Have(uint16_t port) const {
        return src == port || dst == port;
    }

    uint16_t src;
    uint16_t dst;
};

}  // namespace lyr
