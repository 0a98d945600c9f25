#include "standin/mbuf_pool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "host/large_pages.h"
#include "host/meta.h"
#include "standin/frame_parser.h"

namespace standin {
namespace {

constexpr size_t kCacheLine = 64;
constexpr size_t kHeadroom = 128;
constexpr size_t kDataBuffer = RoundUp(sizeof(HostMbuf) + sizeof(HostMbufMeta), kCacheLine);
constexpr size_t kBeforeFrame = kDataBuffer + kHeadroom;
// What a buffer takes: an odd number of lines, so that the records of all buffers do not compete
// for a few places of the caches.
constexpr size_t kSlot = 33 * kCacheLine;
constexpr size_t kUsualFrame = kSlot - kBeforeFrame;
static_assert(kUsualFrame >= 1522, "a full Ethernet frame with its tag");
// With memory checkers no buffer is used again, and each ends with its frame.
constexpr bool kExactBuffers = KES_HOST_EXACT_BUFFERS;

HostMbuf *MakeBuffer(uint8_t *block, std::span<const uint8_t> frame, void *pool) {
    auto *mbuf = new (block) HostMbuf{};
    mbuf->bufAddr = block + kDataBuffer;
    mbuf->bufLen = static_cast<uint16_t>(kHeadroom + frame.size());
    mbuf->dataOff = kHeadroom;
    mbuf->dataLen = static_cast<uint16_t>(frame.size());
    mbuf->pktLen = mbuf->dataLen;
    mbuf->refCnt = 1;
    mbuf->nbSegs = 1;
    mbuf->privSize = sizeof(HostMbufMeta);
    mbuf->pool = pool;
    if (!frame.empty()) {
        std::memcpy(block + kBeforeFrame, frame.data(), frame.size());
    }
    return mbuf;
}

// Fetches the lines that every packet fills, from the processor that last used the slot.
void PrefetchToWrite(const uint8_t *slot) {
    for (size_t at = 0; at < kBeforeFrame + kCacheLine; at += kCacheLine) {
#if defined(__x86_64__)
        asm volatile("prefetchw %0" : : "m"(slot[at]));  // which the builtin does not always use
#else
        __builtin_prefetch(&slot[at], 1);
#endif
    }
}

// A lock that is free but for those who look for buffers everywhere.
class SpinLock {
  public:
    void lock() {
        while (held_.exchange(true, std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
    void unlock() {
        held_.store(false, std::memory_order_release);
    }

  private:
    std::atomic<bool> held_{false};
};

constexpr size_t kCached = 64;  // slots that a thread keeps at most
constexpr size_t kMoved = kCached / 2;
constexpr size_t kCaches = 64;  // more threads share them

// The free slots of a thread, the last that came back first.
struct alignas(kCacheLine) Cache {
    SpinLock lock;
    size_t count = 0;
    std::array<uint8_t *, kCached> slots;
};

size_t CacheIndexOfThread() {
    static std::atomic<size_t> threads{0};
    thread_local const size_t index = threads.fetch_add(1, std::memory_order_relaxed) % kCaches;
    return index;
}

void NoteArrival(HostMbuf *mbuf, const Arrival &arrival) {
    auto *meta = new (mbuf + 1) HostMbufMeta(FreshMeta(arrival));
    if (meta->arrival.wireLength == 0) {
        meta->arrival.wireLength = mbuf->pktLen;
    }
    mbuf->port = static_cast<uint16_t>(arrival.rxPort);
}

}  // namespace

// Slots that are free lie in the caches or in the depot, or have never been used.
struct MbufPool::State {
    explicit State(uint32_t buffers)
        : capacity(buffers), memory(MapMemory(std::max<size_t>(buffers, 1) * kSlot)) {
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
        depot.reserve(buffers);
    }
    ~State() {
        UnmapMemory(memory, std::max<size_t>(capacity, 1) * kSlot);
    }
    State(const State &) = delete;
    State &operator=(const State &) = delete;

    // Waits for one.
    uint8_t *TakeSlot();
    void GiveBackSlot(uint8_t *slot);

    // Moves slots into the cache; waits for some.
    void Refill(Cache &cache);
    // With the mutex held. Slots that are free outside the caches, or else in one of them; none if
    // there are none.
    std::span<uint8_t *> Find(std::array<uint8_t *, kMoved> &slots);
    uint32_t InUse();

    const uint32_t capacity;
    uint8_t *const memory;
    std::array<Cache, kCaches> caches;

    std::mutex mutex;  // taken before the lock of any cache
    std::condition_variable returned;
    uint32_t waiting = 0;
    uint32_t used = 0;  // slots that ever were
    std::vector<uint8_t *> depot;
};

uint8_t *MbufPool::State::TakeSlot() {
    Cache &cache = caches[CacheIndexOfThread()];
    for (;;) {
        {
            const std::lock_guard lock(cache.lock);
            if (cache.count > 0) {
                uint8_t *slot = cache.slots[--cache.count];
                if (cache.count > 0) {
                    PrefetchToWrite(cache.slots[cache.count - 1]);
                }
                return slot;
            }
        }
        Refill(cache);
    }
}

void MbufPool::State::GiveBackSlot(uint8_t *slot) {
    Cache &cache = caches[CacheIndexOfThread()];
    std::array<uint8_t *, kMoved> moved;
    {
        const std::lock_guard lock(cache.lock);
        if (cache.count < kCached) {
            cache.slots[cache.count++] = slot;
            return;
        }
        // The older half: the others are still in this processor's caches.
        std::copy_n(cache.slots.begin(), kMoved, moved.begin());
        std::copy(cache.slots.begin() + kMoved, cache.slots.end(), cache.slots.begin());
        cache.count -= kMoved;
        cache.slots[cache.count++] = slot;
    }
    const std::lock_guard lock(mutex);
    depot.insert(depot.end(), moved.begin(), moved.end());
    if (waiting > 0) {
        returned.notify_one();
    }
}

// A slot that comes back to a cache wakes nobody: who waits looks again after a while.
void MbufPool::State::Refill(Cache &cache) {
    constexpr std::chrono::milliseconds kLook{1};
    std::array<uint8_t *, kMoved> space;
    std::unique_lock lock(mutex);
    std::span<uint8_t *> slots;
    while ((slots = Find(space)).empty()) {
        ++waiting;
        returned.wait_for(lock, kLook);
        --waiting;
    }
    const std::lock_guard cacheLock(cache.lock);
    const size_t room = std::min(kCached - cache.count, slots.size());
    std::copy_n(slots.begin(), room, cache.slots.begin() + cache.count);
    cache.count += room;
    depot.insert(depot.end(), slots.begin() + static_cast<ptrdiff_t>(room), slots.end());
}

std::span<uint8_t *> MbufPool::State::Find(std::array<uint8_t *, kMoved> &slots) {
    size_t count = std::min(depot.size(), kMoved);
    std::copy_n(depot.end() - static_cast<ptrdiff_t>(count), count, slots.begin());
    depot.resize(depot.size() - count);
    while (count < kMoved && used < capacity) {
        slots[count++] = memory + used++ * kSlot;
    }
    for (size_t i = 0; count == 0 && i < kCaches; ++i) {
        const std::lock_guard lock(caches[i].lock);
        while (count < kMoved && caches[i].count > 0) {
            slots[count++] = caches[i].slots[--caches[i].count];
        }
    }
    return std::span(slots).first(count);
}

uint32_t MbufPool::State::InUse() {
    const std::lock_guard lock(mutex);
    size_t unused = depot.size();
    for (Cache &cache : caches) {
        const std::lock_guard cacheLock(cache.lock);
        unused += cache.count;
    }
    return static_cast<uint32_t>(used - unused);
}

HostMbufMeta FreshMeta(const Arrival &arrival) {
    return {.diagSwitch = static_cast<uint8_t>(arrival.diagnose ? 1 : 0),
            .vrf = arrival.vrf,
            .receivePort = arrival.rxPort,
            .arrival = arrival};
}

void Prefetch(std::span<HostMbuf *const> mbufs) {
    for (const HostMbuf *mbuf : mbufs) {
        for (size_t at = 0; at < kBeforeFrame + kCacheLine; at += kCacheLine) {
            __builtin_prefetch(reinterpret_cast<const uint8_t *>(mbuf) + at);
        }
    }
}

MbufPool::MbufPool(uint32_t capacity) : state_(new State(capacity)) {}

MbufPool::~MbufPool() {
    // The last buffer's release may still be on its way out.
    InUse();
}

HostMbuf *MbufPool::Receive(std::span<const uint8_t> frame, const Arrival &arrival) {
    if (frame.size() > kMaxFrame) {
        return nullptr;
    }
    uint8_t *slot = state_->TakeSlot();
    HostMbuf *mbuf;
    if (kExactBuffers || frame.size() > kUsualFrame) {
        void *block = ::operator new (kBeforeFrame + frame.size(), std::align_val_t{kCacheLine});
        mbuf = MakeBuffer(static_cast<uint8_t *>(block), frame, state_.get());
        mbuf->shInfo = slot;  // which stays empty meanwhile
    } else {
        mbuf = MakeBuffer(slot, frame, state_.get());
    }
    NoteArrival(mbuf, arrival);
    ParseFrame(mbuf);
    return mbuf;
}

void MbufPool::Release(HostMbuf *mbuf) {
    auto *state = static_cast<State *>(mbuf->pool);
    auto *slot = static_cast<uint8_t *>(mbuf->shInfo);
    if (slot != nullptr) {
        ::operator delete (mbuf, std::align_val_t{kCacheLine});
    } else {
        slot = reinterpret_cast<uint8_t *>(mbuf);
    }
    state->GiveBackSlot(slot);
}

uint32_t MbufPool::Capacity() const {
    return state_->capacity;
}

uint32_t MbufPool::InUse() const {
    return state_->InUse();
}

}  // namespace standin
