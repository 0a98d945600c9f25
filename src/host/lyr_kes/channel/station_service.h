// Which service instances serve stations, and which one serves a given station.
#pragma once

#include <cstdint>

#include "module/export.h"

// Low half: the first instance that serves stations; high half: how many do. One word, so that a
// packet sees the old range or the new one.
LYR_API uint64_t g_lyrKesStaSvcInfo;

LYR_API void LyrKes_SetStaSvcInfo(uint64_t info);
LYR_API uint64_t LyrKes_GetStaSvcInfo();

// No instance serves stations.
LYR_API void LyrKes_InitStaSvcInfo();
LYR_API void LyrKes_DeinitStaInfo();

// The instance that serves the station with this 6-byte MAC address; 0xFFFFFFFF while none does.
LYR_API uint32_t LyrKes_GetPidByMac(const uint8_t *mac);
