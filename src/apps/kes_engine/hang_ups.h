// SIGHUP, by which a log is rotated and a closed terminal makes itself known.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace kes_engine {

// Keeps the signal from ending the program, in the calling thread and all that it starts. To be
// called before any other thread runs.
void HoldHangUps();

// Calls a function, on a thread of its own, for each that comes or has been held.
class HangUps {
  public:
    explicit HangUps(std::function<void()> handler);
    ~HangUps();
    HangUps(const HangUps &) = delete;
    HangUps &operator=(const HangUps &) = delete;

  private:
    const std::function<void()> handler_;
    std::atomic<bool> ending_{false};
    std::thread thread_;
};

}  // namespace kes_engine
