// The levelled diagnostic log and the per-packet print. Both format on the stack, keep no state and
// are callable from any thread.
#pragma once

#include <cstdint>

#include "kes/api.h"
#include "module/export.h"

enum LyrKesLogLevel : uint32_t {
    LYR_HOST_EMER = 0,
    LYR_HOST_ERR = 1,
    LYR_HOST_WARN = 2,
    LYR_HOST_INFO = 3,
    LYR_HOST_DEBUG = 4,
};

// Logs one line. Only levels up to LYR_HOST_WARN are emitted; a line of more than 255 characters is
// dropped.
LYR_API void LYR_KES_DiagLog(uint32_t level, const char *format, ...) KES_PRINTF(2, 3);

// Prints one line about a packet that is marked for diagnosis, cut to 1,023 characters. The caller
// has tested the mark.
LYR_API void LYR_KES_DiagPrintf(const char *format, ...) KES_PRINTF(1, 2);

// The name of a level as it travels in log messages, or null for a level above LYR_HOST_DEBUG.
LYR_API const char *LYR_KES_GetDiagTypeStr(uint32_t level);

// Sends a finished line to the debug output while the debug trace is on.
// Returns 0 when sent or skipped, 0xFFFFFFFF when the report failed.
LYR_API uint32_t LYR_KES_SendDebugOutput(const char *text);

// Whether log lines also go to the IM agent: 1 if so. Always 0.
LYR_API uint32_t LYR_KES_GetDiagLogSwitch();

// Sends a finished line to the IM agent of the current main board. Returns 0 or 0xFFFFFFFF.
LYR_API uint32_t LYR_KES_SendDiagLog(uint32_t level, const char *text);

// Points the IM agent at the current main board. Returns 0 or 0xFFFFFFFF.
LYR_API uint32_t LYR_KES_SetDiagMainBoardIp();

// True while the debug trace is on.
LYR_API bool LyrKes_IsDebugTraceEnable();

// A MAC address in the module's lines.
#define LYR_MAC_FORMAT "%02x%02x-%02x%02x-%02x%02x"
#define LYR_MAC_ARGS(mac) (mac)[0], (mac)[1], (mac)[2], (mac)[3], (mac)[4], (mac)[5]
