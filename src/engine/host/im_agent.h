#pragma once

#include <cstddef>

namespace standin {

// IM messages neither sent nor freed.
size_t ImMessageCount();

}  // namespace standin
