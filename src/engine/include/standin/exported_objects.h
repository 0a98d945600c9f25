// Reading what a module exports, while it runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "standin/module_loader.h"

#pragma GCC visibility push(default)
namespace standin {

struct ObjectBytes {
    std::string error;  // what is wrong; empty when the bytes are there
    std::vector<uint8_t> bytes;
};

// Copies a data object that the module's library itself exports, of the size that its symbol has;
// or, with a slot, the block of the module's memory whose start the object's pointer at that slot
// (from 0, eight bytes each) holds. The block is not freed meanwhile, and the module neither
// allocates nor frees until the copy is made.
// What the module writes at the same time may be seen or not, each aligned word by itself. The
// module stays loaded until this returns. Callable from any thread.
ObjectBytes ReadObject(const Module &module, const std::string &name,
                       std::optional<uint32_t> slot = std::nullopt);

}  // namespace standin
#pragma GCC visibility pop
