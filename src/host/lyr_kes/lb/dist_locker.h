// The read-write locker of a table: one word, readers counted in its low half, holders of and
// bidders for write access in its high half. Writers go first; nothing sleeps; not re-entrant.
#pragma once

#include <cstdint>

#include "module/export.h"

LYR_API void LyrKes_DistReadLock(uint32_t *locker);
LYR_API void LyrKes_DistReadUnlock(uint32_t *locker);
LYR_API void LyrKes_DistWriteLock(uint32_t *locker);
LYR_API void LyrKes_DistWriteUnlock(uint32_t *locker);

namespace lyr {

// What a holder of the write side, and each bidder for it, adds to the word.
constexpr uint32_t kLockerWriter = 0x00010000;

// Holds a locker for a scope.
template <void (*kLock)(uint32_t *), void (*kUnlock)(uint32_t *)>
class LockerGuard {
  public:
    explicit LockerGuard(uint32_t &locker) : locker_(&locker) {
        kLock(locker_);
    }
    ~LockerGuard() {
        kUnlock(locker_);
    }
    LockerGuard(const LockerGuard &) = delete;
    LockerGuard &operator=(const LockerGuard &) = delete;

  private:
    uint32_t *locker_;
};

using ReadGuard = LockerGuard<LyrKes_DistReadLock, LyrKes_DistReadUnlock>;
using WriteGuard = LockerGuard<LyrKes_DistWriteLock, LyrKes_DistWriteUnlock>;

}  // namespace lyr
