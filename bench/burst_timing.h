// How every figure is measured: bursts of items, of which only the work itself is timed.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
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

// The seconds that work() takes while no thread of the benchmark does anything else.
template <class Work>
double TimeWork(int threads, Work work) {
    using Clock = std::chrono::steady_clock;
    meetingPoint.Meet(threads);
    const auto start = Clock::now();
    work();
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    meetingPoint.Meet(threads);
    return elapsed.count();
}

// The median; changes the order.
inline double Median(std::vector<double> &values) {
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Nanoseconds an item for the seconds that a burst took.
constexpr double NanosecondsPerItem(double seconds) {
    return seconds * 1e9 / kBurst;
}

}  // namespace bench
