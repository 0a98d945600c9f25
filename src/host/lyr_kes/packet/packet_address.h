// A packet's addresses as address values.
#pragma once

#include <cstring>

#include "kes/mbuf.h"
#include "packet/host_ip_addr.h"

namespace lyr {

enum class PacketEnd { kSource, kDestination };

// The IP version of a packet: 4, 6, or 0 for neither.
inline uint8_t IpVersionOf(const HostMbuf *packet) {
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            return kIpVersion4;
        case HOST_PROTO_IPV6:
            return kIpVersion6;
        default:
            return 0;
    }
}

// The address at one end, read as one of the version given, which need not be the packet's.
inline HostIpAddr AddressOf(const HostMbuf *packet, PacketEnd end, uint8_t ipVersion) {
    const bool source = end == PacketEnd::kSource;
    HostIpAddr address = {.ipVer = ipVersion, .filler = {}, .ip = {}};
    if (ipVersion == kIpVersion4) {
        address.ip[0] = source ? HostMbufGetIphdrSrcIp(packet) : HostMbufGetIphdrDstIp(packet);
    } else {
        std::memcpy(address.ip,
                    source ? HostMbufGetIp6hdrSrcip(packet) : HostMbufGetIp6hdrDstip(packet),
                    sizeof(address.ip));
    }
    return address;
}

}  // namespace lyr
