#pragma once

#include <cstddef>

namespace standin {

// The queues that exist.
size_t QueueCount();

}  // namespace standin
