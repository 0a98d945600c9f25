// Packet buffers of DPDK's, whose private area is what the engine knows of the packet.
#pragma once

#include <rte_mbuf.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kes/mbuf.h"
#include "standin/mbuf_pool.h"

namespace dpdk {

inline HostMbuf *Host(rte_mbuf *mbuf) {
    return reinterpret_cast<HostMbuf *>(mbuf);
}
inline rte_mbuf *Rte(HostMbuf *mbuf) {
    return reinterpret_cast<rte_mbuf *>(mbuf);
}
// The same of many.
inline rte_mbuf **Rte(std::span<HostMbuf *const> mbufs) {
    return reinterpret_cast<rte_mbuf **>(const_cast<HostMbuf **>(mbufs.data()));
}

class PacketPool {
  public:
    // So many buffers, each for a frame of at most so many bytes. Throws Error.
    PacketPool(uint32_t buffers, uint16_t longestFrame);
    // All buffers have come back, and the ports are closed.
    ~PacketPool();
    PacketPool(const PacketPool &) = delete;
    PacketPool &operator=(const PacketPool &) = delete;

    // Makes a received frame ready for the engine, with the given knowledge of it to begin with:
    // parses it. False for one in several segments, which stays the caller's: it is longer than a
    // buffer.
    static bool Adopt(rte_mbuf *mbuf, const standin::HostMbufMeta &fresh);

    // Gives a packet the length that it had before its padding was trimmed.
    static void Restore(HostMbuf *packet);

    // A copy of a packet as it was received, for a port; null while no buffer is free.
    HostMbuf *Copy(const HostMbuf *packet) const;

    rte_mempool *Raw() const {
        return pool_;
    }
    uint32_t Capacity() const;
    uint32_t InUse() const;

  private:
    rte_mempool *pool_;
};

}  // namespace dpdk
