// The distribution's part in start and stop: the tables, and the hook that reads them.
#pragma once

#include <cstdint>

#include "module/export.h"

// Creates the tables, then opens the packet hook. Returns 0, or 1 with nothing left behind.
LYR_API uint32_t LyrKes_Dist_Init();

// Closes the packet hook, then releases the tables.
LYR_API void LyrKes_Dist_Deinit();
