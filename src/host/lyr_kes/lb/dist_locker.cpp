#include "lb/dist_locker.h"

#include "kes/sync.h"
#include "lb/reader_mark.h"
#include "module/shared_word.h"

namespace {

constexpr uint32_t kReader = 1;
constexpr uint32_t kReaders = 0x0000FFFF;
constexpr uint32_t kWriter = lyr::kLockerWriter;
constexpr uint32_t kWriters = 0xFFFF0000;

void FullBarrier() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

void WaitForWriters(const uint32_t *locker) {
    while (lyr::LoadAcquire(*locker) >= kWriter) {
    }
}

}  // namespace

void LyrKes_DistReadLock(uint32_t *locker) {
    while (TovAtomicAddReturn(kReader, locker) >= kWriter) {
        TovAtomicSubReturn(kReader, locker);
        WaitForWriters(locker);
    }
    FullBarrier();
}

void LyrKes_DistReadUnlock(uint32_t *locker) {
    TovAtomicSubReturn(kReader, locker);
}

void LyrKes_DistWriteLock(uint32_t *locker) {
    while ((TovAtomicAddReturn(kWriter, locker) & kWriters) != kWriter) {
        TovAtomicSubReturn(kWriter, locker);
        WaitForWriters(locker);
    }
    while ((lyr::LoadAcquire(*locker) & kReaders) != 0) {
    }
    lyr::WaitForMarkedReaders(locker);
    FullBarrier();
}

void LyrKes_DistWriteUnlock(uint32_t *locker) {
    FullBarrier();
    if (lyr::LoadAcquire(*locker) >= kWriter) {
        TovAtomicSubReturn(kWriter, locker);
    }
}
