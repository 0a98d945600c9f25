#include "host/timers.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "kes/timer.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

using Milliseconds = int64_t;

Milliseconds SystemNow() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Timer {
    Milliseconds period;
    bool periodic;
    TovTimerFunc callback;
    void *argument;
    Milliseconds due;
};

class Timers {
  public:
    void Create(uint32_t periodMs, bool periodic, TovTimerFunc callback, void *argument,
                uint32_t *timerId);
    bool Delete(uint32_t id);
    size_t Count();
    void SetManual(bool manual);
    void Advance(uint32_t milliseconds);

  private:
    using Lock = std::unique_lock<std::mutex>;

    Milliseconds Now() const {
        return manual_ ? manualNow_ : SystemNow() + offset_;
    }
    bool RunsHere() const {
        return runner_ == std::this_thread::get_id();
    }
    std::map<uint32_t, Timer>::iterator Earliest();
    void WaitUntilIdle(Lock &lock);
    void Run(Lock &lock, uint32_t id);
    [[noreturn]] void ThreadBody();

    std::mutex mutex_;
    std::condition_variable changed_;   // timers or mode
    std::condition_variable finished_;  // a callback
    std::map<uint32_t, Timer> timers_;
    uint32_t lastId_ = 0;
    std::optional<uint32_t> running_;
    std::thread::id runner_;
    bool manual_ = false;
    Milliseconds manualNow_ = 0;
    Milliseconds offset_ = 0;  // of the timers' time to the system's
    std::thread thread_;
};

void Timers::Create(uint32_t periodMs, bool periodic, TovTimerFunc callback, void *argument,
                    uint32_t *timerId) {
    const Lock lock(mutex_);
    if (!thread_.joinable()) {
        thread_ = std::thread(&Timers::ThreadBody, this);
    }
    *timerId = ++lastId_;
    timers_[lastId_] = {periodMs, periodic, callback, argument, Now() + periodMs};
    changed_.notify_all();
}

bool Timers::Delete(uint32_t id) {
    Lock lock(mutex_);
    if (timers_.erase(id) == 0) {
        return false;
    }
    if (!RunsHere()) {
        finished_.wait(lock, [&] { return running_ != id; });
    }
    return true;
}

size_t Timers::Count() {
    const Lock lock(mutex_);
    return timers_.size();
}

void Timers::SetManual(bool manual) {
    Lock lock(mutex_);
    WaitUntilIdle(lock);
    if (manual) {
        manualNow_ = Now();
    } else if (manual_) {
        offset_ = manualNow_ - SystemNow();
    }
    manual_ = manual;
    changed_.notify_all();
}

void Timers::Advance(uint32_t milliseconds) {
    Lock lock(mutex_);
    if (!manual_) {
        throw std::logic_error("AdvanceTimers: timers run by themselves");
    }
    WaitUntilIdle(lock);
    const Milliseconds end = manualNow_ + milliseconds;
    for (auto timer = Earliest(); timer != timers_.end() && timer->second.due <= end;
         timer = Earliest()) {
        manualNow_ = std::max(manualNow_, timer->second.due);
        Run(lock, timer->first);
    }
    manualNow_ = end;
}

// Of timers due at one time, the one created first.
std::map<uint32_t, Timer>::iterator Timers::Earliest() {
    return std::ranges::min_element(timers_, {},
                                    [](const auto &entry) { return entry.second.due; });
}

void Timers::WaitUntilIdle(Lock &lock) {
    if (!RunsHere()) {
        finished_.wait(lock, [this] { return !running_; });
    }
}

// Runs a due timer's callback without the lock. The timer may be gone afterwards.
void Timers::Run(Lock &lock, uint32_t id) {
    const Timer timer = timers_.at(id);
    running_ = id;
    runner_ = std::this_thread::get_id();
    lock.unlock();
    timer.callback(timer.argument);
    lock.lock();
    running_.reset();
    runner_ = {};
    finished_.notify_all();

    const auto found = timers_.find(id);
    if (found == timers_.end()) {
        return;
    }
    if (!timer.periodic) {
        timers_.erase(found);
        return;
    }
    // A timer that fell behind does not catch up in a burst.
    found->second.due = std::max(timer.due + timer.period, Now());
}

void Timers::ThreadBody() {
    Lock lock(mutex_);
    for (;;) {
        const auto timer = manual_ ? timers_.end() : Earliest();
        if (timer == timers_.end()) {
            changed_.wait(lock);
        } else if (const Milliseconds left = timer->second.due - Now(); left > 0) {
            changed_.wait_for(lock, std::chrono::milliseconds(left));
        } else {
            Run(lock, timer->first);
        }
    }
}

Timers &timers = Lasting<Timers>();

}  // namespace

size_t TimerCount() {
    return timers.Count();
}

void SetTimersManual(bool manual) {
    timers.SetManual(manual);
}

void AdvanceTimers(uint32_t milliseconds) {
    timers.Advance(milliseconds);
}

}  // namespace standin

using namespace standin;

uint32_t TovSLcoreTimerCreateAndStart(uint32_t periodMs, uint32_t mode, TovTimerFunc callback,
                                      void *argument, uint32_t *timerId) {
    if (periodMs == 0 || mode > TOV_TIMER_PERIODIC || callback == nullptr || timerId == nullptr) {
        return 1;
    }
    if (CallFails("TovSLcoreTimerCreateAndStart")) {
        return 2;
    }
    try {
        timers.Create(periodMs, mode == TOV_TIMER_PERIODIC, callback, argument, timerId);
        return 0;
    } catch (const std::system_error &) {
        return 2;
    }
}

uint32_t TovSLcoreTimerDelete(uint32_t timerId) {
    return !CallFails("TovSLcoreTimerDelete") && timers.Delete(timerId) ? 0 : 1;
}
