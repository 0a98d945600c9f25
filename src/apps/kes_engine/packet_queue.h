// Packets on their way from one thread to another.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <span>

#include "kes/mbuf.h"

namespace kes_engine {

// A bounded row of packets between one thread that gives and one that takes, in bursts. Neither
// takes a lock unless it has to sleep, and none is woken for little: the taker when many packets
// wait or when it is to have them all, the giver when there is room for many.
class PacketQueue {
  public:
    // The taker is woken when so many packets have been given.
    explicit PacketQueue(size_t wakeAfter) : giver_{wakeAfter} {}

    // --- of the giving thread ---

    // Appends a packet; waits while the queue is full. The taker sees it by Flush() at the latest.
    void Give(HostMbuf *packet);
    // Lets the taker have all that was given.
    void Flush();
    // Flushes, and waits until the taker is done with everything.
    void WaitUntilEmpty();
    // Flushes; the taker gets no more than that.
    void Close();

    // --- of the taking thread ---

    // The oldest packets, at most a burst, which stay in the queue until Done(). Waits until there
    // are some; none when the queue is closed and empty.
    std::span<HostMbuf *const> Take();
    // Has done with these packets, of which there are so many.
    void Done(size_t packets);

  private:
    static constexpr size_t kLength = 1024;
    static constexpr size_t kNever = SIZE_MAX;

    // Positions count on without end. The giver's own:
    struct alignas(64) Giver {
        const size_t wakeAfter;
        size_t next = 0;
        size_t unseen = 0;  // given since the taker was last woken
        size_t taken = 0;   // how far the taker has been seen
    };
    // How far one side is, for the other.
    struct alignas(64) Position {
        std::atomic<size_t> value{0};
    };
    // What is looked at before the other side is woken.
    struct alignas(64) Sleep {
        std::atomic<size_t> wakeGiverAt{kNever};  // when so many or fewer wait
        std::mutex mutex;
        std::condition_variable wakeTaker;
        std::condition_variable wakeGiver;
        std::atomic<bool> takerSleeps{false};
        bool closed = false;  // under the mutex
    };

    size_t Waiting() const {
        return given_.value.load() - taken_.value.load();
    }
    void WaitUntilAtMost(size_t packets);

    Giver giver_;
    Position given_;
    Position taken_;
    Sleep sleep_;
    alignas(64) std::array<HostMbuf *, kLength> packets_;
};

}  // namespace kes_engine
