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

// Keeps a capture's own times, so many times as fast. A frame that is due, or whose time is before
// that of another one before it, goes at once. Times that go backward by more than a second, as
// where captures were joined, begin anew there.
class OwnTimes {
  public:
    using Clock = Pace::Clock;

    explicit OwnTimes(double speed) : speed_(speed) {}

    // The next frame goes at once, and others are timed by it.
    void Begin() {
        begun_ = false;
    }
    // When a frame of a time, in nanoseconds, may go, asked at `now`, once for each.
    Clock::time_point Next(Clock::time_point now, int64_t timeNs);

  private:
    const double speed_;
    bool begun_ = false;
    Clock::time_point start_{};  // when the first frame went
    int64_t first_ = 0;          // its time
    int64_t latest_ = 0;         // of all since
};

}  // namespace kes_engine
