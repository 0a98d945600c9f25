// The engine on DPDK as the engine under test, without huge pages, devices or shared files.
#include <gtest/gtest.h>
#include <rte_malloc.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "dpdk/environment.h"
#include "dpdk/packet_pool.h"
#include "dpdk/parts.h"
#include "engine_under_test.h"

namespace standin {
namespace {

constexpr uint16_t kLongestFrame = 8192;

// A frame comes in as from a port's driver.
class PortBuffers : public Buffers {
  public:
    explicit PortBuffers(uint32_t count) : pool_(count, kLongestFrame) {}

    HostMbuf *Receive(std::span<const uint8_t> frame, const Arrival &arrival) override {
        rte_mbuf *mbuf;
        while ((mbuf = rte_pktmbuf_alloc(pool_.Raw())) == nullptr) {
            std::this_thread::yield();
        }
        char *data = rte_pktmbuf_append(mbuf, static_cast<uint16_t>(frame.size()));
        if (data == nullptr) {
            throw std::length_error("a frame longer than a buffer");
        }
        if (!frame.empty()) {
            std::memcpy(data, frame.data(), frame.size());
        }
        EXPECT_TRUE(dpdk::PacketPool::Adopt(mbuf, standin::FreshMeta(arrival)));
        return dpdk::Host(mbuf);
    }
    uint32_t InUse() override {
        return pool_.InUse();
    }

  private:
    dpdk::PacketPool pool_;
};

}  // namespace

std::unique_ptr<Buffers> MakeBuffers(uint32_t count) {
    return std::make_unique<PortBuffers>(count);
}

size_t OccupiedBytes() {
    rte_malloc_socket_stats heap = {};
    rte_malloc_get_socket_stats(0, &heap);
    return heap.heap_allocsz_bytes;
}

}  // namespace standin

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const dpdk::Environment environment(
        argv[0], {"--lcores", "0@0", "--no-huge", "-m", "256", "--no-pci", "--no-shconf",
                  "--no-telemetry", "--log-level=error"});
    dpdk::Parts parts;
    standin::UseParts(parts);
    return RUN_ALL_TESTS();
}
