// The reconciliation thread and what it needs, from start to stop.
#pragma once

#include <cstdint>

#include "module/export.h"

// 1 while the thread takes messages out of the queue.
LYR_API uint8_t g_lyrKesReconThreadRunning;

// Per instance, 1 between the begin and the finish of an audit. Written by the thread alone.
LYR_API uint8_t *reconBeginFlag;

// Creates the begin flags, the queue and the thread. Returns 0, or 0xFFFFFFFF with none left.
LYR_API uint32_t LyrKes_InitReconInfo();

// Stops the thread, waits until it has ended and its name is free, and releases the queue and the
// begin flags.
LYR_API void LyrKes_DeinitReconInfo();

// Starts the thread, unless it is running. Returns 0 or 1.
LYR_API uint32_t LyrKes_CreateReconTask();

// The thread's body; the argument is null.
LYR_API void LyrKes_ReconTaskEntry(void *argument);

namespace lyr {

// Has the thread look for events at once, on an engine that does not wait for them: to be called
// after an event was written.
void EndReconIdleWait();

// Events of the reconciliation thread.
constexpr uint32_t kReconEventQueued = 1;
constexpr uint32_t kReconEventStop = 2;

}  // namespace lyr
