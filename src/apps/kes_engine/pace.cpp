#include "pace.h"

#include <algorithm>

namespace kes_engine {
namespace {

// At twice the rate, these are the frames of a tenth of a second.
constexpr std::chrono::milliseconds kBurst{50};

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

}  // namespace kes_engine
