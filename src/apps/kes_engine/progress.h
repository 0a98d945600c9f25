// A line on the terminal while a replay takes its time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace kes_engine {

// Says nothing during the first second, nor ever where standard error is not a terminal.
class Progress {
  public:
    Progress();
    // Wipes the line.
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // True when the line should be brought up to date.
    bool Due(uint64_t frames);
    void Show(uint64_t frames, std::optional<double> share);

  private:
    using Clock = std::chrono::steady_clock;

    const bool terminal_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_ + std::chrono::seconds(1);
    bool shown_ = false;
};

}  // namespace kes_engine
