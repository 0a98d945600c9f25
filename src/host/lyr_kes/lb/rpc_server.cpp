#include "lb/rpc_server.h"

#include <atomic>

#include "kes/bounded.h"
#include "kes/diag.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "module/wait_until.h"
#include "mund/operations.h"
#include "mund/rpc.h"

namespace {

// Operations that run, in one word with whether more of them are refused: an operation either sees
// the refusal or is waited for.
constexpr uint32_t kRefused = 0x80000000;
std::atomic<uint32_t> running{0};

}  // namespace

lyr::RunningOperation::RunningOperation()
    : admitted_((running.fetch_add(1, std::memory_order_acquire) & kRefused) == 0) {}

lyr::RunningOperation::~RunningOperation() {
    running.fetch_sub(1, std::memory_order_release);
}

void lyr::RefuseOperations() {
    running.fetch_or(kRefused, std::memory_order_relaxed);
    WaitUntil([] { return running.load(std::memory_order_acquire) == kRefused; });
}

void lyr::AdmitOperations() {
    running.fetch_and(~kRefused, std::memory_order_release);
}

uint32_t LyrKes_RavelRpcServerCreate() {
    LyrKesRpcServerRegInfo info = {};
    if (strcpy_s(info.serviceName, sizeof(info.serviceName), MUND_SERVICE_NAME) != 0) {
        return lyr::kFailed;
    }
    info.serviceNumber = MUND_SERVICE_NUMBER;
    lyr::AdmitOperations();
    const uint32_t result = RegRavelRpcServerToKes(&info);
    if (result != 0) {
        lyr::RefuseOperations();
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
    lyr::RefuseOperations();
}

uint32_t LyrHost_GetMundModuleId() {
    return g_uiMundModuleId;
}
