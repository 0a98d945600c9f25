#include "host/queues.h"

#include <mutex>
#include <new>
#include <set>
#include <string>

#include "host/pointer_ring.h"
#include "kes/queue.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

struct TovPipeQue {
    TovPipeQue(const char *name, uint32_t size) : name(name), elements(size) {}

    const std::string name;
    std::mutex mutex;
    standin::PointerRing<void> elements;
};

namespace standin {
namespace {

std::mutex namesMutex;
auto &names = Lasting<std::set<std::string>>();

}  // namespace

size_t QueueCount() {
    const std::lock_guard lock(namesMutex);
    return names.size();
}

}  // namespace standin

using namespace standin;

TovPipeQue *TovCreatePipeQue(const char *name, uint32_t size) {
    if (CallFails("TovCreatePipeQue") || name == nullptr || size == 0) {
        return nullptr;
    }
    const std::lock_guard lock(namesMutex);
    if (names.contains(name)) {
        return nullptr;
    }
    try {
        auto *queue = new TovPipeQue(name, size);
        names.insert(queue->name);
        return queue;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

uint32_t TovQueEnq(TovPipeQue *queue, void *element) {
    if (queue == nullptr || element == nullptr) {
        return 1;
    }
    const std::lock_guard lock(queue->mutex);
    return !CallFails("TovQueEnq") && queue->elements.Push(element) ? 0 : 2;
}

uint32_t TovQueDeq(TovPipeQue *queue, void **element) {
    if (queue == nullptr || element == nullptr) {
        return 1;
    }
    const std::lock_guard lock(queue->mutex);
    *element = CallFails("TovQueDeq") ? nullptr : queue->elements.Pop();
    return *element != nullptr ? 0 : 3;
}

uint32_t TovQueCount(TovPipeQue *queue) {
    if (queue == nullptr) {
        return 0;
    }
    const std::lock_guard lock(queue->mutex);
    return queue->elements.Size();
}

uint32_t TovQueDelete(TovPipeQue *queue) {
    if (queue == nullptr) {
        return 1;
    }
    {
        const std::lock_guard lock(namesMutex);
        names.erase(queue->name);
    }
    delete queue;
    return 0;
}
