// Holds a flag for a scope, waiting busily for it: for short sections that packets meet seldom or
// never.
#pragma once

#include <atomic>

namespace lyr {

class SpinGuard {
  public:
    explicit SpinGuard(std::atomic_flag &flag) : flag_(flag) {
        while (flag_.test_and_set(std::memory_order_acquire)) {
            // Only looks, so that the holder keeps the cache line.
            while (flag_.test(std::memory_order_relaxed)) {
            }
        }
    }
    ~SpinGuard() {
        flag_.clear(std::memory_order_release);
    }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;

  private:
    std::atomic_flag &flag_;
};

}  // namespace lyr
