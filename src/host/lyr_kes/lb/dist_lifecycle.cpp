#include "lb/dist_lifecycle.h"

#include "kes/hook.h"
#include "lb/dist_table.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "packet/capwap_header.h"
#include "packet/packet_entry.h"

namespace {
constexpr uint32_t kHookPriority = 100;
}

uint32_t LyrKes_Dist_Init() {
    if (LyrKes_Dist_CreateHashTable() != lyr::kOk) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "create hash table failed.");
        return lyr::kFailed;
    }
    const uint64_t result =
        HostHookRegister(HOST_HOOK_HOST_RX, kHookPriority, LyrKes_PktProc, "LyrHost");
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "register kes hook failed, ret=%lx.", result);
        lyr::ReleaseTables();
        return lyr::kFailed;
    }
    HostAcGetWlanIdRegFunc(LyrKes_GetVadoAcTunnelWlanId);
    return lyr::kOk;
}

void LyrKes_Dist_Deinit() {
    const uint64_t result = HostHookUnregister(HOST_HOOK_HOST_RX, LyrKes_PktProc);
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "unregister kes hook failed, ret=%lx.", result);
    }
    lyr::ReleaseTables();
}
