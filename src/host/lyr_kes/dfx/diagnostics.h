// The start and stop of the diagnostics as a whole.
#pragma once

#include <cstdint>

#include "module/export.h"

// Clears the probe trace, registers the statistics hooks and makes the counters by message type,
// whose result it returns: the module works without them.
LYR_API uint32_t LyrKes_InitCwpStatDfx();
// Clears what they know, unregisters the hooks and releases the counters.
LYR_API uint32_t LyrKes_DeinitCwpStatDfx();
