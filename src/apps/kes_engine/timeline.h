// What a run's packets came to by and by.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kes_engine {

// Counts since the begin.
struct TimePoint {
    double seconds = 0;
    uint64_t received = 0;
    uint64_t returned = 0;
    uint64_t taken = 0;
    uint64_t undelivered = 0;
    uint64_t transmitted = 0;
    uint64_t raised = 0;  // alarms
    uint64_t restored = 0;
};

// Looks again and again, on a thread of its own, beside the packets: every ten milliseconds at
// first, and half as often each time that its bounded memory is full.
class Timeline {
  public:
    // Tells all but the time. Called from that thread, and by End().
    using Look = std::function<TimePoint()>;

    explicit Timeline(Look look);
    ~Timeline() {
        Stop();
    }
    Timeline(const Timeline &) = delete;
    Timeline &operator=(const Timeline &) = delete;

    // Looks a last time. What was seen, from the begin on.
    std::vector<TimePoint> End();

    static constexpr size_t kMostPoints = 1024;

  private:
    using Clock = std::chrono::steady_clock;

    void Run();
    void Stop();
    void Add();

    const Look look_;
    const Clock::time_point start_ = Clock::now();
    Clock::duration interval_ = std::chrono::milliseconds(10);
    std::vector<TimePoint> points_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool ends_ = false;
    std::thread thread_;
};

}  // namespace kes_engine
