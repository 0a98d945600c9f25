// A service instance behind a port: what the module hands to it leaves there.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "service_instances.h"
#include "standin/packet_path.h"
#include "used_port.h"

namespace kes_dpdk {

class PortedInstance {
  public:
    // Opens the instance's channels, each for so many packets. Throws Failure.
    PortedInstance(UsedPort &port, uint32_t channelSize);
    // Closes them. The module has stopped, and no lcore serves the instance any more.
    ~PortedInstance();
    PortedInstance(const PortedInstance &) = delete;
    PortedInstance &operator=(const PortedInstance &) = delete;

    uint32_t Number() const {
        return port_.number;
    }
    UsedPort &Port() {
        return port_;
    }

    // --- of the lcore that serves the instance ---

    // Makes the calling thread known as the one that takes the instance's packets. False if another
    // is.
    bool MakeKnown() const;
    // Moves packets from the channels to the port, a burst at most. What the port does not take
    // waits, and with it what comes later. Returns how many have left.
    size_t Deliver(unsigned lcore);

    // --- of any thread ---

    // Takes what still waits, which counts as refused. No lcore serves the instance any more.
    void Abandon();
    // Whether nothing waits.
    bool IsEmpty() const;
    kes_engine::InstanceCount Count() const;
    kes_engine::PortCount PortCounts() const;
    // To be asked once all is over.
    kes_engine::InstanceReport Report() const;

  private:
    struct Channel {
        const kes_engine::PacketType &type;
        uint32_t id;
        std::atomic<uint64_t> packets{0};
        kes_engine::ClassCounts byClass = {};
    };

    bool TakeBurst();

    UsedPort &port_;
    const uint32_t channelSize_;
    std::array<Channel, 2> channels_;
    size_t turn_ = 0;  // the channel that is asked next
    std::array<HostMbuf *, standin::kMaxBurst> waiting_;
    size_t first_ = 0;  // of those
    size_t end_ = 0;
    std::atomic<uint64_t> held_{0};  // as many
    std::atomic<uint64_t> sent_{0};
    uint64_t refused_ = 0;
};

}  // namespace kes_dpdk
