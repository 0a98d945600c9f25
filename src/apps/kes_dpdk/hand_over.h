// Packets on their way from the lcore that received them to the one that their flow belongs to.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include "kes/mbuf.h"

struct rte_ring;

namespace kes_dpdk {

class HandOver {
  public:
    // Between so many lcores, counted from 0. Throws Failure.
    explicit HandOver(unsigned lcores);

    // Gives packets to an lcore, which owns those that it has room for: so many, the first ones.
    size_t Give(unsigned from, unsigned to, std::span<HostMbuf *const> packets);
    // What others have given to an lcore, as much as there is and fits; never from one alone.
    size_t Take(unsigned to, std::span<HostMbuf *> packets);

    bool IsEmpty() const;

  private:
    struct FreeRing {
        void operator()(rte_ring *ring) const;
    };
    rte_ring *Between(unsigned from, unsigned to) const {
        return rings_[from * lcores_ + to].get();
    }

    const unsigned lcores_;
    std::vector<std::unique_ptr<rte_ring, FreeRing>> rings_;  // none from an lcore to itself
};

}  // namespace kes_dpdk
