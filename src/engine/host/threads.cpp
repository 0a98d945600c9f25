#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "host/strict.h"
#include "kes/thread.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

// On a cache line of its own.
struct alignas(64) TovThreadInfo {
    std::atomic<uint32_t> unread{0};
    std::atomic<bool> waiting{false};  // its last look for events found none
    std::atomic<bool> ended{false};

    // In this order: a thread stops waiting before it takes its events.
    bool Idle() const {
        return ended || (unread == 0 && waiting);
    }
};

namespace standin {
namespace {

// A thread that TovThreadCreate has started.
struct Created {
    std::thread thread;
    TovThreadInfo *info = nullptr;  // once it has made itself known
    bool ended = false;

    bool Idle() const {
        return ended || (info != nullptr && info->Idle());
    }
};

struct Registry {
    std::mutex mutex;
    std::list<TovThreadInfo> infos;  // of all threads ever known: handles stay valid
    std::map<std::string, TovThreadInfo *, std::less<>> liveByName;
    std::list<Created> created;
};

Registry &TheRegistry() {
    static Registry &registry = Lasting<Registry>();
    return registry;
}

// The calling thread as the registry knows it. Its end frees its names.
struct Self {
    TovThreadInfo *info = nullptr;

    ~Self() {
        if (info == nullptr) {
            return;
        }
        Registry &registry = TheRegistry();
        const std::lock_guard lock(registry.mutex);
        info->ended = true;
        std::erase_if(registry.liveByName, [&](auto &entry) { return entry.second == info; });
    }
};

thread_local Self self;
thread_local Created *created = nullptr;

void Run(Created *thread, TovThreadEntry entry, void *argument) {
    created = thread;
    entry(argument);
    const std::lock_guard lock(TheRegistry().mutex);
    thread->ended = true;
}

}  // namespace

void JoinCreatedThreads() {
    Registry &registry = TheRegistry();
    std::unique_lock lock(registry.mutex);
    while (!registry.created.empty()) {
        std::list<Created> first;
        first.splice(first.begin(), registry.created, registry.created.begin());
        lock.unlock();
        first.front().thread.join();
        lock.lock();
    }
}

void WaitUntilCreatedThreadsIdle() {
    while (!WaitUntilCreatedThreadsIdle(std::chrono::hours(1))) {
    }
}

bool WaitUntilCreatedThreadsIdle(std::chrono::milliseconds longest) {
    using Clock = std::chrono::steady_clock;
    Registry &registry = TheRegistry();
    const auto allIdle = [&registry] {
        const std::lock_guard lock(registry.mutex);
        return std::ranges::all_of(registry.created, &Created::Idle);
    };
    const Clock::time_point begin = Clock::now();
    while (!allIdle()) {
        if (Clock::now() - begin >= longest) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

}  // namespace standin

using namespace standin;

void *TovThreadCreate(const char *name, TovThreadEntry entry, void *argument) {
    if (CallFails("TovThreadCreate") || name == nullptr || entry == nullptr) {
        return nullptr;
    }
    Registry &registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    try {
        Created &thread = registry.created.emplace_back();
        thread.thread = std::thread(Run, &thread, entry, argument);
        // The system's own names have 15 characters.
        pthread_setname_np(thread.thread.native_handle(), std::string(name).substr(0, 15).c_str());
        return &thread;
    } catch (const std::system_error &) {
        registry.created.pop_back();
        return nullptr;
    }
}

uint32_t TOV_ThreadInfoRegByName(const char *name) {
    if (CallFails("TOV_ThreadInfoRegByName") || name == nullptr) {
        return 1;
    }
    Registry &registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    const auto bearer = registry.liveByName.find(std::string_view(name));
    if (bearer != registry.liveByName.end()) {
        return bearer->second == self.info ? 0 : 1;
    }
    if (self.info == nullptr) {
        self.info = &registry.infos.emplace_back();
    }
    if (created != nullptr) {
        created->info = self.info;
    }
    registry.liveByName.emplace(name, self.info);
    return 0;
}

TovThreadInfo *TOV_ThreadInfoGetByName(const char *name) {
    if (CallFails("TOV_ThreadInfoGetByName") || name == nullptr) {
        return nullptr;
    }
    Registry &registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    const auto bearer = registry.liveByName.find(std::string_view(name));
    return bearer == registry.liveByName.end() ? nullptr : bearer->second;
}

uint32_t TOV_EventWrite(TovThreadInfo *thread, uint32_t events) {
    if (thread == nullptr) {
        RefuseIfStrict("TOV_EventWrite(null)");
        return 1;
    }
    if (CallFails("TOV_EventWrite") || thread->ended) {
        return 1;
    }
    // A reader waits only while nothing is unread.
    if (thread->unread.fetch_or(events) == 0) {
        thread->unread.notify_one();
    }
    return 0;
}

uint32_t TOV_EventRead(uint32_t *events) {
    if (CallFails("TOV_EventRead") || events == nullptr || self.info == nullptr) {
        return 1;
    }
    TovThreadInfo &info = *self.info;
    info.waiting = false;
    while ((*events = info.unread.exchange(0)) == 0) {
        info.waiting = true;
        if (created != nullptr && Strict()) {
            break;
        }
        info.unread.wait(0);
        info.waiting = false;
    }
    return 0;
}
