// What the steps cost that the hook and the lookups are made of.
#include <vector>

#include "benchmarks.h"
#include "bursts.h"
#include "failure.h"
#include "kes/hook.h"
#include "lb/dist_hash.h"
#include "lb/dist_locker.h"
#include "packet/capwap_header.h"
#include "packet/cwp_source_match.h"
#include "running_module.h"
#include "traffic.h"

namespace bench {
namespace {

constexpr uint32_t kFlows = 18000;

void RunHash(benchmark::State &state, uint32_t (*hash)(const void *, uint32_t)) {
    const auto length = static_cast<uint32_t>(state.range(0));
    std::vector<LyrKesDistIpv6Key> keys;
    for (uint32_t flow = 0; flow < kBurst; ++flow) {
        keys.push_back(Ipv6Tunnel(flow));
    }
    MeasureBursts(
        state, [] {},
        [&] {
            for (const LyrKesDistIpv6Key &key : keys) {
                benchmark::DoNotOptimize(hash(&key, length));
            }
        },
        [] {});
}

// One locker for all threads, alone in its cache line.
void RunReadLocker(benchmark::State &state) {
    alignas(64) static uint32_t locker = 0;
    MeasureBursts(
        state, [] {},
        [] {
            for (size_t i = 0; i < kBurst; ++i) {
                LyrKes_DistReadLock(&locker);
                LyrKes_DistReadUnlock(&locker);
            }
        },
        [] {});
}

// Something that is asked of each packet and must answer `answer`.
template <class Ask>
void AskOfPackets(benchmark::State &state, const ModuleSetup &setup, Traffic traffic, Ask ask,
                  uint64_t answer) {
    const auto thread = static_cast<uint32_t>(state.thread_index());
    if (thread == 0) {
        RunModule(setup);
    }
    Bursts bursts(Frames::Of(traffic, kFlows), thread);
    size_t others = 0;
    MeasureBursts(
        state, [&] { bursts.Receive(); },
        [&] {
            for (HostMbuf *packet : bursts.Packets()) {
                others += ask(packet) != answer;
            }
        },
        [&] {
            if (others != 0) {
                Fail("%zu packets got another answer than %lu", others,
                     static_cast<unsigned long>(answer));
            }
            bursts.Release();
        });
}

uint64_t DoNothing(HostMbuf * /*packet*/) {
    return HOST_HOOK_CONTINUE;
}

// The call through a pointer and the clock: what every figure contains.
void RunNothing(benchmark::State &state) {
    HostHookFunc nothing = DoNothing;
    benchmark::DoNotOptimize(nothing);
    AskOfPackets(state, {}, Traffic::kControlIpv4, nothing, HOST_HOOK_CONTINUE);
}

void RunSourceMatch(benchmark::State &state) {
    const ModuleSetup setup = {.sourcePosition = static_cast<uint32_t>(state.range(0))};
    AskOfPackets(state, setup, Traffic::kControlIpv4, LyrHost_IsPktMatchCwpSrc, 1);
}

void RunSessionId(benchmark::State &state) {
    AskOfPackets(
        state, {}, Traffic::kKeepalive,
        [](const HostMbuf *packet) {
            uint32_t words[4];
            const uint32_t result = LyrKes_GetKaSessionid(packet, words);
            benchmark::DoNotOptimize(words);
            return result;
        },
        0);
}

}  // namespace

void RegisterStepBenchmarks() {
    benchmark::RegisterBenchmark("step/nothing", RunNothing)->Apply(OneAndTwoThreads);
    benchmark::RegisterBenchmark("step/hash", RunHash, LyrKes_Hash)
        ->ArgName("bytes")
        ->Arg(16)
        ->Arg(40)
        ->Apply(OneAndTwoThreads);
    benchmark::RegisterBenchmark("step/read_locker", RunReadLocker)->Apply(OneAndTwoThreads);
    benchmark::RegisterBenchmark("step/source_match", RunSourceMatch)
        ->ArgName("position")
        ->Arg(0)
        ->Arg(7)
        ->Apply(OneAndTwoThreads);
    benchmark::RegisterBenchmark("step/session_id", RunSessionId)->Apply(OneAndTwoThreads);
}

}  // namespace bench
