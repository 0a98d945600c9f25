// The probe trace: the last sightings of the vendor's CAPWAP probe messages, and of packets that
// the engine has marked for tracing, at the statistics hooks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"
#include "mund/statistics_messages.h"
#include "packet/host_ip_addr.h"

constexpr uint32_t LYR_CWP_TRACE_NUM = 2048;

// One sighting.
struct CwpTraceRcd {
    HostIpAddr peer;
    uint8_t mac[6];                     // of the peer; zero if it was not to be had
    char name[LYR_KES_PROBE_NAME_LEN];  // "ServerReq" or "ServerResp"
    uint8_t reserved[2];
    uint32_t hookKind;  // LyrKesHookKind
    uint32_t date;      // year in bits 31-16, month in 15-8, day in 7-0
    uint32_t time;      // hour in bits 31-16, minute in 15-8, second in 7-0
    uint32_t seconds;   // wall-clock second
};
static_assert(offsetof(CwpTraceRcd, mac) == 20, "MAC at 20");
static_assert(offsetof(CwpTraceRcd, name) == 26, "name at 26");
static_assert(offsetof(CwpTraceRcd, hookKind) == 44, "hook kind at 44");
static_assert(offsetof(CwpTraceRcd, seconds) == 56, "seconds at 56");
static_assert(sizeof(CwpTraceRcd) == 60, "trace record of 60 bytes");

struct LyrKesCwpTrace {
    CwpTraceRcd records[LYR_CWP_TRACE_NUM];
    uint32_t head;   // the oldest record, for those who read the ring itself
    uint32_t tail;   // where the next one goes
    uint32_t count;  // records held
};
static_assert(offsetof(LyrKesCwpTrace, head) == 122880, "head at 122880");
static_assert(sizeof(LyrKesCwpTrace) == 122892, "trace of 122892 bytes");

// The ring. Forwarding threads append and operations read without a lock: a page that is read
// meanwhile may show a record twice or miss one.
LYR_API LyrKesCwpTrace g_LyrHostCwpTrace;

// Records one sighting of a packet with its message type. Nothing is recorded of a packet that is
// neither IPv4 nor IPv6, nor at TX-in of one that carries no peer MAC address.
LYR_API void LyrKes_CwpProbeTraceProc(const HostMbuf *packet, uint32_t hookKind,
                                      uint32_t messageType);

// Copies the peer's MAC address out of a probe message. Returns 0, or 0xFFFFFFFF if the packet is
// no probe, too short, or the buffer is.
LYR_API uint32_t LyrKes_GetPeerMacFromCapwapProbeMsg(const HostMbuf *packet, uint8_t *buffer,
                                                     uint32_t length);

// Builds, keeps and prints a record. A null MAC address of the peer is reported and kept as zero.
LYR_API void LyrKes_FillInCwpProbeInfo(uint32_t hookKind, uint32_t messageType,
                                       const uint8_t *srcMac, const HostIpAddr *srcAddr,
                                       const uint8_t *dstMac, const HostIpAddr *dstAddr);

// Appends a record; the oldest of 2,048 gives way. Callable from any thread, never waits: while the
// ring is being emptied, the record is lost.
LYR_API void LyrKes_AddGlbCwpTraceRecord(const CwpTraceRcd *record);
LYR_API LyrKesCwpTrace *LyrKes_GetGlbCwpTrace();

// Empty the ring, once nobody is inside it.
LYR_API void LyrKes_InitCwpProbe();
LYR_API void LyrKes_CwpTraceReset();

// Fills one page with the records from a position on, the oldest first. Returns the page's result:
// LYR_KES_PROBE_MORE or LYR_KES_PROBE_LAST.
LYR_API uint32_t LyrKes_CwpTraceGet(const LyrKesCwpTraceRecordReq *request,
                                    LyrKesCwpTraceRecordRsp *reply);
