// Counts the vendor's CAPWAP ping messages to and from one peer at the four statistics hooks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"
#include "module/shared_word.h"
#include "mund/statistics_messages.h"
#include "packet/host_ip_addr.h"

struct LyrKesCwpPingCounter {
    uint64_t pktCnt;
    uint64_t fragCnt;  // of these, with the CAPWAP fragment bit (RFC 5415, section 4.3)
    uint64_t byteCnt;  // payload behind the ping header
};

struct LyrKesCwpPingStat {
    uint8_t pingEnable;  // 1 while there is a peer
    HostIpAddr pingAddr;
    LyrKesCwpPingCounter counters[KES_HOOK_NUM];
};
static_assert(offsetof(LyrKesCwpPingStat, pingAddr) == 4, "peer at 4");
static_assert(offsetof(LyrKesCwpPingStat, counters) == 24, "counters at 24");
static_assert(sizeof(LyrKesCwpPingStat) == 120, "ping statistics of 120 bytes");

// The peer and the counters. Operations set the peer and forwarding threads read it without a lock:
// packets that meet a change may be counted against either peer or neither, and counts may be lost.
LYR_API LyrKesCwpPingStat g_LyrHostCwpPingStat;

// Whether the packet's peer at a hook kind is the configured one; its address is read as one of the
// configured version, whatever the packet's.
LYR_API bool LyrKes_CheckCwpPingStatConfig(const HostMbuf *packet, uint32_t hookKind);

// Counts a ping of `pingLength` bytes behind the CAPWAP header. At RX-out it counts for RX-in too.
// Returns 0, or 1, with a line in the debug trace, for one shorter than the ping header.
LYR_API uint32_t LyrKes_CwpPingStatProc(uint32_t hookKind, uint16_t pingLength, uint32_t fragment);
LYR_API void LyrKes_CalCwpPingStatByType(uint32_t hookKind, uint32_t fragment,
                                         uint32_t payloadBytes);

// Sets the peer and zeroes the counters. The zero address switches the counting off.
LYR_API void LyrKes_UpdateCwpPingConfig(bool ipv4, uint32_t ipv4Addr, const uint16_t *ipv6Groups);
// Zeroes the counters, and the peer with them.
LYR_API void LyrKes_ResetCwpPingStat();
LYR_API void LyrKes_InitCwpPingStat();

LYR_API LyrKesCwpPingStat *LyrKes_GetCwpPingStatConfig();
// The counters of a hook kind, or null for a kind that there is not.
LYR_API LyrKesCwpPingCounter *LyrKes_GetCwpPingStatByType(uint32_t hookKind);

// Fills in the counters of a reply, the low 32 bits of each. Returns 0.
LYR_API uint32_t LyrKes_CwpPingGetStat(LyrKesCwpPingStatRsp *reply);

namespace lyr {

inline bool IsPingPeerSet() {
    return LoadAcquire(g_LyrHostCwpPingStat.pingEnable) != 0;
}

}  // namespace lyr
