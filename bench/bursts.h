// Bursts timed for the benchmark library.
#pragma once

#include <benchmark/benchmark.h>

#include <numeric>
#include <vector>

#include "burst_timing.h"
#include "own_processor.h"

namespace bench {

// Runs prepare(), work() and finish() for each burst and times work(). Reports nanoseconds that an
// item costs the thread that handles it, as the mean of all bursts ("ns/packet") and in the median
// burst ("typical_ns", which an interrupted burst does not move), and the items per second of all
// threads together.
template <class Prepare, class Work, class Finish>
void MeasureBursts(benchmark::State &state, Prepare prepare, Work work, Finish finish) {
    using benchmark::Counter;

    const OwnProcessor bound(static_cast<size_t>(state.thread_index()));
    std::vector<double> seconds;
    seconds.reserve(static_cast<size_t>(state.max_iterations));
    for (auto _ : state) {
        prepare();
        seconds.push_back(TimeWork(state.threads(), work));
        finish();
        state.SetIterationTime(seconds.back());
    }
    const double mean =
        std::accumulate(seconds.begin(), seconds.end(), 0.0) / static_cast<double>(seconds.size());
    state.SetItemsProcessed(static_cast<int64_t>(seconds.size() * kBurst));
    state.counters["ns/packet"] = Counter(NanosecondsPerItem(mean), Counter::kAvgThreads);
    state.counters["typical_ns"] =
        Counter(NanosecondsPerItem(Median(seconds)), Counter::kAvgThreads);
}

// What all benchmarks have in common: one thread and two, timed as above.
inline void OneAndTwoThreads(benchmark::internal::Benchmark *benchmark) {
    benchmark->Threads(1)->Threads(2)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

}  // namespace bench
