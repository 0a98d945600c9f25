// Control commands' way to the module in this process.
#pragma once

#include "control/caller.h"

namespace kes_engine {

// Runs an operation through the service's stub, on the calling thread.
control::Answer CallModule(MundOperation operation, std::span<const uint8_t> request);

}  // namespace kes_engine
