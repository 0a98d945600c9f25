// The pace of a replay.
#pragma once

#include <chrono>
#include <cstdint>

namespace kes_engine {

// Keeps a rate on the whole: a replay that fell behind catches up, with frames for a tenth of a
// second at once, and then at no more than twice the rate.
class Pace {
  public:
    using Clock = std::chrono::steady_clock;

    // So many frames a second; 0: as fast as they can be passed on.
    explicit Pace(uint32_t framesPerSecond);

    bool HasLimit() const {
        return gap_ != Clock::duration::zero();
    }
    // When the next frame may go, asked at `now`, once for each.
    Clock::time_point Next(Clock::time_point now);

  private:
    const Clock::duration gap_;
    Clock::time_point due_{};       // of the last frame, by the rate
    Clock::time_point earliest_{};  // that it could have gone
};

}  // namespace kes_engine
