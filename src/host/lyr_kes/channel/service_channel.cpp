#include "channel/service_channel.h"

#include "kes/bounded.h"
#include "kes/channel.h"
#include "kes/diag.h"
#include "module/diag_log.h"
#include "module/instance_array.h"
#include "module/status.h"

uint32_t *g_kes2lyrHostChnMap[LYR_PKT_TYPE_NUM];
TovThreadInfo **g_lyrHostThreadInfoId[LYR_PKT_TYPE_NUM];

namespace {

using lyr::kError;
using lyr::kOk;

constexpr const char *kSource = "src/host/lyr_kes/channel/lyr_kes_channel";

constexpr const char *kTag = "LyrKes_InitChannelInfoByPktType";

uint32_t ReportNoMemory(const char *line, uint32_t sourceLine) {
    LYR_KES_DiagLog(LYR_HOST_ERR, "%s", line);
    TovOndAssert(kSource, sourceLine, 0);
    return kError;
}

}  // namespace

uint32_t LyrKes_InitChannelInfo() {
    for (uint32_t pktType = 0; pktType < LYR_PKT_TYPE_NUM; ++pktType) {
        const uint32_t result = LyrKes_InitChannelInfoByPktType(pktType);
        if (result != kOk) {
            LyrKes_DeinitChannelInfo();
            return result;
        }
    }
    return kOk;
}

uint32_t LyrKes_InitChannelInfoByPktType(uint32_t pktType) {
    if (pktType >= LYR_PKT_TYPE_NUM) {
        return kError;
    }
    uint32_t *&channels = g_kes2lyrHostChnMap[pktType];
    TovThreadInfo **&threads = g_lyrHostThreadInfoId[pktType];
    lyr::StoreRelease(channels,
                      lyr::NewInstanceArray<uint32_t>(TOV_CHANNEL_ID_NONE, kTag, __LINE__));
    if (channels == nullptr) {
        return ReportNoMemory("ChannelMap init TovMemAlloc failed", __LINE__);
    }
    lyr::StoreRelease(threads, lyr::NewInstanceArray<TovThreadInfo *>(nullptr, kTag, __LINE__));
    if (threads == nullptr) {
        lyr::FreeInstanceArray(channels);
        return ReportNoMemory("ThreadInfoId init TovMemAlloc failed", __LINE__);
    }
    return kOk;
}

void LyrKes_DeinitChannelInfo() {
    for (uint32_t pktType = 0; pktType < LYR_PKT_TYPE_NUM; ++pktType) {
        LyrKes_DeinitChannelInfoByPktType(pktType);
    }
}

void LyrKes_DeinitChannelInfoByPktType(uint32_t pktType) {
    if (pktType >= LYR_PKT_TYPE_NUM) {
        return;
    }
    lyr::FreeInstanceArray(g_kes2lyrHostChnMap[pktType]);
    lyr::FreeInstanceArray(g_lyrHostThreadInfoId[pktType]);
}

uint32_t *LyrKes_GetChnMapByPktType(uint32_t pktType) {
    return pktType < LYR_PKT_TYPE_NUM ? g_kes2lyrHostChnMap[pktType] : nullptr;
}

TovThreadInfo **LyrKes_GetThdInfoByPktType(uint32_t pktType) {
    return pktType < LYR_PKT_TYPE_NUM ? g_lyrHostThreadInfoId[pktType] : nullptr;
}

const char *TOV_CHN_KES2LYR(uint32_t pktType) {
    return pktType == LYR_PKT_TYPE_WAPI ? "chn/kes2lyrwapi" : "chn/kes2lyrcwp";
}

const char *TOV_THD_KES2LYR(uint32_t pktType) {
    return pktType == LYR_PKT_TYPE_WAPI ? "thd/kes2lyrwapi" : "thd/kes2lyrcwp";
}

uint32_t LyrKes_ConstructName(char *name, uint32_t size, const char *prefix, uint32_t prefixLength,
                              uint32_t index) {
    constexpr size_t kDigitsSize = 10;

    if (name == nullptr || prefix == nullptr || prefixLength >= size) {
        return kError;
    }
    memset_s(name, size, 0, size);
    const int copied = strcpy_s(name, size, prefix);
    if (copied != 0) {
        return static_cast<uint32_t>(copied);
    }
    char digits[kDigitsSize] = {};
    const int formatted = sprintf_s(digits, sizeof(digits), "%u", index);
    if (formatted < 0) {
        return static_cast<uint32_t>(formatted);
    }
    return static_cast<uint32_t>(strcat_s(name, size, digits));
}
