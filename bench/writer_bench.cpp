// What a writer of a table pays while other threads look up, and how long many new tunnels take.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "benchmarks.h"
#include "bursts.h"
#include "failure.h"
#include "lb/dist_locker.h"
#include "lb/dist_table.h"
#include "lb/packet_lookup.h"
#include "lb/tunnel_registration.h"
#include "own_processor.h"
#include "running_module.h"
#include "traffic.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kTunnels = 18000;
constexpr uint32_t kOwner = 0;

// Threads that look up IPv4 tunnels without a pause, from before the constructor returns until the
// destructor is called.
class Lookups {
  public:
    // With `mayMiss`, a tunnel may be missing from the table.
    Lookups(int64_t threads, bool mayMiss) : mayMiss_(mayMiss) {
        for (uint32_t i = 0; i < threads; ++i) {
            threads_.emplace_back([this, i] { Run(i); });
        }
        while (running_ < threads) {
        }
    }
    ~Lookups() {
        stop_ = true;
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }
    Lookups(const Lookups &) = delete;
    Lookups &operator=(const Lookups &) = delete;

  private:
    void Run(uint32_t thread) {
        const OwnProcessor bound(thread + 1);
        Bursts bursts(Frames::Of(Traffic::kControlIpv4, kTunnels), thread);
        ++running_;
        while (!stop_) {
            bursts.Receive();
            for (HostMbuf *packet : bursts.Packets()) {
                const uint32_t result = LyrKes_DistIpv4_PktProc(packet);
                const uint32_t owner = HostMbufGetLbKey(packet);
                if (result != LYR_DIST_OK ||
                    (owner != kOwner && !(mayMiss_ && owner == HOST_LB_KEY_NONE))) {
                    Fail("writer: a lookup answers %u, owner %u", result, owner);
                }
            }
            bursts.Release();
        }
    }

    const bool mayMiss_;
    std::atomic<int64_t> running_{0};
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

void Wait(Clock::duration duration) {
    const auto end = Clock::now() + duration;
    while (Clock::now() < end) {
    }
}

// The write side taken and given up. In between, readers have some time to themselves.
void RunWriteLock(benchmark::State &state) {
    constexpr auto kPause = std::chrono::microseconds(20);
    RunModule({.ipv4Tunnels = kTunnels});
    const OwnProcessor bound(0);
    const Lookups lookups(state.range(0), false);
    std::vector<double> seconds;
    for (auto _ : state) {
        Wait(kPause);
        const auto start = Clock::now();
        LyrKes_DistWriteLock(&g_LyrKes_DistIpv4RwLocker);
        LyrKes_DistWriteUnlock(&g_LyrKes_DistIpv4RwLocker);
        seconds.push_back(Seconds(Clock::now() - start));
        state.SetIterationTime(seconds.back());
    }
    std::ranges::sort(seconds);
    state.counters["typical_ns"] = seconds[seconds.size() / 2] * 1e9;
    state.counters["slow_ns"] = seconds[seconds.size() * 99 / 100] * 1e9;
}

// All tunnels added to an empty table.
void RunRegistration(benchmark::State &state) {
    RunModule({});
    std::vector<LyrKesDistIpv4Key> keys;
    for (uint32_t flow = 0; flow < kTunnels; ++flow) {
        keys.push_back(Ipv4Tunnel(flow));
    }
    const OwnProcessor bound(0);
    const Lookups lookups(state.range(0), true);
    std::vector<double> seconds;
    uint32_t failures = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (const LyrKesDistIpv4Key &key : keys) {
            failures += LyrKes_DistAddIPv4Tunnel(kOwner, &key) != 0;
        }
        seconds.push_back(Seconds(Clock::now() - start));
        state.SetIterationTime(seconds.back());
        for (const LyrKesDistIpv4Key &key : keys) {
            failures += LyrKes_DistDelIPv4Tunnel(kOwner, &key) != 0;
        }
    }
    if (failures != 0) {
        Fail("writer/register: %u tunnels not added or not deleted", failures);
    }
    state.counters["typical_ns"] = Median(seconds) * 1e9 / kTunnels;
}

}  // namespace

void RegisterWriterBenchmarks() {
    const auto configure = [](benchmark::internal::Benchmark *benchmark) {
        benchmark->ArgName("lookups")->Arg(0)->Arg(1)->UseManualTime();
    };
    benchmark::RegisterBenchmark("writer/lock", RunWriteLock)
        ->Apply(configure)
        ->Unit(benchmark::kNanosecond);
    benchmark::RegisterBenchmark("writer/register", RunRegistration)
        ->Apply(configure)
        ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
