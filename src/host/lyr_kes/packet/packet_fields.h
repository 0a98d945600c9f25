// Fields of a packet that the module reads in more than one place.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"

namespace lyr {

constexpr uint8_t kIpProtocolUdp = 17;

inline uint8_t IpProtocol(const HostMbuf *packet) {
    return static_cast<uint8_t>(HostMbufGetIphdrProtocol(packet));
}

inline uint16_t SrcPort(const HostMbuf *packet) {
    return static_cast<uint16_t>(HostMbufGetL4SrcPort(packet));
}

inline uint16_t DstPort(const HostMbuf *packet) {
    return static_cast<uint16_t>(HostMbufGetL4DstPort(packet));
}

// The source MAC address: zeros for a frame too short to have one.
inline const uint8_t *SrcMac(const HostMbuf *packet) {
    static constexpr uint8_t kNoMac[6] = {};
    const uint8_t *mac = HostMbufGetSrcMac(packet);
    return mac != nullptr ? mac : kNoMac;
}

}  // namespace lyr
