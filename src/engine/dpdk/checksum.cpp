#include "dpdk/checksum.h"

#include <netinet/in.h>
#include <rte_ip.h>

#include <cstring>

#include "standin/mbuf_pool.h"

namespace dpdk {
namespace {

constexpr size_t kUdpChecksumAt = 6;
constexpr size_t kTcpChecksumAt = 16;
constexpr size_t kIpv6Header = 40;

// Where the field lies behind the IP header; 0 if there is none.
size_t FieldOffset(const standin::HostMbufMeta &meta) {
    switch (meta.ipProtocol) {
        case IPPROTO_UDP:
            return kUdpChecksumAt;
        case IPPROTO_TCP:
            return kTcpChecksumAt;
        default:
            return 0;
    }
}

}  // namespace

void CompleteChecksum(HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    const bool isIpv4 = meta.protoType == HOST_PROTO_IPV4;
    const size_t ipLength = isIpv4 ? meta.ipHeaderLength : kIpv6Header;
    const size_t field = FieldOffset(meta);
    auto *const frame = static_cast<uint8_t *>(packet->bufAddr) + packet->dataOff;
    uint8_t *const ip = frame + meta.l2Length;
    uint8_t *const segment = ip + ipLength;
    if (meta.protoType == HOST_PROTO_OTHER || field == 0 ||
        segment + field + sizeof(uint16_t) > frame + packet->dataLen) {
        return;
    }
    const auto *ipv4 = reinterpret_cast<const rte_ipv4_hdr *>(ip);
    const auto *ipv6 = reinterpret_cast<const rte_ipv6_hdr *>(ip);
    const bool isWhole =
        isIpv4 ? (ipv4->fragment_offset & RTE_BE16(0x3FFF)) == 0 &&
                     ip + rte_be_to_cpu_16(ipv4->total_length) == frame + packet->dataLen
               : segment + rte_be_to_cpu_16(ipv6->payload_len) == frame + packet->dataLen;
    uint16_t sum;
    std::memcpy(&sum, segment + field, sizeof sum);
    if (!isWhole || sum != (isIpv4 ? rte_ipv4_phdr_cksum(ipv4, 0) : rte_ipv6_phdr_cksum(ipv6, 0))) {
        return;
    }
    std::memset(segment + field, 0, sizeof sum);
    sum = isIpv4 ? rte_ipv4_udptcp_cksum(ipv4, segment) : rte_ipv6_udptcp_cksum(ipv6, segment);
    std::memcpy(segment + field, &sum, sizeof sum);
}

}  // namespace dpdk
