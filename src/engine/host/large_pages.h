// Memory from the system, on large pages where they help.
#pragma once

#include <cstddef>
#include <cstdint>

namespace standin {

constexpr size_t kLargePage = 2 << 20;

constexpr size_t RoundUp(size_t size, size_t multiple) {
    return (size + multiple - 1) / multiple * multiple;
}

// Memory that begins where a large page does, in whole pages of either size; null if there is none.
uint8_t *MapMemory(size_t size);
void UnmapMemory(uint8_t *memory, size_t size);

}  // namespace standin
