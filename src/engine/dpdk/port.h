// A port of DPDK's: a network card, or a driver that behaves like one.
#pragma once

#include <rte_ethdev.h>
#include <rte_spinlock.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "dpdk/packet_pool.h"

namespace dpdk {

// What a port's driver has counted.
struct PortCounts {
    uint64_t receivedPackets = 0;
    uint64_t receivedBytes = 0;
    uint64_t receiveErrors = 0;
    uint64_t missed = 0;    // came while the queue was full
    uint64_t noBuffer = 0;  // came while no buffer was free
    uint64_t sentBytes = 0;
    uint64_t sendErrors = 0;
};

class Port {
  public:
    // The number of a port that is given by it, or by the name of its device. Throws Error.
    static uint16_t Find(const std::string &text);

    // Opens a port, given likewise. Throws Error.
    explicit Port(const std::string &text);
    // Stops and closes it.
    ~Port();
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;

    uint16_t Id() const {
        return id_;
    }
    const std::string &Name() const {
        return name_;
    }

    // Chooses queues for so many lcores that send, and for so many that may receive: one for each
    // if the port spreads flows over its queues, or else as few as it has. To be called once.
    // Throws Error.
    void Configure(unsigned receivers, unsigned senders, uint16_t longestFrame);
    // Packet buffers that its queues may hold.
    uint32_t BuffersHeld() const;
    // Gives the queues their buffers and starts the port. False if it has to wait for its other
    // side, as the client of a memif has for the server: it takes and brings nothing until
    // TryAgain() starts it. Throws Error.
    bool Start(const PacketPool &pool);
    // Starts a port that is waiting; false if it still has to.
    bool TryAgain();

    unsigned ReceiveQueues() const {
        return receiveQueues_;
    }
    // Whether a flow always comes in on one queue, and flows on all of them.
    bool SpreadsFlows() const {
        return spreadsFlows_;
    }

    // The next frames that have come in. One thread at a time asks a queue.
    size_t Receive(unsigned queue, std::span<rte_mbuf *> frames) {
        return !started_.load(std::memory_order_acquire)
                   ? 0
                   : rte_eth_rx_burst(id_, static_cast<uint16_t>(queue), frames.data(),
                                      static_cast<uint16_t>(frames.size()));
    }
    // Sends packets, and owns those that it takes: so many, the first ones. Callable from several
    // lcores, of which there are as many as Configure() was told; `lcore` counts them from 0.
    size_t Send(unsigned lcore, std::span<HostMbuf *const> packets);

    bool IsUp() const;
    PortCounts Counts() const;

  private:
    struct alignas(RTE_CACHE_LINE_SIZE) SendQueue {
        rte_spinlock_t lock = RTE_SPINLOCK_INITIALIZER;
    };

    int StartDevice();

    uint16_t id_ = 0;
    std::string name_;
    rte_eth_dev_info info_ = {};
    unsigned receiveQueues_ = 1;
    unsigned sendQueueCount_ = 1;
    bool spreadsFlows_ = false;
    bool sharesQueues_ = false;  // between lcores that send
    std::atomic<bool> started_{false};
    uint16_t receiveDescriptors_ = 512;
    uint16_t sendDescriptors_ = 512;
    std::unique_ptr<SendQueue[]> sendQueues_;
};

// The names of all ports that there are.
std::vector<std::string> KnownPorts();

}  // namespace dpdk
