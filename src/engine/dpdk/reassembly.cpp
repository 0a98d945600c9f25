#include "dpdk/reassembly.h"

#include <rte_cycles.h>
#include <rte_ip.h>

#include "dpdk/error.h"
#include "dpdk/packet_pool.h"

namespace dpdk {
namespace {

constexpr uint32_t kPlacesOfBucket = 8;
constexpr uint32_t kBuckets = 64;
constexpr uint16_t kLongestL2 = (1u << RTE_MBUF_L2_LEN_BITS) - 1;
constexpr uint8_t kProtocolFragment = 44;

struct Headers {
    rte_ipv4_hdr *ipv4 = nullptr;
    rte_ipv6_hdr *ipv6 = nullptr;
    rte_ipv6_fragment_ext *extension = nullptr;
    size_t length = 0;     // of these
    size_t announced = 0;  // of the whole fragment, these included
};

bool IsFragment(const rte_ipv6_fragment_ext &extension) {
    constexpr uint16_t kOffsetAndMore = 0xFFF9;
    return (rte_be_to_cpu_16(extension.frag_data) & kOffsetAndMore) != 0;
}

// No headers of a packet that is whole, or whose fragment header is not the first extension.
Headers FragmentHeadersOf(HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    auto *const ip = rte_pktmbuf_mtod_offset(Rte(packet), uint8_t *, meta.l2Length);
    if (meta.protoType == HOST_PROTO_IPV4) {
        auto *const header = reinterpret_cast<rte_ipv4_hdr *>(ip);
        return rte_ipv4_frag_pkt_is_fragmented(header) == 0
                   ? Headers()
                   : Headers{.ipv4 = header,
                             .length = meta.ipHeaderLength,
                             .announced = rte_be_to_cpu_16(header->total_length)};
    }
    constexpr size_t kLength = sizeof(rte_ipv6_hdr) + sizeof(rte_ipv6_fragment_ext);
    if (meta.protoType != HOST_PROTO_IPV6 || meta.ipProtocol != kProtocolFragment ||
        packet->dataLen < meta.l2Length + kLength) {
        return {};
    }
    auto *const header = reinterpret_cast<rte_ipv6_hdr *>(ip);
    auto *const extension = reinterpret_cast<rte_ipv6_fragment_ext *>(header + 1);
    return !IsFragment(*extension)
               ? Headers()
               : Headers{
                     .ipv6 = header,
                     .extension = extension,
                     .length = kLength,
                     .announced = sizeof *header + size_t{rte_be_to_cpu_16(header->payload_len)}};
}

}  // namespace

ReassemblyCounts &ReassemblyCounts::operator+=(const ReassemblyCounts &other) {
    fragments += other.fragments;
    joined += other.joined;
    datagrams += other.datagrams;
    expired += other.expired;
    dropped += other.dropped;
    tooLong += other.tooLong;
    return *this;
}

Reassembly::Reassembly()
    : table_(rte_ip_frag_table_create(kBuckets, kPlacesOfBucket, kDatagrams,
                                      kSeconds * rte_get_timer_hz(), SOCKET_ID_ANY)) {
    if (table_ == nullptr) {
        throw Error("cannot make a table for fragments; DPDK's -m decides on the memory");
    }
}

HostMbuf *Reassembly::Join(HostMbuf *packet, uint64_t now) {
    const Headers headers = FragmentHeadersOf(packet);
    if (headers.length == 0) {
        return packet;
    }
    ++counts_.fragments;
    rte_mbuf *const mbuf = Rte(packet);
    const uint16_t l2Length = standin::MetaOf(packet).l2Length;
    // The library trusts the length that the header announces.
    if (headers.announced <= headers.length || l2Length > kLongestL2 ||
        l2Length + headers.announced != mbuf->pkt_len) {
        ++counts_.dropped;
        rte_pktmbuf_free(mbuf);
        return nullptr;
    }
    mbuf->l2_len = l2Length & kLongestL2;
    mbuf->l3_len = headers.length & 0x1FF;
    rte_mbuf *const chain =
        headers.ipv4 != nullptr
            ? rte_ipv4_frag_reassemble_packet(table_.get(), &givenUp_, mbuf, now, headers.ipv4)
            : rte_ipv6_frag_reassemble_packet(table_.get(), &givenUp_, mbuf, now, headers.ipv6,
                                              headers.extension);
    counts_.dropped += FreeGivenUp();
    return chain == nullptr ? nullptr : Complete(chain);
}

// The first fragment heads the chain, and with it its private area.
HostMbuf *Reassembly::Complete(rte_mbuf *chain) {
    const uint16_t fragments = chain->nb_segs;
    if (rte_pktmbuf_linearize(chain) != 0) {
        counts_.tooLong += fragments;
        rte_pktmbuf_free(chain);
        return nullptr;
    }
    counts_.joined += fragments;
    ++counts_.datagrams;
    HostMbuf *const packet = Host(chain);
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    if (meta.protoType == HOST_PROTO_IPV4) {
        auto *const header = rte_pktmbuf_mtod_offset(chain, rte_ipv4_hdr *, meta.l2Length);
        header->hdr_checksum = 0;
        header->hdr_checksum = rte_ipv4_cksum(header);
    }
    chain->ol_flags &= ~RTE_MBUF_F_TX_IP_CKSUM;
    chain->tx_offload = 0;
    PacketPool::Adopt(chain, standin::FreshMeta(meta.arrival));
    return packet;
}

// The library stops where its row of given-up buffers is full.
size_t Reassembly::Expire(uint64_t now) {
    size_t all = 0;
    size_t some;
    do {
        rte_ip_frag_table_del_expired_entries(table_.get(), &givenUp_, now);
        some = FreeGivenUp();
        all += some;
    } while (some > 0);
    counts_.expired += all;
    return all;
}

size_t Reassembly::FreeGivenUp() {
    const size_t count = givenUp_.cnt;
    if (count > 0) {
        constexpr uint32_t kPrefetched = 3;
        rte_ip_frag_free_death_row(&givenUp_, kPrefetched);
    }
    return count;
}

}  // namespace dpdk
