#include "dpdk/packet_pool.h"

#include <rte_errno.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "dpdk/error.h"
#include "standin/frame_parser.h"

namespace dpdk {
namespace {

using standin::HostMbufMeta;

static_assert(sizeof(rte_mbuf) == sizeof(HostMbuf), "private area at byte 128");
#define SAME_PLACE(ours, theirs) \
    static_assert(offsetof(HostMbuf, ours) == offsetof(rte_mbuf, theirs), #ours)
SAME_PLACE(bufAddr, buf_addr);
SAME_PLACE(dataOff, data_off);
SAME_PLACE(refCnt, refcnt);
SAME_PLACE(nbSegs, nb_segs);
SAME_PLACE(port, port);
SAME_PLACE(olFlags, ol_flags);
SAME_PLACE(pktLen, pkt_len);
SAME_PLACE(dataLen, data_len);
SAME_PLACE(bufLen, buf_len);
SAME_PLACE(pool, pool);
SAME_PLACE(next, next);
SAME_PLACE(privSize, priv_size);
#undef SAME_PLACE
static_assert(sizeof(HostMbufMeta) % RTE_MBUF_PRIV_ALIGN == 0, "size of a private area");

// Buffers that each lcore keeps.
constexpr unsigned kCached = 256;

// The threads that release packets are not all lcores, and may lose their processor at any moment:
// nobody is to wait for them in the pool.
constexpr const char *kPoolKind = "ring_mt_rts";

}  // namespace

PacketPool::PacketPool(uint32_t buffers, uint16_t longestFrame) {
    const auto room = static_cast<uint16_t>(RTE_PKTMBUF_HEADROOM + longestFrame);
    const unsigned cached = std::min(kCached, buffers / 4);
    pool_ = rte_pktmbuf_pool_create_by_ops("kes_packets", buffers, cached, sizeof(HostMbufMeta),
                                           room, SOCKET_ID_ANY, kPoolKind);
    if (pool_ == nullptr) {
        throw Error("cannot make " + std::to_string(buffers) + " packet buffers of " +
                    std::to_string(room) + " bytes: " + rte_strerror(rte_errno) +
                    "; --buffers and DPDK's -m decide on the memory");
    }
}

PacketPool::~PacketPool() {
    rte_mempool_free(pool_);
}

bool PacketPool::Adopt(rte_mbuf *mbuf, const HostMbufMeta &fresh) {
    if (mbuf->nb_segs != 1) {
        return false;
    }
    HostMbuf *packet = Host(mbuf);
    auto *meta = new (packet + 1) HostMbufMeta(fresh);
    meta->arrival.wireLength = packet->pktLen;
    standin::ParseFrame(packet);
    return true;
}

void PacketPool::Restore(HostMbuf *packet) {
    packet->pktLen = standin::MetaOf(packet).frameLength;
    packet->dataLen = static_cast<uint16_t>(packet->pktLen);
}

HostMbuf *PacketPool::Copy(const HostMbuf *packet) const {
    rte_mbuf *copy = rte_pktmbuf_alloc(pool_);
    if (copy == nullptr) {
        return nullptr;
    }
    const auto frame = standin::FrameAsReceived(packet);
    std::memcpy(rte_pktmbuf_append(copy, static_cast<uint16_t>(frame.size())), frame.data(),
                frame.size());
    return Host(copy);
}

uint32_t PacketPool::Capacity() const {
    return pool_->size;
}

uint32_t PacketPool::InUse() const {
    return rte_mempool_in_use_count(pool_);
}

}  // namespace dpdk
