// The way from a request to the module that answers it.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "mund/operations.h"

namespace control {

using Bytes = std::vector<uint8_t>;

struct Answer {
    std::string failure;  // why the operation did not run; empty when it did
    uint32_t result = 0;  // what the operation returned: one of MUND_RESULT_* as a rule
    Bytes reply;          // empty when the operation made none
};

// Runs one operation with one request and waits for its answer: in this process, or wherever the
// module runs.
using Caller = std::function<Answer(MundOperation operation, std::span<const uint8_t> request)>;

}  // namespace control
