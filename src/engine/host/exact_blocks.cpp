// Blocks as memory checkers want them: each an allocation of its own, which ends where it ends.
#include <cstdlib>
#include <unordered_map>

#include "host/blocks.h"
#include "standin/lasting.h"

namespace standin {
namespace {

constexpr size_t kCacheLine = 64;

// By address, hidden so that a leak checker does not take a record for a user of its block.
auto &records = Lasting<std::unordered_map<uintptr_t, BlockRecord>>();

uintptr_t Hidden(const void *block) {
    return ~reinterpret_cast<uintptr_t>(block);
}

}  // namespace

void *TakeBlock(const BlockRecord &record) {
    void *block = nullptr;
    if (posix_memalign(&block, kCacheLine, record.size) != 0) {
        return nullptr;
    }
    records.emplace(Hidden(block), record);
    return block;
}

const BlockRecord *FindBlock(const void *block) {
    const auto found = records.find(Hidden(block));
    return found == records.end() ? nullptr : &found->second;
}

void GiveBackBlock(void *block) {
    records.erase(Hidden(block));
    std::free(block);
}

void ForEachBlock(const std::function<void(const BlockRecord &)> &visit) {
    for (const auto &[address, record] : records) {
        visit(record);
    }
}

void ReturnSpareMemory() {}

}  // namespace standin
