#include "host/hooks.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr size_t kMaxHooksPerPoint = 16;

// Whether a thread is inside a hook. Only its thread writes it, so dispatch shares no cache line
// that others write. Slots live as long as the engine; a thread that ends leaves its slot to the
// next one.
struct alignas(64) Slot {
    std::atomic<uint64_t> sequence{0};  // odd while inside
    std::atomic<bool> taken{true};
    Slot *next = nullptr;
};

std::atomic<Slot *> slots{nullptr};

Slot *TakeSlot() {
    for (Slot *slot = slots.load(); slot != nullptr; slot = slot->next) {
        if (!slot->taken.load() && !slot->taken.exchange(true)) {
            return slot;
        }
    }
    auto *slot = new Slot;
    slot->next = slots.load();
    while (!slots.compare_exchange_weak(slot->next, slot)) {
    }
    return slot;
}

struct SlotOwner {
    Slot *const slot = TakeSlot();
    ~SlotOwner() {
        slot->taken.store(false);
    }
};

Slot &SlotOfThread() {
    static thread_local SlotOwner owner;
    return *owner.slot;
}

// Marks the calling thread as inside; within a hook that runs hooks itself, it is already.
class Inside {
  public:
    Inside() : slot_(SlotOfThread()), sequence_(slot_.sequence.load(std::memory_order_relaxed)) {
        if (Outermost()) {
            slot_.sequence.store(sequence_ + 1);
        }
    }
    ~Inside() {
        if (Outermost()) {
            slot_.sequence.store(sequence_ + 2, std::memory_order_release);
        }
    }
    Inside(const Inside &) = delete;
    Inside &operator=(const Inside &) = delete;

  private:
    bool Outermost() const {
        return sequence_ % 2 == 0;
    }

    Slot &slot_;
    const uint64_t sequence_;
};

// Every thread that is inside now has left when this returns. Entering marks the slot before it
// reads the hooks, and the caller has published its hooks before it reads the slots, all of it
// sequentially consistent: a thread not seen inside here sees the new hooks.
void WaitForThreadsInside() {
    for (Slot *slot = slots.load(); slot != nullptr; slot = slot->next) {
        const uint64_t entered = slot->sequence.load();
        while (entered % 2 != 0 && slot->sequence.load() == entered) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    }
}

struct Hook {
    HostHookFunc function;
    uint32_t priority;
};

// In the order in which they run; never changed once published.
using HookList = std::vector<Hook>;

struct Points {
    std::array<std::atomic<const HookList *>, HOST_HOOK_POINTS> lists{};

    std::mutex mutex;  // of those who change the lists
    std::vector<std::unique_ptr<const HookList>> retired;

    // With the mutex held.
    void Publish(uint32_t point, HookList hooks) {
        const auto *list = hooks.empty() ? nullptr : new HookList(std::move(hooks));
        retired.emplace_back(lists[point].exchange(list));
    }
};

Points &points = Lasting<Points>();
std::atomic<HostWlanIdFunc> wlanIdReader{nullptr};

HookList CurrentHooks(uint32_t point) {
    const HookList *list = points.lists[point].load();
    return list == nullptr ? HookList{} : *list;
}

auto Find(HookList &hooks, HostHookFunc function) {
    return std::ranges::find(hooks, function, &Hook::function);
}

bool HasNoHooks(uint32_t point) {
    return points.lists[point].load(std::memory_order_relaxed) == nullptr;
}

uint64_t Answer(const HookList &hooks, HostMbuf *packet) {
    for (const Hook &hook : hooks) {
        if (const uint64_t answer = hook.function(packet); answer != HOST_HOOK_CONTINUE) {
            return answer;
        }
    }
    return HOST_HOOK_CONTINUE;
}

// Those that an earlier stage has stopped stay out of this one.
void RunStage(const HookList &hooks, std::span<HostMbuf *const> packets, std::span<Fate> fates) {
    for (size_t i = 0; i < packets.size(); ++i) {
        if (fates[i] != Fate::kReturned) {
            continue;
        }
        const uint64_t answer = Answer(hooks, packets[i]);
        if (answer != HOST_HOOK_CONTINUE) {
            fates[i] = answer == HOST_HOOK_TAKEN ? Fate::kTaken : Fate::kUndelivered;
        }
    }
}

void *ObjectOf(const void *address) {
    Dl_info info{};
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

}  // namespace

uint64_t RunHooks(uint32_t point, HostMbuf *packet) {
    if (point >= HOST_HOOK_POINTS || HasNoHooks(point)) {
        return HOST_HOOK_CONTINUE;
    }
    const Inside inside;
    const HookList *hooks = points.lists[point].load();
    return hooks == nullptr ? HOST_HOOK_CONTINUE : Answer(*hooks, packet);
}

void RunPoints(std::span<const uint32_t> path, std::span<HostMbuf *const> packets,
               std::span<Fate> fates) {
    std::ranges::fill(fates, Fate::kReturned);
    if (std::ranges::all_of(path, HasNoHooks)) {
        return;
    }
    const Inside inside;
    for (const uint32_t point : path) {
        if (const HookList *hooks = points.lists[point].load()) {
            RunStage(*hooks, packets, fates);
        }
    }
}

size_t HookCount() {
    const std::lock_guard lock(points.mutex);
    size_t count = 0;
    for (uint32_t point = 0; point < HOST_HOOK_POINTS; ++point) {
        count += CurrentHooks(point).size();
    }
    return count;
}

HostWlanIdFunc WlanIdReader() {
    return wlanIdReader.load();
}

void ForgetWlanIdReaderOf(const void *address) {
    HostWlanIdFunc reader = wlanIdReader.load();
    if (reader != nullptr && ObjectOf(reinterpret_cast<void *>(reader)) == ObjectOf(address)) {
        wlanIdReader.compare_exchange_strong(reader, nullptr);
    }
}

}  // namespace standin

using namespace standin;

uint64_t HostHookRegister(uint32_t point, uint32_t priority, HostHookFunc hook, const char *owner) {
    if (point >= HOST_HOOK_POINTS || hook == nullptr || owner == nullptr) {
        return 1;
    }
    const std::lock_guard lock(points.mutex);
    HookList hooks = CurrentHooks(point);
    if (Find(hooks, hook) != hooks.end()) {
        return 2;
    }
    if (CallFails("HostHookRegister") || hooks.size() == kMaxHooksPerPoint) {
        return 3;
    }
    hooks.insert(std::ranges::upper_bound(hooks, priority, {}, &Hook::priority), {hook, priority});
    points.Publish(point, std::move(hooks));
    return 0;
}

uint64_t HostHookUnregister(uint32_t point, HostHookFunc hook) {
    if (point >= HOST_HOOK_POINTS || hook == nullptr) {
        return 1;
    }
    std::vector<std::unique_ptr<const HookList>> retired;
    {
        const std::lock_guard lock(points.mutex);
        HookList hooks = CurrentHooks(point);
        const auto found = Find(hooks, hook);
        if (CallFails("HostHookUnregister") || found == hooks.end()) {
            return 4;
        }
        hooks.erase(found);
        points.Publish(point, std::move(hooks));
        retired.swap(points.retired);
    }
    WaitForThreadsInside();
    return 0;
}

uint32_t HostAcGetWlanIdRegFunc(HostWlanIdFunc reader) {
    wlanIdReader.store(reader);
    return 0;
}
