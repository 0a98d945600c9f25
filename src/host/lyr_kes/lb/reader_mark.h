// The packet lookups' read side: in front of a table's locker word, a line of the forwarding
// thread's own that says which locker the thread reads. Lookups of several threads then write no
// line in common, and need neither a locked instruction nor a fence.
//
// A packet marks the locker and looks at the writers' half of its word: nobody there, and it is
// inside. A writer that has won the word passes a barrier on all processors and waits for the marks
// of this locker. Either the packet has seen the writer or the writer sees the mark: the idea is
// Dice and Kogan's, "BRAVO: Biased Locking for Reader-Writer Locks" (USENIX ATC 2019). A packet
// that meets a writer takes its mark back and reads as everybody else does, through the word; so
// does a thread that has no mark.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "lb/dist_locker.h"
#include "module/shared_word.h"

namespace lyr {

// One thread's mark. Neighbouring lines, which processors fetch in pairs, hold no two.
class alignas(128) ReaderMark {
  public:
    // False while somebody holds or bids for the locker's write side: the thread is not inside.
    bool Enter(const uint32_t &locker) {
        reading_.store(&locker, std::memory_order_relaxed);
        // The writers' barrier orders the processor; the compiler has to be told.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (LoadAcquire(locker) < kLockerWriter) {
            return true;
        }
        Leave();
        return false;
    }
    void Leave() {
        reading_.store(nullptr, std::memory_order_release);
    }
    bool Reads(const uint32_t *locker) const {
        return reading_.load(std::memory_order_acquire) == locker;
    }

    // Marks belong to one thread at a time. False if this one belongs to another.
    bool Claim() {
        return !claimed_.exchange(true, std::memory_order_seq_cst);
    }
    void GiveBack() {
        claimed_.store(false, std::memory_order_release);
    }

  private:
    std::atomic<const uint32_t *> reading_{nullptr};
    std::atomic<bool> claimed_{false};
};

// There are marks for so many threads; others read through the word.
constexpr size_t kReaderMarks = 128;
extern constinit std::array<ReaderMark, kReaderMarks> readerMarks;

// The calling thread's mark, or null.
extern constinit thread_local ReaderMark *readerMark [[gnu::tls_model("initial-exec")]];

// Which of them the calling thread has; it must have one.
inline size_t ReaderMarkNumber() {
    return static_cast<size_t>(readerMark - readerMarks.data());
}

// Gives the calling thread a mark if one is left and the system has the barrier, and takes it back.
// For threads that see packets, when they begin and before they end.
void ClaimReaderMark();
void GiveBackReaderMark();

// Waits for the packets that read a locker whose write side the caller has won.
void WaitForMarkedReaders(const uint32_t *locker);

// Holds a locker's read side for a packet.
class PacketReadGuard {
  public:
    explicit PacketReadGuard(uint32_t &locker) : locker_(&locker), mark_(readerMark) {
        if (mark_ == nullptr || !mark_->Enter(locker)) {
            mark_ = nullptr;
            LyrKes_DistReadLock(locker_);
        }
    }
    ~PacketReadGuard() {
        if (mark_ != nullptr) {
            mark_->Leave();
        } else {
            LyrKes_DistReadUnlock(locker_);
        }
    }
    PacketReadGuard(const PacketReadGuard &) = delete;
    PacketReadGuard &operator=(const PacketReadGuard &) = delete;

  private:
    uint32_t *locker_;
    ReaderMark *mark_;
};

}  // namespace lyr
