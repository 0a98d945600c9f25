// The time that records bear.
#pragma once

#include <cstdint>

#include "module/export.h"

// The wall-clock second, truncated to 32 bits.
LYR_API uint32_t LyrKes_GetCurTime();
