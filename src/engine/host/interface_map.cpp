#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "kes/interface_index.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

auto &mutex = Lasting<std::shared_mutex>();
auto &controlIndexes = Lasting<std::unordered_map<uint32_t, uint32_t>>();
// Spares forwarding threads the lock where nothing is mapped.
std::atomic<bool> anyMapped{false};

}  // namespace

void MapInterface(uint32_t forwardingIndex, uint32_t controlIndex) {
    const std::lock_guard lock(mutex);
    controlIndexes.insert_or_assign(forwardingIndex, controlIndex);
    anyMapped = true;
}

void ClearInterfaceMap() {
    const std::lock_guard lock(mutex);
    controlIndexes.clear();
    anyMapped = false;
}

}  // namespace standin

using namespace standin;

uint32_t HostFwdIfIdx2CtrlIfIdx(uint32_t forwardingIndex) {
    if (!anyMapped.load(std::memory_order_relaxed)) {
        return forwardingIndex;
    }
    const std::shared_lock lock(mutex);
    const auto found = controlIndexes.find(forwardingIndex);
    return found == controlIndexes.end() ? forwardingIndex : found->second;
}
