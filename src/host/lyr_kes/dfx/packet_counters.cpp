#include "dfx/packet_counters.h"

#include <bit>
#include <cstring>

#include "channel/packet_handoff.h"
#include "dfx/drop_watch.h"
#include "lb/packet_lookup.h"
#include "module/placement.h"
#include "module/shared_word.h"
#include "module/status.h"

LYR_PACKETS_COUNT LyrKesPktStat g_cwpPktStats[LYR_KES_PKT_STAT_ROW_NUM];

void LyrKes_CwpCtrlPktStatic(const uint32_t *packetClass, uint32_t result) {
    constexpr uint32_t kClasses = (1u << LYR_KES_PKT_STAT_ROW_NUM) - 1;
    for (uint32_t rest = *packetClass & kClasses; rest != 0; rest &= rest - 1) {
        LyrKes_IncreasePktType(static_cast<uint32_t>(std::countr_zero(rest)), result);
    }
}

void LyrKes_IncreasePktType(uint32_t row, uint32_t result) {
    if (row >= LYR_KES_PKT_STAT_ROW_NUM) {
        return;
    }
    LyrKesPktStat &stat = g_cwpPktStats[row];
    lyr::CountOne(stat.rxCnt);
    lyr::CountWatched();
    switch (result) {
        case lyr::kOk:
            lyr::CountOne(stat.sendOkCnt);
            break;
        case lyr::kFailed:
            lyr::CountOne(stat.procFailCnt);
            break;
        case LYR_DIST_SOURCE_MISMATCH:
            lyr::CountOne(stat.procFailCnt);
            lyr::CountOne(stat.srcMismatchCnt);
            break;
        case LYR_DIST_NO_TABLE:
            lyr::CountOne(stat.procFailCnt);
            lyr::CountOne(stat.distFailCnt);
            break;
        case LYR_DIST_BAD_SESSION:
            lyr::CountOne(stat.procFailCnt);
            lyr::CountOne(stat.kaSessionFailCnt);
            break;
        case LYR_NOT_HANDED_OVER:
            lyr::CountOne(stat.sendFailCnt);
            LyrKes_IncreaseMsgDropStat();
            break;
        default:
            break;
    }
}

void LyrKes_GetCtrlPktStatic(void *destination, uint32_t size) {
    if (size < sizeof(g_cwpPktStats)) {
        return;
    }
    for (const LyrKesPktStat &stat : g_cwpPktStats) {
        const LyrKesPktStat row = lyr::LoadWords(stat);
        std::memcpy(destination, &row, sizeof(row));
        destination = static_cast<uint8_t *>(destination) + sizeof(row);
    }
}

void LyrKes_ClearCtrlPktStatic() {
    for (LyrKesPktStat &stat : g_cwpPktStats) {
        lyr::StoreWords(stat, LyrKesPktStat{});
    }
}
