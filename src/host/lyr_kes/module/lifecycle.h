// Start and stop of the module.
#pragma once

#include <cstdint>

#include "module/export.h"

// Starts the module: everything that packets and operations need is ready before either can arrive.
// Returns 0, or 1 with nothing left behind. Called once, on the engine's control thread.
LYR_API uint32_t LyrKes_Init();

// Stops the module, with packets, operations and threads still running. Only the verify records
// stay. Operations that come meanwhile are refused, and those that come later find nothing.
// Returns 0.
LYR_API uint32_t LyrKes_Exit();
