// The pace of a replay.
#pragma once

#include <chrono>
#include <cstdint>

namespace kes_engine {

class Pace {
  public:
    // So many frames a second; 0: as fast as they can be passed on.
    explicit Pace(uint32_t framesPerSecond);

    // Whether the next frame's time has yet to come.
    bool MustWait();
    // Waits for it, or for an interruption.
    void Wait() const;

  private:
    using Clock = std::chrono::steady_clock;

    const Clock::duration gap_;
    Clock::time_point next_{};  // when the next frame may go
};

}  // namespace kes_engine
