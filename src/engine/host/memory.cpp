#include "kes/memory.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "host/blocks.h"
#include "host/live_bytes.h"
#include "host/memory.h"
#include "host/strict.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

// What uninitialised memory reads as, so that depending on it shows.
constexpr int kUndefined = 0xA5;

std::mutex mutex;
auto &accounts = Lasting<std::unordered_map<uint32_t, MemoryUse>>();

size_t heldForRequests = 0;
thread_local bool inRequest = false;

// The record of a block that must be there.
const BlockRecord &RecordOf(const void *block, const char *operation) {
    const BlockRecord *record = FindBlock(block);
    if (record == nullptr) {
        std::fprintf(stderr, "%s: %p is no block of the allocator, or freed before\n", operation,
                     block);
        std::abort();
    }
    return *record;
}

}  // namespace

RequestScope::RequestScope() {
    inRequest = true;
}

RequestScope::~RequestScope() {
    inRequest = false;
}

size_t HeldForRequests() {
    const std::lock_guard lock(mutex);
    return heldForRequests;
}

void *AllocateBlock(uint32_t moduleId, uint32_t size, const char *tag, uint32_t line) {
    void *block;
    {
        const std::lock_guard lock(mutex);
        block = TakeBlock({tag, moduleId, line, size, inRequest});
        if (block == nullptr) {
            return nullptr;
        }
        MemoryUse &use = accounts[moduleId];
        ++use.blocks;
        use.bytes += size;
        heldForRequests += inRequest ? size : 0;
    }
    return std::memset(block, kUndefined, size);
}

size_t BlockSize(const void *block) {
    const std::lock_guard lock(mutex);
    return RecordOf(block, "BlockSize").size;
}

void ReturnUnusedMemory() {
    const std::lock_guard lock(mutex);
    ReturnSpareMemory();
}

MemoryUse ModuleMemory(uint32_t moduleId) {
    const std::lock_guard lock(mutex);
    const auto found = accounts.find(moduleId);
    return found == accounts.end() ? MemoryUse{} : found->second;
}

std::vector<MemoryOfPlace> ModuleMemoryByPlace(uint32_t moduleId) {
    std::map<std::pair<const char *, uint32_t>, MemoryUse> uses;
    const std::lock_guard lock(mutex);
    ForEachBlock([&](const BlockRecord &record) {
        if (record.moduleId == moduleId) {
            MemoryUse &use = uses[{record.tag, record.line}];
            ++use.blocks;
            use.bytes += record.size;
        }
    });
    // A tag may go with the module once its blocks are freed.
    std::vector<MemoryOfPlace> places;
    places.reserve(uses.size());
    for (const auto &[place, use] : uses) {
        places.push_back({place.first, place.second, use});
    }
    return places;
}

std::vector<std::string> ModuleMemoryByTag(uint32_t moduleId) {
    std::vector<MemoryOfPlace> places = ModuleMemoryByPlace(moduleId);
    std::ranges::sort(places, {},
                      [](const MemoryOfPlace &of) { return std::tie(of.tag, of.line); });
    std::vector<std::string> texts;
    texts.reserve(places.size());
    for (const auto &[tag, line, use] : places) {
        texts.push_back(tag + ":" + std::to_string(line) + " " + std::to_string(use.blocks) + " " +
                        std::to_string(use.bytes));
    }
    return texts;
}

bool CopyBlockAt(uint32_t moduleId, const uint64_t *word, std::vector<uint8_t> &bytes,
                 uint64_t &value) {
    const std::lock_guard lock(mutex);
    // A module that clears its pointer before it frees the block has not freed what stands here.
    value = __atomic_load_n(word, __ATOMIC_ACQUIRE);
    const auto *block = std::bit_cast<const void *>(value);
    const BlockRecord *record = FindBlock(block);
    if (record == nullptr || record->moduleId != moduleId) {
        return false;
    }
    bytes = CopyLive(block, record->size);
    return true;
}

}  // namespace standin

using namespace standin;

void *TovMemAllocInner(uint32_t moduleId, uint32_t partition, uint32_t size, uint32_t flags,
                       const char *tag, uint32_t line) {
    if (CallFails("TovMemAllocInner") || partition != 0 || flags != 0 || tag == nullptr) {
        return nullptr;
    }
    return AllocateBlock(moduleId, size, tag, line);
}

void TovMemFreeInner(void *block) {
    if (block == nullptr) {
        RefuseIfStrict("TovMemFreeInner(null)");
        return;
    }
    const std::lock_guard lock(mutex);
    const BlockRecord &record = RecordOf(block, "TovMemFreeInner");
    MemoryUse &use = accounts[record.moduleId];
    --use.blocks;
    use.bytes -= record.size;
    heldForRequests -= record.forRequest ? record.size : 0;
    GiveBackBlock(block);
}
