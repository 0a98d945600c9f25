#include "channel/station_service.h"

#include "dfx/debug_trace.h"
#include "lb/dist_hash.h"
#include "module/shared_word.h"
#include "module/status.h"

uint64_t g_lyrKesStaSvcInfo = 0;

void LyrKes_SetStaSvcInfo(uint64_t info) {
    lyr::StoreRelaxed(g_lyrKesStaSvcInfo, info);
}

uint64_t LyrKes_GetStaSvcInfo() {
    return lyr::LoadRelaxed(g_lyrKesStaSvcInfo);
}

void LyrKes_InitStaSvcInfo() {
    LyrKes_SetStaSvcInfo(0);
}

void LyrKes_DeinitStaInfo() {
    LyrKes_SetStaSvcInfo(0);
}

uint32_t LyrKes_GetPidByMac(const uint8_t *mac) {
    constexpr uint32_t kMacLength = 6;

    const uint32_t hash = LyrKes_DjbHashCal(mac, kMacLength);
    const uint64_t info = LyrKes_GetStaSvcInfo();
    const auto startVcpuId = static_cast<uint32_t>(info);
    const auto instSpec = static_cast<uint32_t>(info >> 32);
    if (instSpec == 0) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, false, nullptr,
                         "sta inst spec is illegal, instSpec = %u", instSpec);
        return lyr::kError;
    }
    return hash % instSpec + startVcpuId;
}
