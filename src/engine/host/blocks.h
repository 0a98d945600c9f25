// Where the blocks of the modules' allocator lie, with a record of each beside them. Whoever calls
// these holds the allocator's lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace standin {

struct BlockRecord {
    const char *tag;
    uint32_t moduleId;
    uint32_t line;
    uint32_t size;    // bytes that were asked for
    bool forRequest;  // held for one until it is freed
};

// Memory for a block, which keeps the record; null if there is none. Blocks of 64 bytes or more
// begin on a cache line, and shorter ones lie within one.
void *TakeBlock(const BlockRecord &record);

// The record of the block that begins there; null if none does.
const BlockRecord *FindBlock(const void *block);

// Takes a block back that is there.
void GiveBackBlock(void *block);

void ForEachBlock(const std::function<void(const BlockRecord &)> &visit);

// Gives what no block lies in back to the system.
void ReturnSpareMemory();

}  // namespace standin
