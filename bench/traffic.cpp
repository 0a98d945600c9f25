#include "traffic.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <utility>

#include "capwap/message_type.h"
#include "capwap/wire.h"
#include "failure.h"
#include "lb/dist_hash.h"
#include "module/registration.h"
#include "running_module.h"
#include "standin/mbuf_pool.h"

namespace bench {

const uint32_t kController = capwap::Ipv4("192.0.2.1");
const capwap::Ipv6Words kController6 = capwap::Ipv6("2001:db8::1");

namespace {

constexpr uint32_t kFirstAddress = 0x0A000001;          // 10.0.0.1
constexpr uint32_t kFirstStrangerAddress = 0x64400001;  // 100.64.0.1
constexpr uint16_t kEtherTypeWapi = 0x88B4;
constexpr uint8_t kIpProtocolTcp = 6;
constexpr uint16_t kOtherPort = 4500;
constexpr uint32_t kEchoRequest = 13;

// Spreads flow numbers: the finaliser of a 64-bit mixing hash.
uint64_t Mix(uint64_t value) {
    value += 0x9E3779B97F4A7C15;
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
}

uint16_t EphemeralPort(uint32_t flow) {
    return static_cast<uint16_t>(49152 + Mix(flow) % 16384);
}

capwap::Mac StationMac(uint32_t flow) {
    const uint64_t mixed = Mix(flow);
    capwap::Mac mac = {0x02};
    std::memcpy(&mac[1], &mixed, mac.size() - 1);
    return mac;
}

capwap::SessionId SessionWords(uint32_t flow) {
    const uint64_t high = Mix(2 * uint64_t{flow});
    const uint64_t low = Mix(2 * uint64_t{flow} + 1);
    return {static_cast<uint32_t>(high >> 32), static_cast<uint32_t>(high),
            static_cast<uint32_t>(low >> 32), static_cast<uint32_t>(low)};
}

capwap::Bytes TcpSegment(uint32_t flow) {
    return capwap::Writer()
        .U16(EphemeralPort(flow))
        .U16(capwap::kControlPort)
        .U32(1)
        .U32(1)
        .U16(0x5010)  // five words of header, ACK
        .U16(0xFFFF)
        .U32(0)
        .PadTo(40)
        .Take();
}

// From the flow's address and port to a port of the controller.
capwap::FrameSpec ToController(uint32_t flow, uint16_t port, capwap::Bytes payload) {
    capwap::FrameSpec spec;
    spec.srcIp = kFirstAddress + flow;
    spec.dstIp = kController;
    spec.srcPort = EphemeralPort(flow);
    spec.dstPort = port;
    spec.payload = std::move(payload);
    return spec;
}

capwap::FrameSpec ToController6(uint32_t flow, uint16_t port, capwap::Bytes payload) {
    capwap::FrameSpec spec = ToController(flow, port, std::move(payload));
    spec.ipv6 = true;
    spec.srcIp6 = {0x20010DB8, 0x00010000, 0, spec.srcIp};
    spec.dstIp6 = kController6;
    return spec;
}

capwap::FrameSpec FromController(capwap::Bytes payload) {
    capwap::FrameSpec spec = ToController(0, capwap::kControlPort, std::move(payload));
    std::swap(spec.srcIp, spec.dstIp);
    std::swap(spec.srcPort, spec.dstPort);
    return spec;
}

capwap::FrameSpec SpecOf(Traffic traffic, uint32_t flow) {
    using namespace capwap;
    const Bytes echo = ControlMessage(kEchoRequest, 0, {});
    constexpr uint32_t kStrangers = kFirstStrangerAddress - kFirstAddress;
    switch (traffic) {
        case Traffic::kTcp: {
            FrameSpec spec = ToController(flow, kControlPort, TcpSegment(flow));
            spec.ipProtocol = kIpProtocolTcp;
            return spec;
        }
        case Traffic::kOtherUdp:
            return ToController(flow, kOtherPort, Bytes(64));
        case Traffic::kControlIpv4:
            return ToController(flow, kControlPort, echo);
        case Traffic::kControlIpv6:
            return ToController6(flow, kControlPort, echo);
        case Traffic::kStrangerIpv4:
            return ToController(kStrangers + flow, kControlPort, echo);
        case Traffic::kStrangerIpv6:
            return ToController6(kStrangers + flow, kControlPort, echo);
        case Traffic::kKeepalive:
            return ToController(flow, kDataPort, Keepalive(SessionWords(flow)));
        case Traffic::kStationData:
            return ToController(flow, kDataPort, DataFrame(Bytes(64)));
        case Traffic::kControlSent:
            return FromController(echo);
        case Traffic::kPingSent:
            return FromController(ControlMessage(capwap::kVendorPingRequest, 0, Bytes(92)));
        case Traffic::kProbeSent:
            return FromController(ControlMessage(capwap::kVendorProbeRequest, 0, Bytes(24)));
        case Traffic::kWapi: {
            FrameSpec spec;
            spec.srcMac = StationMac(flow);
            spec.etherType = kEtherTypeWapi;
            spec.payload = Bytes(64);
            return spec;
        }
    }
    Fail("no such traffic: %d", static_cast<int>(traffic));
}

// A pool a thread, and for as long as the program runs: packets may outlive their benchmark in a
// channel that threads share.
standin::MbufPool &PoolOf(uint32_t thread) {
    struct Pool {
        standin::MbufPool buffers{4 * kBurst};
    };
    static std::array<Pool, kMaxThreads> pools;
    return pools[thread].buffers;
}

}  // namespace

LyrKesDistIpv4Key Ipv4Tunnel(uint32_t flow) {
    const capwap::FrameSpec spec = SpecOf(Traffic::kControlIpv4, flow);
    return {spec.srcIp, spec.dstIp, spec.srcPort, spec.dstPort, 0};
}

LyrKesDistIpv6Key Ipv6Tunnel(uint32_t flow) {
    const capwap::FrameSpec spec = SpecOf(Traffic::kControlIpv6, flow);
    LyrKesDistIpv6Key key = {{}, {}, spec.srcPort, spec.dstPort, 0};
    std::ranges::copy(spec.srcIp6, key.srcIpv6);
    std::ranges::copy(spec.dstIp6, key.dstIpv6);
    return key;
}

LyrKesDistKaKey Session(uint32_t flow) {
    LyrKesDistKaKey key;
    std::ranges::copy(SessionWords(flow), key.sessionId);
    return key;
}

LyrKesDistIpv4Key DefaultIpv4Tunnel() {
    return {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, capwap::kControlPort, 0xFFFF};
}

LyrKesDistIpv6Key DefaultIpv6Tunnel() {
    LyrKesDistIpv6Key key = {{}, {}, 0xFFFF, capwap::kControlPort, 0xFFFF};
    std::ranges::fill(key.srcIpv6, 0xFFFFFFFF);
    std::ranges::fill(key.dstIpv6, 0xFFFFFFFF);
    return key;
}

uint32_t OwnerOf(Traffic traffic, uint32_t flow, uint32_t owners) {
    if (traffic == Traffic::kWapi) {
        const capwap::Mac mac = StationMac(flow);
        return LyrKes_DjbHashCal(mac.data(), mac.size()) % owners;
    }
    return flow % owners;
}

const Frames &Frames::Of(Traffic traffic, uint32_t flows) {
    static std::mutex mutex;
    static std::map<std::pair<Traffic, uint32_t>, std::unique_ptr<const Frames>> built;
    const std::lock_guard lock(mutex);
    std::unique_ptr<const Frames> &frames = built[{traffic, flows}];
    if (frames == nullptr) {
        frames = std::make_unique<const Frames>(traffic, flows);
    }
    return *frames;
}

Frames::Frames(Traffic traffic, uint32_t flows) : traffic_(traffic), flows_(flows) {
    for (uint32_t flow = 0; flow < flows; ++flow) {
        const capwap::Bytes frame = capwap::BuildFrame(SpecOf(traffic, flow));
        frameSize_ = frame.size();  // the same for all flows of a kind
        bytes_.insert(bytes_.end(), frame.begin(), frame.end());
    }
}

Bursts::Bursts(const Frames &frames, uint32_t thread, uint32_t owner, uint32_t owners)
    : frames_(frames), thread_(thread) {
    for (uint32_t flow = 0; flow < frames.Flows(); ++flow) {
        if (OwnerOf(frames.Kind(), flow, owners) == owner) {
            order_.push_back(flow);
        }
    }
    std::shuffle(order_.begin(), order_.end(), std::mt19937(thread + 1));
    tov_mod_localctr_mod_kes_lyrhost();
}

Bursts::~Bursts() {
    tov_mod_localdtr_mod_kes_lyrhost();
}

void Bursts::Receive() {
    first_ = next_;
    for (HostMbuf *&packet : packets_) {
        packet = PoolOf(thread_).Receive(frames_[order_[next_]], {});
        next_ = (next_ + 1) % order_.size();
    }
}

void Bursts::Release() {
    std::ranges::for_each(packets_, standin::MbufPool::Release);
}

}  // namespace bench
