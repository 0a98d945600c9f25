// The debug trace: a filtered stream of one-line texts about packets, switched by the management
// plane.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kes/api.h"
#include "kes/mbuf.h"
#include "module/export.h"
#include "mund/messages.h"

// Trace levels, as bits of the configured mask.
enum LyrKesTraceLevel : uint32_t {
    LYR_TRACE_FAILURE = 1,
    LYR_TRACE_PACKET = 2,
};

// What the summary line calls a packet.
enum LyrKesPacketKind : uint8_t {
    LYR_PKT_CONTROL = 0,
    LYR_PKT_KEEPALIVE = 1,
    LYR_PKT_DTLS_HANDSHAKE = 2,
};

struct LyrKesDebugTraceInfo {
    uint8_t enable;       // 1 while the trace is on
    uint32_t debugLevel;  // mask of levels
    uint8_t srcIpFamily;  // 4, 6, or 0 when never set
    uint32_t srcIp[4];    // IPv4: word 0; all zero: any
    uint8_t dstIpFamily;
    uint32_t dstIp[4];
    uint32_t srcPort;        // 0: any
    uint32_t dstPort;        // 0: any
    uint8_t mac[6];          // reported, not a filter
    uint32_t capwapMsgType;  // 0: any
};
static_assert(offsetof(LyrKesDebugTraceInfo, srcIp) == 12, "source filter at 12");
static_assert(offsetof(LyrKesDebugTraceInfo, dstIp) == 32, "destination filter at 32");
static_assert(offsetof(LyrKesDebugTraceInfo, mac) == 56, "MAC at 56");
static_assert(sizeof(LyrKesDebugTraceInfo) == 68, "trace configuration of 68 bytes");

// The configuration. Operations write it and packets read it without a lock: a packet may meet a
// mixture of the old and the new one.
LYR_API LyrKesDebugTraceInfo g_lyrKesDebugTrace;

// Emits one line of a level. With `needFilter` the line concerns the packet and the packet filter
// decides. A line of more than 255 characters is dropped.
LYR_API void LyrKesDebugTrace(uint32_t level, bool needFilter, const HostMbuf *packet,
                              const char *format, ...) KES_PRINTF(4, 5);

// The packet filter: whether the packet passes. A null packet does not. Reads the packet with the
// quiet readers only, since the traced ones come back here.
LYR_API bool LyrKesNeedDebugging(const HostMbuf *packet);

// Prints the summary line of a classified packet (LYR_PKT_*).
LYR_API void LyrKes_DebugOutPutPkt(uint8_t kind, const HostMbuf *packet);

// Format an address into a buffer; return the text, or null if it does not fit.
LYR_API const char *LyrKes_IPv4HToStr(uint32_t address, char *buffer, uint32_t length);
LYR_API const char *LyrKes_IPv6HToStr(const uint16_t *groups, char *buffer, uint32_t length);

LYR_API LyrKesDebugTraceInfo *LyrKes_GetDebugTraceInfo();
// Switches the trace off and removes every filter.
LYR_API void LyrKes_DebugTraceConfigClear();
// Switches the trace on with what the request names; the rest of the filter stays.
LYR_API void LyrKes_DebugTraceConfigUpdate(const LyrKesDebugTraceReq *request);

namespace lyr {

// Whether LyrKesDebugTrace would emit a line, for callers that lose the packet before they know
// what to say of it.
bool TraceWanted(uint32_t level, bool needFilter, const HostMbuf *packet);

}  // namespace lyr
