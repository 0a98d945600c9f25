// A packet's key in each table. Keys are put together in registers and stored in words of 64 bits:
// whoever reads such a word soon after its parts were stored one by one waits for them.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "lb/dist_core.h"
#include "packet/capwap_fields.h"

namespace lyr {

// Two values that lie side by side in memory, as one.
constexpr uint64_t SideBySide(uint32_t first, uint32_t second) {
    return std::endian::native == std::endian::little ? uint64_t{second} << 32 | first
                                                      : uint64_t{first} << 32 | second;
}
constexpr uint32_t SideBySide(uint16_t first, uint16_t second) {
    return std::endian::native == std::endian::little ? uint32_t{second} << 16 | first
                                                      : uint32_t{first} << 16 | second;
}

// Ports and VPN id, which IPv4 and IPv6 keys end with.
inline uint64_t KeyEnd(const HostMbuf *packet, Ports ports) {
    return SideBySide(SideBySide(ports.src, ports.dst),
                      HostMbufGetReceiveVrfIndex(packet) & 0xFFFF);
}

inline LyrKesDistIpv4Key PacketKey(const HostMbuf *packet, Ports ports, Ipv4Table /*table*/) {
    const uint32_t srcIp = HostMbufGetIphdrSrcIp(packet);
    const uint32_t dstIp = HostMbufGetIphdrDstIp(packet);
    return std::bit_cast<LyrKesDistIpv4Key>(
        std::array{SideBySide(srcIp, dstIp), KeyEnd(packet, ports)});
}

inline LyrKesDistIpv6Key PacketKey(const HostMbuf *packet, Ports ports, Ipv6Table /*table*/) {
    const auto pair = [](const uint32_t *words) { return SideBySide(words[0], words[1]); };
    const uint32_t *src = HostMbufGetIp6hdrSrcip(packet);
    const uint32_t *dst = HostMbufGetIp6hdrDstip(packet);
    return std::bit_cast<LyrKesDistIpv6Key>(
        std::array{pair(src), pair(src + 2), pair(dst), pair(dst + 2), KeyEnd(packet, ports)});
}

inline LyrKesDistKaKey SessionKey(const uint32_t (&sessionId)[4]) {
    return std::bit_cast<LyrKesDistKaKey>(
        std::array{SideBySide(sessionId[0], sessionId[1]), SideBySide(sessionId[2], sessionId[3])});
}

}  // namespace lyr
