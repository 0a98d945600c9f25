#include "kes/sync.h"

#include <atomic>
#include <thread>

#include "standin/runtime.h"

namespace {

// Spins between giving up the processor, which the holder may be waiting for.
constexpr int kSpins = 100;

}  // namespace

uint32_t TovAtomicAddReturn(uint32_t value, uint32_t *word) {
    return std::atomic_ref(*word).fetch_add(value) + value;
}

uint32_t TovAtomicSubReturn(uint32_t value, uint32_t *word) {
    return std::atomic_ref(*word).fetch_sub(value) - value;
}

uint32_t TovSpinlockInit(TovSpinlock *lock) {
    if (standin::CallFails("TovSpinlockInit") || lock == nullptr) {
        return 1;
    }
    std::atomic_ref(lock->locked).store(0, std::memory_order_release);
    return 0;
}

void TovSpinlockLock(TovSpinlock *lock) {
    const std::atomic_ref locked(lock->locked);
    while (locked.exchange(1, std::memory_order_acquire) != 0) {
        for (int spin = 0; locked.load(std::memory_order_relaxed) != 0; ++spin) {
            if (spin == kSpins) {
                std::this_thread::yield();
                spin = 0;
            }
        }
    }
}

void TovSpinlockUnlock(TovSpinlock *lock) {
    std::atomic_ref(lock->locked).store(0, std::memory_order_release);
}
