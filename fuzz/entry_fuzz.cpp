// Frames before the packet hook of a started module with sources, tunnels, sessions and stations.
#include <algorithm>
#include <string>

#include "capwap/packet_builder.h"
#include "channel/service_channel.h"
#include "dfx/debug_trace.h"
#include "dfx/packet_counters.h"
#include "frame_seeds.h"
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

standin::MbufPool pool(1);

// The first byte of an input.
enum Circumstances : uint8_t {
    kCause = 3,  // one of kCauseActions
    kOtherVrf = 1 << 2,
    kMarked = 1 << 3,
    kTraced = 1 << 4,
    kTracesEchoes = 1 << 5,  // and nothing else
    kNoRoom = 1 << 6,        // in the channels
};

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

// What became of a packet.
struct Outcome {
    uint64_t fate;
    size_t owner;
    bool operator==(const Outcome &) const = default;
};

// Only these reach an instance, and never for the causes that the module leaves alone.
bool IsForInstances(const standin::HostMbufMeta &meta) {
    const auto isPort = [](uint16_t port) { return port == 5246 || port == 5247; };
    return meta.causeAction != 8 && meta.causeAction != 57 &&
           (meta.etherType == 0x88B4 ||
            (meta.ipProtocol == 17 && (isPort(meta.srcPort) || isPort(meta.dstPort))));
}

Outcome Run(fuzz::ByteSpan frame, uint8_t circumstances) {
    static const Instances instances;
    HostMbuf *packet = pool.Receive(frame, {.vrf = (circumstances & kOtherVrf) != 0 ? 1u : 0u,
                                            .diagnose = (circumstances & kMarked) != 0});
    constexpr uint16_t kCauseActions[] = {0, 8, 57, 58};
    standin::MetaOf(packet).causeAction = kCauseActions[circumstances & kCause];
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
    Require(std::ranges::equal(standin::FrameAsReceived(packet), frame), "no frame is changed");
    standin::MbufPool::Release(packet);
    return outcome;
}

void SetTrace(uint8_t circumstances) {
    LyrKesDebugTraceReq request = {};
    request.debugLevel = 3;
    request.capwapMsgType = (circumstances & kTracesEchoes) != 0 ? 13 : 0;
    LyrKes_DebugTraceConfigUpdate(&request);
}

// Runs the packet while no channel takes any.
void RunWithoutRoom(fuzz::ByteSpan frame, uint8_t circumstances, const Outcome &quiet) {
    standin::FailCall("TOV_ChannelDcSend");
    const Outcome outcome = Run(frame, circumstances);
    standin::ClearFaults();
    const bool wasTaken = quiet.fate == HOST_HOOK_TAKEN;
    Require(outcome.owner == 0 && outcome.fate == (wasTaken ? HOST_HOOK_DISCARD : quiet.fate),
            "what would be taken is undelivered without room");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Reader input(data, size);
    const auto circumstances = input.Take<uint8_t>();
    if (input.Rest().size() > standin::MbufPool::kMaxFrame) {
        return 0;
    }
    const Outcome quiet = Run(input.Rest(), circumstances & (kCause | kOtherVrf));
    if ((circumstances & kTraced) != 0) {
        SetTrace(circumstances);
    }
    if ((circumstances & (kTraced | kMarked)) != 0) {
        Require(Run(input.Rest(), circumstances) == quiet, "mark and trace change no fate");
    }
    if ((circumstances & kNoRoom) != 0) {
        RunWithoutRoom(input.Rest(), circumstances, quiet);
    }
    if ((circumstances & kTraced) != 0) {
        LyrKes_DebugTraceConfigClear();
    }
    return 0;
}

std::vector<fuzz::Bytes> fuzz::Seeds() {
    std::vector<Bytes> inputs;
    for (const uint8_t circumstances :
         Bytes{0, kMarked, kTraced, kTraced | kTracesEchoes, kNoRoom}) {
        for (Bytes &input : SeedsBehind({circumstances})) {
            inputs.push_back(std::move(input));
        }
    }
    return inputs;
}
