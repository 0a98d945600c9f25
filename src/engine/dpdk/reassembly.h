// Datagrams that come in fragments, put together. Of one lcore, to which all fragments of a
// datagram come.
#pragma once

#include <rte_ip_frag.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "kes/mbuf.h"

namespace dpdk {

// Every fragment is one of those still held, joined, expired, dropped, or part of one too long.
struct ReassemblyCounts {
    uint64_t fragments = 0;
    uint64_t joined = 0;
    uint64_t datagrams = 0;  // that these became
    uint64_t expired = 0;    // the rest of their datagram has not come
    uint64_t dropped = 0;    // damaged, contradictory, more than a datagram or the table may have
    uint64_t tooLong = 0;    // their datagram is longer than a buffer

    ReassemblyCounts &operator+=(const ReassemblyCounts &other);
};

class Reassembly {
  public:
    // Datagrams that may be incomplete at a time, and buffers that they hold at most.
    static constexpr uint32_t kDatagrams = 256;
    static constexpr uint32_t kBuffers = kDatagrams * RTE_LIBRTE_IP_FRAG_MAX_FRAG;
    // How long the first fragment to come waits for the others.
    static constexpr uint64_t kSeconds = 2;
    // A time at which everything has expired.
    static constexpr uint64_t kEnd = std::numeric_limits<uint64_t>::max();

    // Throws Error.
    Reassembly();

    // Takes a packet of the receive path. Returns it if it is no fragment, the whole datagram if it
    // was the last that was missing, parsed anew, or else null. The time is that of the timer.
    HostMbuf *Join(HostMbuf *packet, uint64_t now);
    // Frees fragments that have waited for too long; returns how many.
    size_t Expire(uint64_t now);

    const ReassemblyCounts &Counts() const {
        return counts_;
    }

  private:
    struct DestroyTable {
        void operator()(rte_ip_frag_tbl *table) const {
            rte_ip_frag_table_destroy(table);
        }
    };

    HostMbuf *Complete(rte_mbuf *chain);
    // Frees what the library has given up; returns how many.
    size_t FreeGivenUp();

    std::unique_ptr<rte_ip_frag_tbl, DestroyTable> table_;
    rte_ip_frag_death_row givenUp_ = {};
    ReassemblyCounts counts_;
};

}  // namespace dpdk
