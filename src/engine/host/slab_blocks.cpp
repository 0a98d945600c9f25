// Blocks as a real engine's allocator lays them: those of one size side by side, in slabs of large
// pages, and their records elsewhere, so that a block's cache lines are its own.
#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <map>
#include <memory>
#include <set>

#include "host/blocks.h"
#include "host/engine_parts.h"
#include "host/large_pages.h"
#include "standin/lasting.h"

namespace standin {
namespace {

constexpr size_t kCacheLine = 64;
constexpr size_t kUnit = 64 << 10;  // what a slab takes; long blocks take several
constexpr size_t kChunk = kLargePage;
constexpr size_t kUnits = kChunk / kUnit;
constexpr uint32_t kAllUnits = UINT32_MAX;
static_assert(kUnits == 32, "a bit for each unit");
constexpr uint32_t kNoIndex = UINT32_MAX;

// The sizes that share slabs: small ones divide a cache line, the others are multiples of it, from
// 512 on four to each power of two.
constexpr size_t NextSize(size_t size) {
    if (size < kCacheLine) {
        return 2 * size;
    }
    return size + std::max(kCacheLine, std::bit_floor(size) / 4);
}
constexpr size_t kSmallest = 16;
constexpr size_t kLargest = kUnit / 2;
constexpr auto kSizes = [] {
    std::array<size_t, 34> sizes{};
    size_t size = kSmallest;
    for (size_t &entry : sizes) {
        entry = size;
        size = NextSize(size);
    }
    return sizes;
}();
static_assert(kSizes.back() == kLargest);

// A row of blocks of one size.
struct Slab {
    struct Entry {
        BlockRecord record;
        uint32_t nextFree;
        bool live = false;
    };

    Slab(uint8_t *start, size_t size, uint32_t count)
        : memory(start), blockSize(size), capacity(count), entries(new Entry[count]) {}

    bool IsFull() const {
        return live == capacity;
    }

    void *Take(const BlockRecord &record) {
        const uint32_t index = firstFree != kNoIndex ? firstFree : fresh++;
        Entry &entry = entries[index];
        if (index == firstFree) {
            firstFree = entry.nextFree;
        }
        entry = {record, kNoIndex, true};
        ++live;
        return memory + index * blockSize;
    }

    // The entry of the block that begins there, or null.
    Entry *Find(const void *block) const {
        const auto offset = static_cast<size_t>(static_cast<const uint8_t *>(block) - memory);
        const size_t index = offset / blockSize;
        const bool begins = offset % blockSize == 0 && index < fresh && entries[index].live;
        return begins ? &entries[index] : nullptr;
    }

    void GiveBack(Entry &entry) {
        entry.live = false;
        entry.nextFree = firstFree;
        firstFree = static_cast<uint32_t>(&entry - entries.get());
        --live;
    }

    uint8_t *const memory;
    const size_t blockSize;
    const uint32_t capacity;
    const std::unique_ptr<Entry[]> entries;
    uint32_t live = 0;
    uint32_t fresh = 0;  // the first that never was a block
    uint32_t firstFree = kNoIndex;
};

struct InOrderOfMemory {
    bool operator()(const Slab *a, const Slab *b) const {
        return a->memory < b->memory;
    }
};

// One large page with slabs and long blocks in it, or several with one block.
struct Chunk {
    explicit Chunk(size_t bytes) : size(bytes) {}

    const size_t size;
    uint32_t freeUnits = kAllUnits;
    std::array<std::unique_ptr<Slab>, kUnits> slabs;  // by their first unit

