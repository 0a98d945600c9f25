// Who asks the module may not be at it while it is exchanged for another.
#pragma once

#include <mutex>
#include <shared_mutex>
#include <utility>

namespace mund {

class Gate {
  public:
    // Held as long as the module is asked; waits while the gate is closed.
    std::shared_lock<std::shared_mutex> Enter() {
        const std::lock_guard turn(turns_);
        return std::shared_lock(inside_);
    }

    // The gate is closed as long as this is held. Waits until nobody is inside; nobody who comes
    // meanwhile is let in before.
    struct Closed {
        std::unique_lock<std::mutex> turn;
        std::unique_lock<std::shared_mutex> alone;
    };
    Closed Close() {
        std::unique_lock turn(turns_);
        return {std::move(turn), std::unique_lock(inside_)};
    }

  private:
    std::mutex turns_;
    std::shared_mutex inside_;
};

}  // namespace mund
