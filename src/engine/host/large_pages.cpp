#include "host/large_pages.h"

#include <sys/mman.h>

namespace standin {
namespace {

constexpr size_t kPage = 4096;

}  // namespace

uint8_t *MapMemory(size_t size) {
    size = RoundUp(size, kPage);
    void *memory = mmap(nullptr, size + kLargePage, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto *const mapped = static_cast<uint8_t *>(memory);
    const auto address = reinterpret_cast<uintptr_t>(mapped);
    const size_t before = RoundUp(address, kLargePage) - address;
    if (before != 0) {
        munmap(mapped, before);
    }
    uint8_t *const start = mapped + before;
    if (before != kLargePage) {
        munmap(start + size, kLargePage - before);
    }
    if (size >= kLargePage) {
        madvise(start, size, MADV_HUGEPAGE);
    }
    return start;
}

void UnmapMemory(uint8_t *memory, size_t size) {
    munmap(memory, RoundUp(size, kPage));
}

}  // namespace standin
