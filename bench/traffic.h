// The packets of the benchmarks. Traffic of each kind comes as numbered flows: one access point's
// tunnel or session, one station, or one connection that is none of the module's business.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "burst_timing.h"
#include "capwap/packet_builder.h"
#include "kes/mbuf.h"
#include "lb/dist_table.h"

namespace bench {

enum class Traffic {
    kTcp,
    kOtherUdp,
    kControlIpv4,
    kControlIpv6,
    kStrangerIpv4,  // control from access points that are not registered
    kStrangerIpv6,
    kKeepalive,
    kStationData,  // data packets of the access points, which stay the engine's
    kWapi,
    // From the controller to the first access point.
    kControlSent,
    kPingSent,   // a vendor ping
    kProbeSent,  // a vendor probe
};

// The controller's CAPWAP address, in both families.
extern const uint32_t kController;
extern const capwap::Ipv6Words kController6;

// The registered flows as the tables know them.
LyrKesDistIpv4Key Ipv4Tunnel(uint32_t flow);
LyrKesDistIpv6Key Ipv6Tunnel(uint32_t flow);
LyrKesDistKaKey Session(uint32_t flow);
// The key of the entry for tunnels that are not registered.
LyrKesDistIpv4Key DefaultIpv4Tunnel();
LyrKesDistIpv6Key DefaultIpv6Tunnel();

// Which of `owners` service instances a flow belongs to.
uint32_t OwnerOf(Traffic traffic, uint32_t flow, uint32_t owners);

// A frame for each of the first `flows` flows of a kind, built once and shared by all threads.
class Frames {
  public:
    static const Frames &Of(Traffic traffic, uint32_t flows);

    Frames(Traffic traffic, uint32_t flows);

    std::span<const uint8_t> operator[](uint32_t flow) const {
        return std::span(bytes_).subspan(flow * frameSize_, frameSize_);
    }
    Traffic Kind() const {
        return traffic_;
    }
    uint32_t Flows() const {
        return flows_;
    }

  private:
    Traffic traffic_;
    uint32_t flows_;
    size_t frameSize_ = 0;
    std::vector<uint8_t> bytes_;
};

// The packets of one benchmark thread, a burst at a time. Bursts go round the flows of one owner in
// a pseudo-random order, so that in time every one of them is met, and none sooner than the others.
// The thread is one of the engine's lcores as long as it has them.
class Bursts {
  public:
    Bursts(const Frames &frames, uint32_t thread, uint32_t owner = 0, uint32_t owners = 1);
    ~Bursts();
    Bursts(const Bursts &) = delete;
    Bursts &operator=(const Bursts &) = delete;

    // Receives the next burst's frames, as an engine would: fresh buffers, parsed.
    void Receive();
    // Gives the buffers of the burst back.
    void Release();
    std::span<HostMbuf *const> Packets() const {
        return packets_;
    }
    // The flow of a packet of the burst.
    uint32_t FlowOf(size_t packet) const {
        return order_[(first_ + packet) % order_.size()];
    }

  private:
    const Frames &frames_;
    const uint32_t thread_;
    std::vector<uint32_t> order_;
    size_t first_ = 0;  // of the burst, in the order
    size_t next_ = 0;
    std::array<HostMbuf *, kBurst> packets_{};
};

}  // namespace bench
