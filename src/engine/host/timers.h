#pragma once

#include <cstddef>

namespace standin {

// The timers that exist.
size_t TimerCount();

}  // namespace standin
