#include "hand_over.h"

#include <rte_errno.h>
#include <rte_ring.h>

#include <algorithm>
#include <string>

#include "dpdk/packet_pool.h"
#include "failure.h"

namespace kes_dpdk {
namespace {

constexpr unsigned kPackets = 1024;

}  // namespace

void HandOver::FreeRing::operator()(rte_ring *ring) const {
    rte_ring_free(ring);
}

HandOver::HandOver(unsigned lcores) : lcores_(lcores), rings_(size_t{lcores} * lcores) {
    for (unsigned from = 0; from < lcores; ++from) {
        for (unsigned to = 0; to < lcores; ++to) {
            if (from == to) {
                continue;
            }
            const std::string name = "kes_flows_" + std::to_string(from) + "_" + std::to_string(to);
            rte_ring *ring = rte_ring_create(name.c_str(), kPackets, SOCKET_ID_ANY,
                                             RING_F_SP_ENQ | RING_F_SC_DEQ);
            if (ring == nullptr) {
                throw kes_engine::Failure("cannot make the ring '" + name +
                                          "': " + rte_strerror(rte_errno));
            }
            rings_[from * lcores + to].reset(ring);
        }
    }
}

size_t HandOver::Give(unsigned from, unsigned to, std::span<HostMbuf *const> packets) {
    return rte_ring_sp_enqueue_burst(Between(from, to),
                                     reinterpret_cast<void *const *>(packets.data()),
                                     static_cast<unsigned>(packets.size()), nullptr);
}

size_t HandOver::Take(unsigned to, std::span<HostMbuf *> packets) {
    size_t taken = 0;
    for (unsigned from = 0; from < lcores_; ++from) {
        if (from == to) {
            continue;
        }
        const auto room = packets.subspan(taken);
        const size_t fair = std::min(room.size(), packets.size() / (lcores_ - 1) + 1);
        taken +=
            rte_ring_sc_dequeue_burst(Between(from, to), reinterpret_cast<void **>(room.data()),
                                      static_cast<unsigned>(fair), nullptr);
    }
    return taken;
}

bool HandOver::IsEmpty() const {
    return std::ranges::all_of(rings_, [](const auto &ring) {
        return ring == nullptr || rte_ring_empty(ring.get()) != 0;
    });
}

}  // namespace kes_dpdk
