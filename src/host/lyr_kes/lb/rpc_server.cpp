#include "lb/rpc_server.h"

#include "kes/bounded.h"
#include "kes/diag.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "mund/operations.h"
#include "mund/rpc.h"

uint32_t LyrKes_RavelRpcServerCreate() {
    LyrKesRpcServerRegInfo info = {};
    if (strcpy_s(info.serviceName, sizeof(info.serviceName), MUND_SERVICE_NAME) != 0) {
        return lyr::kFailed;
    }
    info.serviceNumber = MUND_SERVICE_NUMBER;
    const uint32_t result = RegRavelRpcServerToKes(&info);
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "create ravel rpc server failed, ret:%u.", result);
        TovOndAssert(lyr::kMundSource, __LINE__, 0);
        return lyr::kFailed;
    }
    return lyr::kOk;
}

void LyrKes_RavelRpcServerDestroy() {
    const uint32_t result = RavelRpcServerUnReg(MUND_SERVICE_NAME);
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "destroy ravel rpc server failed, ret:%d.",
                        static_cast<int>(result));
    }
}

uint32_t LyrHost_GetMundModuleId() {
    return g_uiMundModuleId;
}
