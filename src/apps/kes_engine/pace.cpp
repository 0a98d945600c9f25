#include "pace.h"

#include <algorithm>

#include "interruption.h"

namespace kes_engine {
namespace {

// A replay that fell behind makes up for no more than this.
constexpr std::chrono::milliseconds kLeeway{100};

}  // namespace

Pace::Pace(uint32_t framesPerSecond)
    : gap_(framesPerSecond != 0
               ? std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) /
                     framesPerSecond
               : Clock::duration::zero()) {}

bool Pace::MustWait() {
    if (gap_ == Clock::duration::zero()) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    if (next_ == Clock::time_point{}) {
        next_ = now;  // the first frame goes at once
        return false;
    }
    next_ = std::max(next_, now - kLeeway) + gap_;
    return next_ > now;
}

void Pace::Wait() const {
    SleepUntil(next_);
}

}  // namespace kes_engine
