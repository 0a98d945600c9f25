// How every figure is measured: bursts of items, of which only the work itself is timed.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <thread>
#include <vector>

namespace bench {

// Items of a burst: enough that reading the clock costs a fraction of a nanosecond an item, few
// enough that the packets are still in the second-level cache when the work meets them, as they are
// when an engine has just parsed them.
constexpr size_t kBurst = 256;

// Where the threads of a benchmark wait for each other, so that their bursts run at one time.
class MeetingPoint {
  public:
    void Meet(int threads) {
        const uint32_t round = round_.load(std::memory_order_acquire);
        if (arrived_.fetch_add(1, std::memory_order_acq_rel) + 1 == threads) {
            arrived_.store(0, std::memory_order_relaxed);
            round_.store(round + 1, std::memory_order_release);
            return;
        }
        // Whoever is awaited may be waiting for this processor.
        for (int spins = 1; round_.load(std::memory_order_acquire) == round; ++spins) {
            if (spins % 10000 == 0) {
                std::this_thread::yield();
            }
        }
    }

  private:
    alignas(64) std::atomic<uint32_t> round_{0};
    std::atomic<int> arrived_{0};
};

inline MeetingPoint meetingPoint;

// Runs prepare(), work() and finish() for each burst and times work(). Reports nanoseconds that an
// item costs the thread that handles it, as the mean of all bursts ("ns/packet") and in the median
// burst ("typical_ns", which an interrupted burst does not move), and the items per second of all
// threads together.
template <class Prepare, class Work, class Finish>
void MeasureBursts(benchmark::State &state, Prepare prepare, Work work, Finish finish) {
    using Clock = std::chrono::steady_clock;
    using benchmark::Counter;

    std::vector<double> seconds;
    seconds.reserve(state.max_iterations);
    for (auto _ : state) {
        prepare();
        meetingPoint.Meet(state.threads());
        const auto start = Clock::now();
        work();
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        meetingPoint.Meet(state.threads());
        finish();
        state.SetIterationTime(elapsed.count());
        seconds.push_back(elapsed.count());
    }
    constexpr double kNanosecondsPerItem = 1e9 / kBurst;
    const auto bursts = static_cast<double>(seconds.size());
    const double mean = std::accumulate(seconds.begin(), seconds.end(), 0.0) / bursts;
    const auto middle = seconds.begin() + static_cast<ptrdiff_t>(seconds.size() / 2);
    std::nth_element(seconds.begin(), middle, seconds.end());
    state.SetItemsProcessed(static_cast<int64_t>(seconds.size() * kBurst));
    state.counters["ns/packet"] = Counter(mean * kNanosecondsPerItem, Counter::kAvgThreads);
    state.counters["typical_ns"] = Counter(*middle * kNanosecondsPerItem, Counter::kAvgThreads);
}

// What all benchmarks have in common: one thread and two, timed as above.
inline void OneAndTwoThreads(benchmark::internal::Benchmark *benchmark) {
    benchmark->Threads(1)->Threads(2)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

}  // namespace bench
