// What the packet hook and the receive path cost, by what arrives; and what of that is the engine's
// hand-off.
#include <algorithm>
#include <array>
#include <functional>
#include <span>
#include <string>

#include "benchmarks.h"
#include "bursts.h"
#include "channel/service_channel.h"
#include "dfx/stat_hooks.h"
#include "failure.h"
#include "kes/channel.h"
#include "kes/hook.h"
#include "packet/packet_entry.h"
#include "running_module.h"
#include "standin/channels.h"
#include "standin/packet_path.h"
#include "traffic.h"

namespace bench {
namespace {

// Entries of each tunnel table, and of the session table: as many as its default size is for.
constexpr uint32_t kTunnels = 18000;
constexpr uint32_t kSessions = 8999;
// So few that the tables stay in the caches, and what remains is the work itself.
constexpr uint32_t kFewTunnels = 1000;
constexpr uint32_t kSendOption = 1000;

struct HookCase {
    const char *name;
    Traffic traffic;
    uint64_t fate;
};

constexpr HookCase kHookCases[] = {
    {"tcp", Traffic::kTcp, HOST_HOOK_CONTINUE},
    {"udp_other_port", Traffic::kOtherUdp, HOST_HOOK_CONTINUE},
    {"station_data", Traffic::kStationData, HOST_HOOK_CONTINUE},
    {"control_ipv4", Traffic::kControlIpv4, HOST_HOOK_TAKEN},
    {"control_ipv6", Traffic::kControlIpv6, HOST_HOOK_TAKEN},
    {"default_ipv4", Traffic::kStrangerIpv4, HOST_HOOK_TAKEN},
    {"default_ipv6", Traffic::kStrangerIpv6, HOST_HOOK_TAKEN},
    {"keepalive", Traffic::kKeepalive, HOST_HOOK_TAKEN},
    {"wapi", Traffic::kWapi, HOST_HOOK_TAKEN},
};

// The tables in their default sizes; each benchmark thread has an instance of its own.
ModuleSetup DefaultTables(uint32_t tunnels, int threads, bool diagnostics = false) {
    return {.ipv4Tunnels = tunnels,
            .ipv6Tunnels = tunnels,
            .sessions = std::min(tunnels, kSessions),
            .defaultTunnels = true,
            .owners = static_cast<uint32_t>(threads),
            .diagnostics = diagnostics};
}

// What is sent passes two hooks of the module, which never take it.
constexpr HookCase kTransmitCases[] = {
    {"tcp", Traffic::kTcp, HOST_HOOK_CONTINUE},
    {"control", Traffic::kControlSent, HOST_HOOK_CONTINUE},
    {"ping", Traffic::kPingSent, HOST_HOOK_CONTINUE},
    {"probe", Traffic::kProbeSent, HOST_HOOK_CONTINUE},
};

uint64_t TransmitPath(HostMbuf *packet) {
    LyrKes_CwpStatTxInProc(packet);
    return LyrKes_CwpStatTxOutProc(packet);
}

// All hooks of the module that a received packet passes.
uint64_t ReceivePath(HostMbuf *packet) {
    LyrKes_CwpStatRxInProc(packet);
    LyrKes_CwpStatRxOutProc(packet);
    return LyrKes_PktProc(packet);
}

bool LooksUp(const HookCase &hookCase) {
    return hookCase.fate == HOST_HOOK_TAKEN && hookCase.traffic != Traffic::kWapi;
}

bool IsStranger(Traffic traffic) {
    return traffic == Traffic::kStrangerIpv4 || traffic == Traffic::kStrangerIpv6;
}

// Takes the packets back from the instance that must have got them.
void TakeBack(const HookCase &hookCase, uint32_t thread) {
    const bool wapi = hookCase.traffic == Traffic::kWapi;
    const uint32_t pktType = wapi ? LYR_PKT_TYPE_WAPI : LYR_PKT_TYPE_CAPWAP;
    if (IsStranger(hookCase.traffic)) {
        // Whichever thread comes first takes all.
        DrainChannel(kDefaultInstance, pktType);
        return;
    }
    const size_t taken = DrainChannel(thread, pktType);
    if (taken != kBurst) {
        Fail("hook/%s: instance %u got %zu packets of %zu", hookCase.name, thread, taken, kBurst);
    }
}

// How a burst passes the module; answers how many of its packets met another fate than `fate`.
using Pass = std::function<size_t(std::span<HostMbuf *const> packets, uint64_t fate)>;

// One packet after the other.
Pass PassEach(HostHookFunc hook) {
    return [hook](std::span<HostMbuf *const> packets, uint64_t fate) {
        size_t others = 0;
        for (HostMbuf *packet : packets) {
            others += hook(packet) != fate;
        }
        return others;
    };
}

// As the engine has them pass: stage by stage, a few at a time.
size_t PassEngine(std::span<HostMbuf *const> packets, uint64_t fate) {
    std::array<standin::Fate, kBurst> fates;
    standin::RunReceivePath(packets, fates);
    const auto expected =
        fate == HOST_HOOK_TAKEN ? standin::Fate::kTaken : standin::Fate::kReturned;
    return kBurst - static_cast<size_t>(std::ranges::count(fates, expected));
}

void RunHook(benchmark::State &state, const Pass &pass, const HookCase &hookCase) {
    const auto thread = static_cast<uint32_t>(state.thread_index());
    const auto threads = static_cast<uint32_t>(state.threads());
    const auto tunnels = static_cast<uint32_t>(state.range(0));
    const ModuleSetup setup = DefaultTables(tunnels, state.threads(), state.range(1) != 0);
    if (thread == 0) {
        RunModule(setup);
    }
    const uint32_t flows = hookCase.traffic == Traffic::kKeepalive ? setup.sessions : tunnels;
    Bursts bursts(Frames::Of(hookCase.traffic, flows), thread, thread, threads);
    size_t others = 0;
    MeasureBursts(
        state, [&] { bursts.Receive(); }, [&] { others += pass(bursts.Packets(), hookCase.fate); },
        [&] {
            if (others != 0) {
                Fail("hook/%s: %zu packets met another fate", hookCase.name, others);
            }
            if (hookCase.fate == HOST_HOOK_TAKEN) {
                TakeBack(hookCase, thread);
            } else {
                bursts.Release();
            }
        });
}

enum class HandOff {
    kSend,           // what is inside a hook's figure: the channel takes the packet, the event
    kSendShared,     // the same with one channel for all threads
    kSendAndReceive  // the receiver's side too
};

// The engine's operations alone, as the module calls them for a packet that it hands over.
void RunHandOff(benchmark::State &state, HandOff handOff) {
    const auto thread = static_cast<uint32_t>(state.thread_index());
    if (thread == 0) {
        RunModule(DefaultTables(kTunnels, state.threads()));
    }
    const uint32_t instance = handOff == HandOff::kSendShared ? kDefaultInstance : thread;
    Bursts bursts(Frames::Of(Traffic::kControlIpv4, kTunnels), thread);
    size_t failures = 0;
    MeasureBursts(
        state, [&] { bursts.Receive(); },
        [&] {
            const uint32_t channel = ChannelOf(instance, LYR_PKT_TYPE_CAPWAP);
            TovThreadInfo *receiver = ThreadOf(instance);
            for (HostMbuf *packet : bursts.Packets()) {
                failures += TOV_ChannelDcSend(channel, packet, kSendOption) != 0;
                TOV_EventWrite(receiver, 1);
                if (handOff == HandOff::kSendAndReceive) {
                    failures += standin::ReceiveFromChannel(channel) != packet;
                }
            }
        },
        [&] {
            if (failures != 0) {
                Fail("handoff: %zu operations failed", failures);
            }
            if (handOff == HandOff::kSendAndReceive) {
                bursts.Release();
            } else {
                DrainChannel(instance, LYR_PKT_TYPE_CAPWAP);
            }
        });
}

}  // namespace

void RegisterHookBenchmarks() {
    for (const HookCase &hookCase : kHookCases) {
        const std::string name = hookCase.name;
        auto *hook = benchmark::RegisterBenchmark(("hook/" + name).c_str(), RunHook,
                                                  PassEach(LyrKes_PktProc), hookCase)
                         ->ArgNames({"tunnels", "diagnostics"})
                         ->Args({kTunnels, 0})
                         ->Apply(OneAndTwoThreads);
        if (LooksUp(hookCase)) {
            hook->Args({kFewTunnels, 0})->Args({kFewTunnels, 1});
            benchmark::RegisterBenchmark(("path/" + name).c_str(), RunHook, PassEngine, hookCase)
                ->ArgNames({"tunnels", "diagnostics"})
                ->Args({kTunnels, 0})
                ->Args({kFewTunnels, 0})
                ->Apply(OneAndTwoThreads);
        }
        benchmark::RegisterBenchmark(("receive/" + name).c_str(), RunHook, PassEach(ReceivePath),
                                     hookCase)
            ->ArgNames({"tunnels", "diagnostics"})
            ->Args({kFewTunnels, 0})
            ->Args({kFewTunnels, 1})
            ->Apply(OneAndTwoThreads);
    }
    for (const HookCase &hookCase : kTransmitCases) {
        benchmark::RegisterBenchmark((std::string("transmit/") + hookCase.name).c_str(), RunHook,
                                     PassEach(TransmitPath), hookCase)
            ->ArgNames({"tunnels", "diagnostics"})
            ->Args({kFewTunnels, 0})
            ->Args({kFewTunnels, 1})
            ->Apply(OneAndTwoThreads);
    }
    benchmark::RegisterBenchmark("handoff/send", RunHandOff, HandOff::kSend)
        ->Apply(OneAndTwoThreads);
    benchmark::RegisterBenchmark("handoff/send_shared", RunHandOff, HandOff::kSendShared)
        ->Apply(OneAndTwoThreads);
    benchmark::RegisterBenchmark("handoff/send_and_receive", RunHandOff, HandOff::kSendAndReceive)
        ->Apply(OneAndTwoThreads);
}

}  // namespace bench
