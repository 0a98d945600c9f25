#include "lb/reader_mark.h"

#include <algorithm>

#if __has_include(<linux/membarrier.h>)
#define LYR_SYSTEM_BARRIER
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

constinit std::array<lyr::ReaderMark, lyr::kReaderMarks> lyr::readerMarks;
constinit thread_local lyr::ReaderMark *lyr::readerMark = nullptr;

namespace {

// Marks from here on were never claimed.
constinit std::atomic<size_t> marksUsed{0};

#ifdef LYR_SYSTEM_BARRIER

bool PrepareBarrier() {
    return syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

// All threads of the process pass a full barrier before this returns. A system that has promised
// the barrier and refuses it is out of memory, or was forbidden the call since: no store of a
// thread that is as old as this sleep is still on its way.
void Barrier() {
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) != 0) {
        constexpr useconds_t kLongForAStore = 10'000;
        usleep(kLongForAStore);
    }
}

#else

bool PrepareBarrier() {
    return false;
}

void Barrier() {}

#endif

void NoteUsed(size_t used) {
    size_t before = marksUsed.load(std::memory_order_relaxed);
    while (before < used &&
           !marksUsed.compare_exchange_weak(before, used, std::memory_order_seq_cst)) {
    }
}

}  // namespace

void lyr::ClaimReaderMark() {
    if (readerMark != nullptr || !PrepareBarrier()) {
        return;
    }
    const auto mark = std::ranges::find_if(readerMarks, &ReaderMark::Claim);
    if (mark == readerMarks.end()) {
        return;
    }
    NoteUsed(static_cast<size_t>(mark - readerMarks.begin()) + 1);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    readerMark = &*mark;
}

void lyr::GiveBackReaderMark() {
    if (readerMark != nullptr) {
        readerMark->GiveBack();
        readerMark = nullptr;
    }
}

void lyr::WaitForMarkedReaders(const uint32_t *locker) {
    // Whoever claims the first mark from now on sees the writer in the word.
    if (marksUsed.load(std::memory_order_seq_cst) == 0) {
        return;
    }
    Barrier();
    const size_t used = marksUsed.load(std::memory_order_relaxed);
    for (size_t i = 0; i < used; ++i) {
        while (readerMarks[i].Reads(locker)) {
        }
    }
}
