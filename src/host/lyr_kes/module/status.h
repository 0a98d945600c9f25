// Results that the module's operations share.
#pragma once

#include <cstdint>

namespace lyr {

constexpr uint32_t kOk = 0;
constexpr uint32_t kFailed = 1;
constexpr uint32_t kError = 0xFFFFFFFF;

}  // namespace lyr
