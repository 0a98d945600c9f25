// Values as people write them. `name` says in errors what the text stands for; every function
// throws InputError for a text that is not such a value.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "client/address_text.h"
#include "mund/messages.h"

namespace control {

// A number from `min` to `max`, decimal or hexadecimal with 0x.
uint32_t ParseNumber(std::string_view name, std::string_view text, uint32_t max = UINT32_MAX,
                     uint32_t min = 0);

// An IPv4 or IPv6 address in its usual text form.
LyrKesRpcIpAddr ParseAddress(std::string_view name, std::string_view text);

// An address in its usual text form: a u32, eight groups, or four words, all in host order.
using client::AddressText;
std::string AddressText(const uint32_t (&ipv6)[4]);

// Six bytes in hexadecimal, with ':' between them.
std::string MacText(const uint8_t (&mac)[6]);

// A session id: 32 hexadecimal digits.
std::string SessionText(const uint32_t (&words)[4]);

// A moment in local time, as ISO 8601 writes it: 2024-05-17T09:30:00+02:00. The second has
// milliseconds only where they are given.
std::string TimeText(int64_t seconds, std::optional<uint32_t> milliseconds = std::nullopt);

// 0x and the hexadecimal digits.
std::string HexText(uint64_t value);

// Words as a name for programs, in lower case and without spaces: "dtls_handshake".
std::string IdentifierOf(std::string_view words);

// True for 0.0.0.0 and ::.
bool IsUnspecified(const LyrKesRpcIpAddr &address);

// Six bytes in hexadecimal, with ':' or '-' between them.
std::array<uint8_t, 6> ParseMac(std::string_view name, std::string_view text);

// A session id: 32 hexadecimal digits, its four words in order (RFC 5415, section 4.6.37).
std::array<uint32_t, 4> ParseSessionId(std::string_view name, std::string_view text);

// What the trace tells: a mask of MUND_TRACE_* that is not empty.
uint32_t ParseTraceLevel(std::string_view name, std::string_view text);

// A source type that sources are known by something under: MUND_SOURCE_ADDRESS to
// MUND_SOURCE_ANY_INTERFACE. Another would hold its position for good.
uint32_t ParseSourceType(std::string_view name, std::string_view text);

// A CAPWAP message type: a number, or its name with '-' or '_' for a space.
uint32_t ParseMessageType(std::string_view name, std::string_view text);

}  // namespace control
