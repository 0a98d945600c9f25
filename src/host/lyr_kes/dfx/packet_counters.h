// Counters of the packets that the packet entry has classified, by class and by what became of
// them.
#pragma once

#include <cstdint>

#include "module/export.h"
#include "mund/statistics_messages.h"

// The counters. Forwarding threads count without a lock: concurrent threads may lose counts.
LYR_API LyrKesPktStat g_cwpPktStats[LYR_KES_PKT_STAT_ROW_NUM];

// Counts a packet with its result in the row of each class that it is of: a mask of 1 control,
// 2 keepalive and 4 DTLS handshake. Runs on the forwarding threads, as the next one.
LYR_API void LyrKes_CwpCtrlPktStatic(const uint32_t *packetClass, uint32_t result);

// Counts a packet in one row, and feeds the drop watch. There is nothing to count in another row.
LYR_API void LyrKes_IncreasePktType(uint32_t row, uint32_t result);

// Copies the counters, 84 bytes; nothing to a destination of fewer.
LYR_API void LyrKes_GetCtrlPktStatic(void *destination, uint32_t size);
LYR_API void LyrKes_ClearCtrlPktStatic();
