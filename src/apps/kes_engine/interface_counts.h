// What a network interface has given.
#pragma once

#include <cstdint>
#include <string>

namespace kes_engine {

struct InterfaceCounts {
    std::string interface;
    uint64_t frames = 0;              // received here
    uint64_t dropped = 0;             // by the kernel, for lack of room in the buffer
    uint64_t droppedByInterface = 0;  // before that
};

}  // namespace kes_engine