    bool IsEmpty() const {
        return freeUnits == kAllUnits;
    }
};

using Chunks = std::map<uint8_t *, Chunk>;  // by address
auto &chunks = Lasting<Chunks>();
// Slabs that have room, by size: the lowest is filled first.
auto &roomy = Lasting<std::array<std::set<Slab *, InOrderOfMemory>, kSizes.size()>>();

Chunks::iterator AddChunk(size_t size) {
    auto *memory = static_cast<uint8_t *>(Parts().TakeMemory(size));
    return memory == nullptr ? chunks.end() : chunks.try_emplace(memory, size).first;
}

void RemoveChunk(Chunks::iterator chunk) {
    Parts().GiveBackMemory(chunk->first, chunk->second.size);
    chunks.erase(chunk);
}

uint32_t Row(size_t units, size_t first) {
    return (kAllUnits >> (kUnits - units)) << first;
}

// The first of so many free units in a row; kUnits if there are none.
size_t FindRow(const Chunk &chunk, size_t units) {
    size_t first = 0;
    while (first + units <= kUnits && (chunk.freeUnits & Row(units, first)) != Row(units, first)) {
        ++first;
    }
    return first + units <= kUnits ? first : kUnits;
}

// A slab in the first place that has room for it; null if there is no memory.
Slab *AddSlab(size_t blockSize, uint32_t count) {
    const size_t units = std::min(RoundUp(blockSize * count, kUnit) / kUnit, kUnits);
    const bool isLonger = blockSize > kChunk;
    auto chunk = isLonger ? AddChunk(RoundUp(blockSize, kChunk))
                          : std::ranges::find_if(chunks, [units](const auto &entry) {
                                return FindRow(entry.second, units) < kUnits;
                            });
    if (chunk == chunks.end() && (isLonger || (chunk = AddChunk(kChunk)) == chunks.end())) {
        return nullptr;
    }
    const size_t first = FindRow(chunk->second, units);
    std::unique_ptr<Slab> &slab = chunk->second.slabs[first];
    slab = std::make_unique<Slab>(chunk->first + first * kUnit, blockSize, count);
    chunk->second.freeUnits &= ~Row(units, first);
    return slab.get();
}

Chunks::iterator ChunkOf(const void *block) {
    auto *const address = static_cast<uint8_t *>(const_cast<void *>(block));
    const auto next = chunks.upper_bound(address);
    if (next == chunks.begin()) {
        return chunks.end();
    }
    const auto chunk = std::prev(next);
    return static_cast<size_t>(address - chunk->first) < kChunk ? chunk : chunks.end();
}

Slab *SlabOf(Chunks::iterator chunk, const void *block) {
    const auto offset = static_cast<size_t>(static_cast<const uint8_t *>(block) - chunk->first);
    return chunk->second.slabs[offset / kUnit].get();
}

// One chunk stays when it is empty, so that one that is needed now and then is not mapped each
// time.
void RemoveSlab(Chunks::iterator chunk, const Slab &slab) {
    Chunk &in = chunk->second;
    const size_t units = std::min(RoundUp(slab.blockSize * slab.capacity, kUnit) / kUnit, kUnits);
    const size_t first = static_cast<size_t>(slab.memory - chunk->first) / kUnit;
    in.freeUnits |= Row(units, first);
    in.slabs[first].reset();
    const auto isEmpty = [](const auto &entry) { return entry.second.IsEmpty(); };
    if (in.IsEmpty() && (in.size > kChunk || std::ranges::count_if(chunks, isEmpty) > 1)) {
        RemoveChunk(chunk);
    }
}

size_t IndexOf(size_t size) {
    return static_cast<size_t>(std::ranges::lower_bound(kSizes, size) - kSizes.begin());
}

}  // namespace

void *TakeBlock(const BlockRecord &record) {
    if (record.size > kLargest) {
        Slab *slab = AddSlab(record.size, 1);
        return slab == nullptr ? nullptr : slab->Take(record);
    }
    const size_t index = IndexOf(record.size);
    auto &withRoom = roomy[index];
    if (withRoom.empty()) {
        const size_t size = kSizes[index];
        Slab *slab = AddSlab(size, static_cast<uint32_t>(kUnit / size));
        if (slab == nullptr) {
            return nullptr;
        }
        withRoom.insert(slab);
    }
    Slab *slab = *withRoom.begin();
    void *block = slab->Take(record);
    if (slab->IsFull()) {
        withRoom.erase(withRoom.begin());
    }
    return block;
}

const BlockRecord *FindBlock(const void *block) {
    const auto chunk = ChunkOf(block);
    const Slab *slab = chunk == chunks.end() ? nullptr : SlabOf(chunk, block);
    const Slab::Entry *entry = slab == nullptr ? nullptr : slab->Find(block);
    return entry == nullptr ? nullptr : &entry->record;
}

void GiveBackBlock(void *block) {
    const auto chunk = ChunkOf(block);
    Slab &slab = *SlabOf(chunk, block);
    const bool wasFull = slab.IsFull();
    slab.GiveBack(*slab.Find(block));
    if (slab.blockSize > kLargest) {
        RemoveSlab(chunk, slab);
        return;
    }
    auto &withRoom = roomy[IndexOf(slab.blockSize)];
    if (wasFull) {
        withRoom.insert(&slab);
    }
    if (slab.live == 0 && withRoom.size() > 1) {
        withRoom.erase(&slab);
        RemoveSlab(chunk, slab);
    }
}

void ForEachBlock(const std::function<void(const BlockRecord &)> &visit) {
    for (const auto &[memory, chunk] : chunks) {
        for (const auto &slab : chunk.slabs) {
            for (uint32_t i = 0; slab != nullptr && i < slab->fresh; ++i) {
                if (slab->entries[i].live) {
                    visit(slab->entries[i].record);
                }
            }
        }
    }
}

void ReturnSpareMemory() {
    for (auto &withRoom : roomy) {
        for (auto at = withRoom.begin(); at != withRoom.end();) {
            Slab *slab = *at++;
            if (slab->live == 0) {
                withRoom.erase(slab);
                RemoveSlab(ChunkOf(slab->memory), *slab);
            }
        }
    }
    for (auto chunk = chunks.begin(); chunk != chunks.end();) {
        const auto next = std::next(chunk);
        if (chunk->second.IsEmpty()) {
            RemoveChunk(chunk);
        }
        chunk = next;
    }
}

}  // namespace standin
