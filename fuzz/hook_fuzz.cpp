// Frames before the packet hook and the four statistics hooks of a started module with sources,
// tunnels, sessions and stations, which watches a peer and traces probes.
#include <algorithm>
#include <string>

#include "capwap/packet_builder.h"
#include "channel/service_channel.h"
#include "dfx/debug_trace.h"
#include "dfx/packet_counters.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "kes/channel.h"
#include "kes/hook.h"
#include "lb/tunnel_registration.h"
#include "packet/cwp_source.h"
#include "standin/channels.h"
#include "standin/mbuf_pool.h"
#include "standin/packet_path.h"
#include "standin/runtime.h"
#include "started_module.h"

namespace {

using fuzz::Require;

// The front of an input; claims follow where it says so, and then the frame.
struct Circumstances {
    uint8_t point;  // of kPoints
    uint8_t flags;
    uint16_t cause;
};

constexpr uint32_t kPoints[] = {HOST_HOOK_TX_IN, HOST_HOOK_TX_OUT, HOST_HOOK_RX_IN,
                                HOST_HOOK_RX_OUT, HOST_HOOK_HOST_RX};

enum Flags : uint8_t {
    kWatched = 1 << 0,  // the packet's peer
    kOtherVrf = 1 << 1,
    kMarked = 1 << 2,
    kClaims = 1 << 3,
    kShortSegment = 1 << 4,
    kTraced = 1 << 5,
    kTracesEchoes = 1 << 6,  // and nothing else
    kNoRoom = 1 << 7,        // in the channels
};

standin::MbufPool pool(1);

// Instances 1 and 2 serve tunnels and sessions, instance 3 stations; 4 has no channel.
class Instances {
  public:
    Instances() {
        channels_ = {module_.OpenInstance(1, LYR_PKT_TYPE_CAPWAP),
                     module_.OpenInstance(2, LYR_PKT_TYPE_CAPWAP),
                     module_.OpenInstance(3, LYR_PKT_TYPE_WAPI)};
        const uint16_t groups[8] = {0x2001, 0xDB8, 0, 0, 0, 0, 0, 1};
        LyrKes_AddCwpSrc(true, CWP_SRC_ANY_IF, capwap::Ipv4("10.0.0.1"), groups, 0);
        LyrKes_AddCwpSrc(false, CWP_SRC_ADDRESS, 0, groups, 0);
        AddTunnels();
        const LyrKesDistKaKey session = {{0x11, 0x22, 0x33, 0x44}};
        LyrKes_DistAddKaTunnel(2, &session);
        LyrKes_DistAddWapiTunnel(3, 1);
    }
    // The instance whose channel the packet is in, 0 for none.
    size_t Find(const HostMbuf *packet) const {
        size_t owner = 0;
        for (size_t i = 0; i < channels_.size(); ++i) {
            if (const HostMbuf *received = standin::ReceiveFromChannel(channels_[i])) {
                Require(received == packet && owner == 0, "an instance gets what was sent to it");
                owner = i + 1;
            }
        }
        return owner;
    }

  private:
    static void AddTunnels() {
        for (const uint16_t dstPort : {capwap::kControlPort, capwap::kDataPort}) {
            const LyrKesDistIpv4Key ipv4 = {.srcIp = capwap::Ipv4("10.0.10.1"),
                                            .dstIp = capwap::Ipv4("10.0.0.1"),
                                            .srcPort = 40000,
                                            .dstPort = dstPort,
                                            .vpnId = 0};
            LyrKes_DistAddIPv4Tunnel(1, &ipv4);
            const LyrKesDistIpv6Key ipv6 = {.srcIpv6 = {0x20010DB8, 0, 0, 0xA0001},
                                            .dstIpv6 = {0x20010DB8, 0, 0, 1},
                                            .srcPort = 40000,
                                            .dstPort = dstPort,
                                            .vpnId = 0};
            LyrKes_DistAddIPv6Tunnel(dstPort == capwap::kControlPort ? 2 : 4, &ipv6);
        }
    }

