#include "lb/dist_lifecycle.h"

#include "kes/hook.h"
#include "lb/dist_table.h"
#include "module/diag_log.h"
#include "module/hook_registration.h"
#include "module/status.h"
#include "packet/capwap_header.h"
#include "packet/packet_entry.h"

uint32_t LyrKes_Dist_Init() {
    if (LyrKes_Dist_CreateHashTable() != lyr::kOk) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "create hash table failed.");
        return lyr::kFailed;
    }
    if (lyr::RegisterHook(HOST_HOOK_HOST_RX, LyrKes_PktProc,
                          "register kes hook failed, ret=%lx.") != 0) {
        lyr::ReleaseTables();
        return lyr::kFailed;
    }
    HostAcGetWlanIdRegFunc(LyrKes_GetVadoAcTunnelWlanId);
    return lyr::kOk;
}

void LyrKes_Dist_Deinit() {
    lyr::UnregisterHook(HOST_HOOK_HOST_RX, LyrKes_PktProc);
    lyr::ReleaseTables();
}
