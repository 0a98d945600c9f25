#include "packet_queue.h"

#include <algorithm>

#include "standin/packet_path.h"

namespace kes_engine {

void PacketQueue::Give(HostMbuf *packet) {
    if (giver_.next - giver_.taken == kLength) {
        giver_.taken = taken_.value.load(std::memory_order_acquire);
        if (giver_.next - giver_.taken == kLength) {
            WaitUntilAtMost(kLength / 2);
        }
    }
    packets_[giver_.next++ % kLength] = packet;
    if (giver_.next % standin::kMaxBurst == 0) {
        given_.value.store(giver_.next, std::memory_order_release);
    }
    if (++giver_.unseen >= giver_.wakeAfter) {
        Flush();
    }
}

// A sleeper says so before it looks once more, and whoever may wake it looks for that after its own
// news, all of it sequentially consistent: one of the two sees the other.
void PacketQueue::Flush() {
    giver_.unseen = 0;
    given_.value.store(giver_.next);
    if (sleep_.takerSleeps.load()) {
        const std::lock_guard lock(sleep_.mutex);
        sleep_.wakeTaker.notify_one();
    }
}

void PacketQueue::WaitUntilAtMost(size_t packets) {
    Flush();
    std::unique_lock lock(sleep_.mutex);
    sleep_.wakeGiverAt.store(packets);
    sleep_.wakeGiver.wait(lock, [&] { return Waiting() <= packets; });
    sleep_.wakeGiverAt.store(kNever);
    giver_.taken = taken_.value.load();
}

void PacketQueue::WaitUntilEmpty() {
    WaitUntilAtMost(0);
}

void PacketQueue::Close() {
    Flush();
    const std::lock_guard lock(sleep_.mutex);
    sleep_.closed = true;
    sleep_.wakeTaker.notify_one();
}

std::span<HostMbuf *const> PacketQueue::Take() {
    const size_t first = taken_.value.load(std::memory_order_relaxed);
    size_t end = given_.value.load(std::memory_order_acquire);
    if (end == first) {
        std::unique_lock lock(sleep_.mutex);
        sleep_.takerSleeps.store(true);
        sleep_.wakeTaker.wait(
            lock, [&] { return (end = given_.value.load()) != first || sleep_.closed; });
        sleep_.takerSleeps.store(false);
    }
    const size_t place = first % kLength;
    const size_t count = std::min({end - first, kLength - place, standin::kMaxBurst});
    return std::span(packets_).subspan(place, count);
}

void PacketQueue::Done(size_t packets) {
    const size_t taken = taken_.value.load(std::memory_order_relaxed) + packets;
    taken_.value.store(taken);
    const size_t limit = sleep_.wakeGiverAt.load();
    if (limit != kNever && given_.value.load() - taken <= limit) {
        const std::lock_guard lock(sleep_.mutex);
        sleep_.wakeGiver.notify_one();
    }
}

}  // namespace kes_engine
