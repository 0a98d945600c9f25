#include "interruption.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>

namespace kes_engine {
namespace {

using Clock = std::chrono::steady_clock;

// How long a signal may go unnoticed.
constexpr std::chrono::milliseconds kSlice{50};

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "written in a signal handler");

void Interrupt(int signal) {
    if (interrupted.exchange(true)) {
        _exit(128 + signal);
    }
}

}  // namespace

void ListenForInterruption() {
    struct sigaction action = {};
    action.sa_handler = Interrupt;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
    return interrupted;
}

bool SleepUntil(Clock::time_point moment) {
    while (!interrupted && Clock::now() < moment) {
        std::this_thread::sleep_until(std::min(moment, Clock::now() + kSlice));
    }
    return interrupted;
}

void SleepUntilInterrupted() {
    while (!interrupted) {
        std::this_thread::sleep_for(kSlice);
    }
}

}  // namespace kes_engine
