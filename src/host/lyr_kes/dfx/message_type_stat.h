// Counts, by service instance, the hand-offs of packets of one selected CAPWAP message type and of
// the type above it: a request and its response (RFC 5415, section 4.5.1.1).
#pragma once

#include <cstddef>
#include <cstdint>

#include "module/export.h"
#include "mund/statistics_messages.h"

// Arrays have an entry for each service instance; they exist from start to stop.
struct LyrKesPktMsgTypeStat {
    uint32_t statMsgType;   // the selected type, or LYR_KES_MSG_TYPE_OFF
    uint32_t *recvCnt;      // of the selected type: handed over,
    uint32_t *dropCnt;      // and not handed over
    uint32_t *nextRecvCnt;  // the same of the type above it
    uint32_t *nextDropCnt;
};
static_assert(offsetof(LyrKesPktMsgTypeStat, recvCnt) == 8, "first array at 8");
static_assert(sizeof(LyrKesPktMsgTypeStat) == 40, "message type statistics of 40 bytes");

// Forwarding threads count without a lock: concurrent threads may lose counts.
LYR_API LyrKesPktMsgTypeStat g_LyrHostPktMsgTypeStat;

// Whether a type is selected. What packets ask first.
LYR_API bool LyrKes_IsPktMsgTypeStatEnabled();
// Whether a packet of a type and a load-balance key counts while `statMsgType` is selected.
LYR_API bool LyrKes_IfPktMsgNeedStat(uint32_t packetType, uint32_t statMsgType, uint32_t lbKey);

// Count a hand-off that succeeded, and one that failed; return whether it counted.
LYR_API bool LyrKes_IncrPktMsgTypeStatRecvCnt(uint32_t packetType, uint32_t lbKey);
LYR_API bool LyrKes_IncrPktMsgTypeStatDropCnt(uint32_t packetType, uint32_t lbKey);

// Selects a type, or LYR_KES_MSG_TYPE_OFF, and zeroes the counters. Returns 0.
LYR_API uint32_t LyrKes_SetCwpMsgTypeStat(uint32_t messageType);
// Fills in the counts of a reply. Returns 0, or 1 without arrays or with more instances than the
// reply has room for.
LYR_API uint32_t LyrKes_GetCwpMsgTypeStat(LyrKesCwpMsgTypeStatRsp *reply);
LYR_API void LyrKes_ResetPktMsgTypeStatCnt();
LYR_API LyrKesPktMsgTypeStat *LyrKes_GetPktMsgTypeStat();

// Switches counting off and makes the arrays. Without them nothing counts.
LYR_API uint32_t LyrKes_InitPktMsgTypeStat();
LYR_API uint32_t LyrKes_DeinitPktMsgTypeStat();
