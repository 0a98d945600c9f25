#include "pace.h"

#include <algorithm>
#include <ratio>

namespace kes_engine {
namespace {

// At twice the rate, these are the frames of a tenth of a second.
constexpr std::chrono::milliseconds kBurst{50};

constexpr int64_t kOutOfOrder = std::nano::den;  // at most
// Nobody waits longer, and no sum overflows.
constexpr auto kLongest = std::chrono::hours(24 * 365);

}  // namespace

Pace::Pace(uint32_t framesPerSecond)
    : gap_(framesPerSecond != 0
               ? std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) /
                     framesPerSecond
               : Clock::duration::zero()) {}

Pace::Clock::time_point Pace::Next(Clock::time_point now) {
    if (due_ == Clock::time_point{}) {
        due_ = earliest_ = now;  // the first frame goes at once
        return now;
    }
    due_ += gap_;
    earliest_ = std::max(earliest_, now - kBurst) + gap_ / 2;
    return std::max(due_, earliest_);
}

OwnTimes::Clock::time_point OwnTimes::Next(Clock::time_point now, int64_t timeNs) {
    if (!begun_ || timeNs < latest_ - kOutOfOrder) {
        begun_ = true;
        start_ = now;
        first_ = latest_ = timeNs;
        return now;
    }
    latest_ = std::max(latest_, timeNs);
    const std::chrono::duration<double, std::nano> passed(static_cast<double>(latest_ - first_) /
                                                          speed_);
    return start_ + (passed < kLongest ? std::chrono::duration_cast<Clock::duration>(passed)
                                       : Clock::duration(kLongest));
}

}  // namespace kes_engine
