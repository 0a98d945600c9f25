/* Atomic arithmetic and spinlocks. */
#ifndef KES_SYNC_H
#define KES_SYNC_H

#include "kes/api.h"

KES_BEGIN_DECLS

/* Adds to (subtracts from) a word as one sequentially consistent step; returns the new value. */
KES_API uint32_t TovAtomicAddReturn(uint32_t value, uint32_t *word);
KES_API uint32_t TovAtomicSubReturn(uint32_t value, uint32_t *word);

typedef struct TovSpinlock {
    uint32_t locked;
} TovSpinlock;

/* Makes the lock free. Returns 0, or 1 for null. */
KES_API uint32_t TovSpinlockInit(TovSpinlock *lock);
/* Takes the lock, waiting busily; not re-entrant. */
KES_API void TovSpinlockLock(TovSpinlock *lock);
KES_API void TovSpinlockUnlock(TovSpinlock *lock);

KES_END_DECLS

#endif