    fuzz::StartedModule module_;
    std::vector<uint32_t> channels_;
};

// Only these reach an instance, and never for the causes that the module leaves alone.
bool IsForInstances(const standin::HostMbufMeta &meta) {
    const auto isPort = [](uint16_t port) { return port == 5246 || port == 5247; };
    return meta.causeAction != 8 && meta.causeAction != 57 &&
           (meta.etherType == 0x88B4 ||
            (meta.ipProtocol == 17 && (isPort(meta.srcPort) || isPort(meta.dstPort))));
}

// What the engine claims of a packet.
struct PacketClaims {
    uint8_t protoType;
    uint8_t ipProtocol;
    uint16_t l2Length;
    uint16_t ipHeaderLength;
    uint16_t srcPort;
    uint16_t dstPort;
    uint8_t hasMacs;
    uint8_t diagSwitch;
};
static_assert(sizeof(PacketClaims) == 12, "no padding");

// Has the engine claim that, and gives the packet its whole frame.
void Claim(const PacketClaims &claims, HostMbuf *packet) {
    standin::HostMbufMeta &meta = standin::MetaOf(packet);
    packet->dataLen = static_cast<uint16_t>(meta.frameLength);
    meta.protoType = claims.protoType;
    meta.ipProtocol = claims.ipProtocol;
    meta.l2Length = claims.l2Length;
    meta.ipHeaderLength = claims.ipHeaderLength;
    meta.srcPort = claims.srcPort;
    meta.dstPort = claims.dstPort;
    meta.hasMacs = claims.hasMacs != 0;
    meta.diagSwitch = claims.diagSwitch;
}

HostMbuf *Receive(fuzz::Reader &input, const Circumstances &in, uint8_t flags) {
    const bool claimed = (flags & kClaims) != 0;
    const auto claims = claimed ? input.Take<PacketClaims>() : PacketClaims{};
    HostMbuf *packet = pool.Receive(input.Rest(), {.vrf = (flags & kOtherVrf) != 0 ? 1u : 0u,
                                                   .diagnose = (flags & kMarked) != 0});
    if (packet == nullptr) {
        return nullptr;
    }
    Require(HostMbufGetL2HeadLength(packet) + HostMbufGetIphdrHeadlen(packet) <= packet->pktLen &&
                packet->pktLen <= input.Rest().size(),
            "a packet and its headers are within the frame");
    if (claimed) {
        Claim(claims, packet);
    }
    if ((flags & kShortSegment) != 0) {
        packet->dataLen = static_cast<uint16_t>(packet->dataLen / 2);
    }
    standin::HostMbufMeta &meta = standin::MetaOf(packet);
    constexpr uint16_t kCauseActions[] = {0, 8, 57, 58};
    meta.causeAction = kCauseActions[in.cause & 3];
    meta.causeId = in.cause;
    return packet;
}

void SetTrace(uint8_t flags) {
    LyrKesDebugTraceReq request = {};
    request.debugLevel = 3;
    request.capwapMsgType = (flags & kTracesEchoes) != 0 ? 13 : 0;
    LyrKes_DebugTraceConfigUpdate(&request);
}

// --- the packet hook ---

// What became of a packet.
struct Outcome {
    uint64_t fate;
    size_t owner;
    bool operator==(const Outcome &) const = default;
};

Outcome Enter(const Instances &instances, HostMbuf *packet) {
    const bool forInstances = IsForInstances(standin::MetaOf(packet));
    Outcome outcome;
    outcome.fate = standin::RunHooks(HOST_HOOK_HOST_RX, packet);
    outcome.owner = instances.Find(packet);
    Require(outcome.fate == HOST_HOOK_CONTINUE || outcome.fate == HOST_HOOK_TAKEN ||
                outcome.fate == HOST_HOOK_DISCARD,
            "the hook answers one of its fates");
    Require((outcome.fate == HOST_HOOK_TAKEN) == (outcome.owner != 0),
            "an instance has what was taken");
    Require(outcome.fate == HOST_HOOK_CONTINUE || forInstances, "other packets are not taken");
    for (const LyrKesPktStat &row : g_cwpPktStats) {
        Require(row.rxCnt == row.sendOkCnt + row.sendFailCnt + row.procFailCnt,
                "what came was sent or failed");
    }
    return outcome;
}

// --- the statistics hooks ---

// Has the module watch the peer, or nobody.
void Watch(const standin::HostMbufMeta &meta, const Circumstances &in) {
    const bool transmit = in.point == KES_HOOK_TXIN || in.point == KES_HOOK_TXOUT;
    const bool watched = (in.flags & kWatched) != 0;
    const uint32_t *const words = transmit ? meta.dstIp6 : meta.srcIp6;
    uint16_t groups[8] = {};
    for (size_t i = 0; watched && i < 8; ++i) {
        groups[i] = static_cast<uint16_t>(words[i / 2] >> (i % 2 == 0 ? 16 : 0));
    }
    const uint32_t ipv4 = transmit ? meta.dstIp : meta.srcIp;
    LyrKes_UpdateCwpPingConfig(meta.protoType != HOST_PROTO_IPV6, watched ? ipv4 : 0, groups);
}

void CheckCounters(uint32_t hookKind, bool counted) {
    for (uint32_t kind = 0; kind < KES_HOOK_NUM; ++kind) {
        const LyrKesCwpPingCounter &counter = g_LyrHostCwpPingStat.counters[kind];
        const bool here =
            counted && (kind == hookKind || (hookKind == KES_HOOK_RXOUT && kind == KES_HOOK_RXIN));
        Require(counter.pktCnt == (here ? 1 : 0) && counter.fragCnt <= counter.pktCnt &&
                    (here || counter.byteCnt == 0),
                "the marked ping counts at its point, and nothing else");
    }
}

// The ring of sightings moved on by one at most.
void CheckRing(uint32_t tailBefore, uint32_t countBefore, uint32_t hookKind, bool traced) {
    const LyrKesCwpTrace &ring = g_LyrHostCwpTrace;
    const uint32_t more = ring.tail != tailBefore ? 1 : 0;
    Require(ring.tail == (tailBefore + more) % LYR_CWP_TRACE_NUM &&
                ring.count == std::min(countBefore + more, LYR_CWP_TRACE_NUM) &&
                ring.head == (ring.tail - ring.count) % LYR_CWP_TRACE_NUM,
            "the ring has the last sightings");
    Require(more == 0 || traced, "only what is traced is recorded");
    Require(more == 0 || ring.records[tailBefore].hookKind == hookKind, "a record names its point");
}

void Pass(HostMbuf *packet, const Circumstances &in) {
    standin::HostMbufMeta before = standin::MetaOf(packet);
    before.needTrace = standin::MetaOf(packet).needTrace = (in.flags & kMarked) != 0 ? 1 : 0;
    Watch(before, in);
    const uint32_t tail = g_LyrHostCwpTrace.tail, count = g_LyrHostCwpTrace.count;
    Require(standin::RunHooks(kPoints[in.point], packet) == HOST_HOOK_CONTINUE,
            "the statistics hooks take no packet");
    const standin::HostMbufMeta &after = standin::MetaOf(packet);
    Require(after.needStat == 0 || (in.flags & kWatched) != 0, "only pings of the peer count");
    CheckCounters(in.point, after.needStat != 0);
    const bool recognised = before.causeId == 1769 || before.causeId == 1770;
    CheckRing(tail, count, in.point, after.needTrace != 0 || recognised);
    before.needStat = after.needStat;
    before.needTrace = after.needTrace;
    Require(std::memcmp(&before, &after, sizeof before) == 0, "nothing but marks is changed");
}

// Runs the packet once; what became of it at the packet hook.
Outcome Run(fuzz::Reader input, const Circumstances &in, uint8_t flags) {
    static const Instances instances;
    Outcome outcome = {};
    HostMbuf *packet = Receive(input, in, flags);
    if (packet == nullptr) {
        return outcome;
    }
    if (kPoints[in.point] == HOST_HOOK_HOST_RX) {
        uint16_t wlanId = 0;
        standin::WlanIdReader()(packet, &wlanId);
        outcome = Enter(instances, packet);
    } else {
        Pass(packet, in);
    }
    Require(std::ranges::equal(standin::FrameAsReceived(packet), input.Rest()),
            "no frame is changed");
    standin::MbufPool::Release(packet);
    return outcome;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Reader input(data, size);
    auto in = input.Take<Circumstances>();
    in.point = static_cast<uint8_t>(in.point % std::size(kPoints));
    const Outcome quiet = Run(input, in, in.flags & ~kMarked);
    if ((in.flags & kTraced) != 0) {
        SetTrace(in.flags);
    }
    if ((in.flags & (kTraced | kMarked)) != 0) {
        Require(Run(input, in, in.flags) == quiet, "mark and trace change no fate");
    }
    LyrKes_DebugTraceConfigClear();
    if ((in.flags & kNoRoom) != 0) {
        standin::FailCall("TOV_ChannelDcSend");
        const Outcome outcome = Run(input, in, in.flags);
        standin::ClearFaults();
        const bool wasTaken = quiet.fate == HOST_HOOK_TAKEN;
        Require(outcome.owner == 0 && outcome.fate == (wasTaken ? HOST_HOOK_DISCARD : quiet.fate),
                "what would be taken is undelivered without room");
    }
    return 0;
}
