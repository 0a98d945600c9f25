// What an audit's finish costs the packets: how long it holds each table's write lock, and the
// longest that a lookup waits meanwhile. One node owns all 18,000 entries of the table.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "kes/sync.h"
#include "lb/dist_locker.h"
#include "lb/dist_table.h"
#include "lb/tunnel_registration.h"
#include "module/lifecycle.h"
#include "module/registration.h"
#include "own_processor.h"
#include "verify/recon_sweep.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kEntries = 18000;
constexpr uint32_t kNode = 1;
constexpr uint32_t kWriter = 0x10000;

struct Ipv4 {
    using Key = LyrKesDistIpv4Key;
    static constexpr auto kAdd = LyrKes_DistAddIPv4Tunnel;
    static constexpr auto kSweep = LyrKes_Recon_FinishProcLoopIpv4Tbl;
    static constexpr auto &kLocker = g_LyrKes_DistIpv4RwLocker;
    static Key MakeKey(uint32_t i) {
        return {0x0A000000 + i, 0x0A800001, static_cast<uint16_t>(20000 + i % 40000), 5246, 0};
    }
    static void Confirm(const Key &key) {
        LyrKes_Recon_IPv4CwpProc(kNode, &key);
    }
};

struct Ipv6 {
    using Key = LyrKesDistIpv6Key;
    static constexpr auto kAdd = LyrKes_DistAddIPv6Tunnel;
    static constexpr auto kSweep = LyrKes_Recon_FinishProcLoopIpv6Tbl;
    static constexpr auto &kLocker = g_LyrKes_DistIpv6RwLocker;
    static Key MakeKey(uint32_t i) {
        return {{0x20010DB8, 0, 0, i}, {0x20010DB8, 0, 0, 0xFFFFFFFF}, 20000, 5246, 0};
    }
    static void Confirm(const Key &key) {
        LyrKes_Recon_IPv6CwpProc(kNode, &key);
    }
};

struct Ka {
    using Key = LyrKesDistKaKey;
    static constexpr auto kAdd = LyrKes_DistAddKaTunnel;
    static constexpr auto kSweep = LyrKes_Recon_FinishProcLoopKaTbl;
    static constexpr auto &kLocker = g_LyrKes_DistKaRwLocker;
    static Key MakeKey(uint32_t i) {
        return {{i * 2654435761u, i, ~i, 7}};
    }
    static void Confirm(const Key &key) {
        LyrKes_Recon_KaProc(kNode, key.sessionId, sizeof(key.sessionId));
    }
};

// All entries in the table, and all but `removePercent` of them confirmed in an open audit.
template <class Table>
void Prepare(uint32_t removePercent) {
    LyrKes_Recon_BeginProc(kNode);
    for (uint32_t i = 0; i < kEntries; ++i) {
        const typename Table::Key key = Table::MakeKey(i);
        if (Table::kAdd(kNode, &key) != 0) {
            std::fprintf(stderr, "sweep_bench: entry %u could not be added\n", i);
            std::exit(1);
        }
        if (i % 100 >= removePercent) {
            Table::Confirm(key);
        }
    }
}

uint32_t Locker(const uint32_t &word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// Seconds for which the locker has a writer, seen from another core; 0 if the watcher was not
// running at the time.
double WatchHold(const uint32_t &locker, std::atomic<bool> &watching,
                 const std::atomic<bool> &done) {
    watching = true;
    while (Locker(locker) < kWriter) {
        if (done.load(std::memory_order_relaxed)) {
            return 0;
        }
    }
    const auto begin = Clock::now();
    while (Locker(locker) >= kWriter) {
    }
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// The longest that taking and giving up the read side took until `done`.
double WatchReads(uint32_t &locker, std::atomic<bool> &watching, const std::atomic<bool> &done) {
    Clock::duration longest{};
    watching = true;
    while (!done.load(std::memory_order_relaxed)) {
        const auto begin = Clock::now();
        LyrKes_DistReadLock(&locker);
        LyrKes_DistReadUnlock(&locker);
        longest = std::max(longest, Clock::now() - begin);
    }
    return std::chrono::duration<double>(longest).count();
}

// Sweeps while another thread watches; what it saw.
template <class Table, class Watch>
double SweepWatched(uint32_t removePercent, Watch watch) {
    const bench::OwnProcessor bound(0);
    Prepare<Table>(removePercent);
    std::atomic<bool> watching = false;
    std::atomic<bool> done = false;
    double seen = 0;
    std::thread watcher([&] {
        const bench::OwnProcessor other(1);
        seen = watch(Table::kLocker, watching, done);
    });
    while (!watching) {
    }
    Table::kSweep(kNode);
    done = true;
    watcher.join();
    return seen;
}

template <class Table>
void HoldsWriteLock(benchmark::State &state) {
    for (auto _ : state) {
        double held = 0;
        while (held == 0) {
            held = SweepWatched<Table>(static_cast<uint32_t>(state.range(0)), WatchHold);
        }
        state.SetIterationTime(held);
    }
}

template <class Table>
void LongestReaderWait(benchmark::State &state) {
    for (auto _ : state) {
        state.SetIterationTime(
            SweepWatched<Table>(static_cast<uint32_t>(state.range(0)), WatchReads));
    }
}

template <class Table>
void WholeSweep(benchmark::State &state) {
    for (auto _ : state) {
        Prepare<Table>(static_cast<uint32_t>(state.range(0)));
        const auto begin = Clock::now();
        Table::kSweep(kNode);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
}

void Configure(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgName("removed%")->Arg(1)->Arg(50)->Arg(100);
    benchmark->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20);
}

BENCHMARK(HoldsWriteLock<Ipv4>)->Apply(Configure);
BENCHMARK(HoldsWriteLock<Ipv6>)->Apply(Configure);
BENCHMARK(HoldsWriteLock<Ka>)->Apply(Configure);
BENCHMARK(LongestReaderWait<Ipv4>)->Apply(Configure);
BENCHMARK(LongestReaderWait<Ipv6>)->Apply(Configure);
BENCHMARK(LongestReaderWait<Ka>)->Apply(Configure);
BENCHMARK(WholeSweep<Ipv4>)->Apply(Configure);
BENCHMARK(WholeSweep<Ipv6>)->Apply(Configure);
BENCHMARK(WholeSweep<Ka>)->Apply(Configure);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    mod_kes_lyrhost.moduleId = 1;
    tov_mod_ctr_mod_kes_lyrhost();
    if (LyrKes_Init() != 0) {
        std::fprintf(stderr, "sweep_bench: the module does not start\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    LyrKes_Exit();
    benchmark::Shutdown();
    return 0;
}
