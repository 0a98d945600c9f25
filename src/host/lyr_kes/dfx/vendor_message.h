// The controller vendor's own CAPWAP message types (RFC 5415, section 4.5.1.1): its enterprise
// number times 256, plus a number of its choice.
#pragma once

#include <cstdint>

#ifndef LYR_KES_VENDOR_PEN
#error "LYR_KES_VENDOR_PEN: the build sets the vendor's IANA private enterprise number"
#endif

namespace lyr {

constexpr uint32_t VendorMessageType(uint32_t number) {
    return uint32_t{LYR_KES_VENDOR_PEN} * 256 + number;
}

constexpr uint32_t kProbeRequest = VendorMessageType(77);
constexpr uint32_t kProbeResponse = VendorMessageType(78);
constexpr uint32_t kPingA = VendorMessageType(117);
constexpr uint32_t kPingB = VendorMessageType(118);

constexpr bool IsProbe(uint32_t messageType) {
    return messageType == kProbeRequest || messageType == kProbeResponse;
}

constexpr bool IsPing(uint32_t messageType) {
    return messageType == kPingA || messageType == kPingB;
}

}  // namespace lyr
