#include "dfx/message_type_stat.h"

#include <algorithm>
#include <iterator>

#include "kes/diag.h"
#include "lb/rpc_server.h"
#include "module/capability.h"
#include "module/instance_array.h"
#include "module/shared_word.h"
#include "module/status.h"

LyrKesPktMsgTypeStat g_LyrHostPktMsgTypeStat;

namespace {

using lyr::kFailed;
using lyr::kOk;

LyrKesPktMsgTypeStat &stat = g_LyrHostPktMsgTypeStat;

using Counts = uint32_t *LyrKesPktMsgTypeStat::*;
// In the order in which they are made and read.
constexpr Counts kCounts[] = {
    &LyrKesPktMsgTypeStat::recvCnt,
    &LyrKesPktMsgTypeStat::dropCnt,
    &LyrKesPktMsgTypeStat::nextRecvCnt,
    &LyrKesPktMsgTypeStat::nextDropCnt,
};

uint32_t ReportMissing(uint32_t line) {
    return TovOndAssert("src/host/lyr_kes/dfx/lyr_kes_cwpstat", line, 0);
}

bool HasAllCounts() {
    return std::ranges::all_of(kCounts, [](Counts counts) { return stat.*counts != nullptr; });
}

bool Count(uint32_t *counts, uint32_t *nextCounts, uint32_t packetType, uint32_t lbKey) {
    if (counts == nullptr || nextCounts == nullptr) {
        ReportMissing(__LINE__);
        return false;
    }
    const uint32_t selected = lyr::LoadRelaxed(stat.statMsgType);
    if (!LyrKes_IfPktMsgNeedStat(packetType, selected, lbKey)) {
        return false;
    }
    lyr::CountOne((packetType == selected ? counts : nextCounts)[lbKey]);
    return true;
}

// Copies one array into its area of a reply. False if the area is too small.
bool CopyCounts(uint32_t (&area)[LYR_KES_MSG_TYPE_STAT_NUM], const uint32_t *counts,
                uint32_t entryNum) {
    if (entryNum > std::size(area)) {
        return false;
    }
    for (uint32_t i = 0; i < entryNum; ++i) {
        area[i] = lyr::LoadRelaxed(counts[i]);
    }
    return true;
}

}  // namespace

bool LyrKes_IsPktMsgTypeStatEnabled() {
    return lyr::LoadRelaxed(stat.statMsgType) != LYR_KES_MSG_TYPE_OFF;
}

bool LyrKes_IfPktMsgNeedStat(uint32_t packetType, uint32_t statMsgType, uint32_t lbKey) {
    return statMsgType != LYR_KES_MSG_TYPE_OFF &&
           (packetType == statMsgType || packetType == statMsgType + 1) && lyr::IsInstance(lbKey);
}

bool LyrKes_IncrPktMsgTypeStatRecvCnt(uint32_t packetType, uint32_t lbKey) {
    return Count(stat.recvCnt, stat.nextRecvCnt, packetType, lbKey);
}

bool LyrKes_IncrPktMsgTypeStatDropCnt(uint32_t packetType, uint32_t lbKey) {
    return Count(stat.dropCnt, stat.nextDropCnt, packetType, lbKey);
}

uint32_t LyrKes_SetCwpMsgTypeStat(uint32_t messageType) {
    lyr::StoreRelaxed(stat.statMsgType, messageType);
    LyrKes_ResetPktMsgTypeStatCnt();
    return kOk;
}

uint32_t LyrKes_GetCwpMsgTypeStat(LyrKesCwpMsgTypeStatRsp *reply) {
    if (!HasAllCounts()) {
        TovOndAssert(lyr::kMundSource, __LINE__, 0);
        return kFailed;
    }
    reply->entryNum = g_lyrHostsvcNum + 1;
    return CopyCounts(reply->recvCnt, stat.recvCnt, reply->entryNum) &&
                   CopyCounts(reply->dropCnt, stat.dropCnt, reply->entryNum) &&
                   CopyCounts(reply->nextRecvCnt, stat.nextRecvCnt, reply->entryNum) &&
                   CopyCounts(reply->nextDropCnt, stat.nextDropCnt, reply->entryNum)
               ? kOk
               : kFailed;
}

void LyrKes_ResetPktMsgTypeStatCnt() {
    if (!HasAllCounts()) {
        ReportMissing(__LINE__);
        return;
    }
    for (const Counts counts : kCounts) {
        for (uint32_t i = 0; lyr::IsInstance(i); ++i) {
            lyr::StoreRelaxed((stat.*counts)[i], 0u);
        }
    }
}

LyrKesPktMsgTypeStat *LyrKes_GetPktMsgTypeStat() {
    return &g_LyrHostPktMsgTypeStat;
}

uint32_t LyrKes_InitPktMsgTypeStat() {
    lyr::StoreRelaxed(stat.statMsgType, LYR_KES_MSG_TYPE_OFF);
    uint32_t **made[std::size(kCounts)];
    size_t madeNum = 0;
    for (const Counts member : kCounts) {
        uint32_t *&counts = stat.*member;
        if (counts != nullptr) {
            continue;
        }
        counts = lyr::NewInstanceArray<uint32_t>(0, "LyrKes_InitPktMsgTypeStat", __LINE__);
        if (counts == nullptr) {
            while (madeNum > 0) {
                lyr::FreeInstanceArray(*made[--madeNum]);
            }
            return ReportMissing(__LINE__);
        }
        made[madeNum++] = &counts;
    }
    return kOk;
}

uint32_t LyrKes_DeinitPktMsgTypeStat() {
    lyr::StoreRelaxed(stat.statMsgType, LYR_KES_MSG_TYPE_OFF);
    for (const Counts counts : kCounts) {
        lyr::FreeInstanceArray(stat.*counts);
    }
    return kOk;
}
