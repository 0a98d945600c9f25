// Where a run is, and its end when something is wrong: a run that has failed shows nothing more.
#pragma once

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace stress {

struct Position {
    std::atomic<uint64_t> seed{0}, cycle{0};
    std::atomic<const char *> step{"the beginning"};
};
inline Position position;

// Names the step that comes next.
inline void At(const char *step) {
    position.step = step;
}

// Says where the run is and what is wrong; aborts. Of several that fail, one speaks.
[[noreturn, gnu::format(printf, 1, 2)]] inline void Fail(const char *format, ...) {
    static std::mutex mutex;
    mutex.lock();
    std::fprintf(stderr, "lyr_stress: --seed %" PRIu64 " --first-cycle %" PRIu64 ", at %s: ",
                 position.seed.load(), position.cycle.load(), position.step.load());
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    std::abort();
}

inline void Require(bool holds, const char *what) {
    if (!holds) {
        Fail("%s", what);
    }
}

// Fails a run whose cycle takes longer than `bound`. `describe` tells what everyone is doing.
class Watchdog {
  public:
    Watchdog(std::chrono::seconds bound, std::function<std::string()> describe)
        : thread_([bound, describe = std::move(describe)](std::stop_token stop) {
              Watch(stop, bound, describe);
          }) {}

  private:
    static void Watch(const std::stop_token &stop, std::chrono::seconds bound,
                      const std::function<std::string()> &describe) {
        using std::chrono::steady_clock;
        uint64_t cycle = position.cycle;
        for (auto since = steady_clock::now(); !stop.stop_requested();) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (const uint64_t now = position.cycle; now != cycle) {
                cycle = now;
                since = steady_clock::now();
            } else if (steady_clock::now() - since > bound) {
                Fail("the cycle has taken %lld s and hangs; %s",
                     static_cast<long long>(bound.count()), describe().c_str());
            }
        }
    }

    std::jthread thread_;
};

}  // namespace stress
