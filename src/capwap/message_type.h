// The CAPWAP control message types (RFC 5415, section 4.5.1.1) and their names.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace capwap {

// The controller vendor's enterprise number, which the types of its own messages are formed from.
constexpr uint32_t kVendorPen = LYR_KES_VENDOR_PEN;
static_assert(kVendorPen < 1 << 24, "a message type has room for 24 bits of it");

constexpr uint32_t VendorMessageType(uint32_t number) {
    return kVendorPen * 256 + number;
}

constexpr uint32_t kVendorProbeRequest = VendorMessageType(77);
constexpr uint32_t kVendorProbeResponse = VendorMessageType(78);
constexpr uint32_t kVendorPingRequest = VendorMessageType(117);
constexpr uint32_t kVendorPingResponse = VendorMessageType(118);

// The name of a message type, as in "Discovery Request" and "Vendor Ping Request"; empty for a type
// that has none.
std::string_view MessageTypeName(uint32_t type);

// All of them.
std::vector<std::string_view> MessageTypeNames();

// The message type of a name; capitals do not count, and '-' and '_' stand for a space.
std::optional<uint32_t> MessageTypeByName(std::string_view name);

}  // namespace capwap
