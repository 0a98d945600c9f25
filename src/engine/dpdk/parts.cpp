#include "dpdk/parts.h"

#include <rte_malloc.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include <atomic>
#include <string>

#include "dpdk/packet_pool.h"

namespace dpdk {
namespace {

// Threads may lose their processor in mid-push or mid-pop where lcores share one: no other waits
// for them.
class RingRow : public standin::ChannelRow {
  public:
    explicit RingRow(rte_ring *ring) : ring_(ring) {}
    ~RingRow() override {
        rte_ring_free(ring_);
    }

    bool Push(HostMbuf *packet) override {
        return open_.load(std::memory_order_acquire) && rte_ring_enqueue(ring_, packet) == 0;
    }
    size_t Pop(std::span<HostMbuf *> packets) override {
        return rte_ring_dequeue_burst(ring_, reinterpret_cast<void **>(packets.data()),
                                      static_cast<unsigned>(packets.size()), nullptr);
    }
    size_t Size() override {
        return rte_ring_count(ring_);
    }
    void Close() override {
        open_.store(false, std::memory_order_release);
    }

  private:
    rte_ring *const ring_;
    std::atomic<bool> open_{true};
};

}  // namespace

void Parts::Release(std::span<HostMbuf *const> packets) {
    rte_pktmbuf_free_bulk(Rte(packets), static_cast<unsigned>(packets.size()));
}

void *Parts::TakeMemory(size_t size) {
    return rte_malloc("module", size, RTE_CACHE_LINE_SIZE);
}

void Parts::GiveBackMemory(void *memory, size_t /*size*/) {
    rte_free(memory);
}

// A ring's name is short, and no other ring bears it: channels of one name may follow each other.
std::unique_ptr<standin::ChannelRow> Parts::MakeRow(const std::string & /*channel*/,
                                                    uint32_t capacity) {
    static std::atomic<unsigned> rows{0};
    const std::string name = "kes_channel_" + std::to_string(rows++);
    rte_ring *ring = rte_ring_create(name.c_str(), capacity, SOCKET_ID_ANY,
                                     RING_F_MP_RTS_ENQ | RING_F_MC_RTS_DEQ | RING_F_EXACT_SZ);
    return ring == nullptr ? nullptr : std::make_unique<RingRow>(ring);
}

}  // namespace dpdk
