#include "kes/memory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "host/live_bytes.h"
#include "host/strict.h"
#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr uint64_t kLive = 0x6B65736D656D2121;
constexpr uint64_t kFreed = 0x6B65736D656D2D2D;
// What uninitialised memory reads as, so that depending on it shows.
constexpr int kUndefined = 0xA5;

// Stands before every block, and links the blocks of a module.
struct alignas(16) Block {
    Block *next;
    Block *previous;
    uint32_t size;
    bool forRequest;
    const char *tag;
    uint32_t moduleId;
    uint32_t line;
    uint64_t guard;
};

struct Account {
    MemoryUse use;
    Block *blocks = nullptr;
};

std::mutex mutex;
auto &accounts = Lasting<std::unordered_map<uint32_t, Account>>();

size_t heldForRequests = 0;
thread_local bool inRequest = false;

void Enter(Block *block) {
    const std::lock_guard lock(mutex);
    Account &account = accounts[block->moduleId];
    block->next = account.blocks;
    if (block->next != nullptr) {
        block->next->previous = block;
    }
    account.blocks = block;
    ++account.use.blocks;
    account.use.bytes += block->size;
    heldForRequests += block->forRequest ? block->size : 0;
}

void Remove(Block *block) {
    const std::lock_guard lock(mutex);
    Account &account = accounts[block->moduleId];
    (block->previous != nullptr ? block->previous->next : account.blocks) = block->next;
    if (block->next != nullptr) {
        block->next->previous = block->previous;
    }
    --account.use.blocks;
    account.use.bytes -= block->size;
    heldForRequests -= block->forRequest ? block->size : 0;
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
    void *memory = std::malloc(sizeof(Block) + size);
    if (memory == nullptr) {
        return nullptr;
    }
    auto *block = new (memory) Block{nullptr, nullptr, size, inRequest, tag, moduleId, line, kLive};
    std::memset(block + 1, kUndefined, size);
    Enter(block);
    return block + 1;
}

size_t BlockSize(const void *block) {
    return (static_cast<const Block *>(block) - 1)->size;
}

MemoryUse ModuleMemory(uint32_t moduleId) {
    const std::lock_guard lock(mutex);
    const auto found = accounts.find(moduleId);
    return found == accounts.end() ? MemoryUse{} : found->second.use;
}

std::vector<MemoryOfPlace> ModuleMemoryByPlace(uint32_t moduleId) {
    std::map<std::pair<const char *, uint32_t>, MemoryUse> uses;
    const std::lock_guard lock(mutex);
    const auto found = accounts.find(moduleId);
    const Block *block = found == accounts.end() ? nullptr : found->second.blocks;
    for (; block != nullptr; block = block->next) {
        MemoryUse &use = uses[{block->tag, block->line}];
        ++use.blocks;
        use.bytes += block->size;
    }
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
    const auto found = accounts.find(moduleId);
    const Block *block = found == accounts.end() ? nullptr : found->second.blocks;
    while (block != nullptr && reinterpret_cast<uintptr_t>(block + 1) != value) {
        block = block->next;
    }
    if (block == nullptr) {
        return false;
    }
    bytes = CopyLive(block + 1, block->size);
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
    Block *header = static_cast<Block *>(block) - 1;
    if (header->guard != kLive) {
        std::fprintf(stderr, "TovMemFreeInner: %p is no block of the allocator, or freed before\n",
                     block);
        std::abort();
    }
    Remove(header);
    header->guard = kFreed;
    std::free(header);
}
