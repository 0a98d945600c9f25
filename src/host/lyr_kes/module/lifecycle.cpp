#include "module/lifecycle.h"

#include <iterator>

#include "channel/service_channel.h"
#include "channel/station_service.h"
#include "dfx/diagnostics.h"
#include "dfx/drop_watch.h"
#include "lb/dist_lifecycle.h"
#include "lb/rpc_server.h"
#include "module/capability.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "packet/cwp_source.h"
#include "verify/recon_task.h"
#include "verify/verify_records.h"

namespace {

using lyr::kFailed;
using lyr::kOk;

// A step of the start that can fail, and what undoes it.
struct Step {
    uint32_t (*start)();
    void (*stop)();
    const char *failure;  // null: the step reports its failure itself
};

// The RPC server and the packet hook are the doors: they open last.
constexpr Step kSteps[] = {
    {LyrKes_InitChannelInfo, LyrKes_DeinitChannelInfo, nullptr},
    {LyrKes_InitReconInfo, LyrKes_DeinitReconInfo, nullptr},
    {LyrKes_RavelRpcServerCreate, LyrKes_RavelRpcServerDestroy,
     "init create ravel rpc server failed."},
    {LyrKes_Dist_Init, LyrKes_Dist_Deinit, "init distribution failed."},
};

// State that packets and operations read. The diagnostics can fail, and the module does without.
void PrepareState() {
    LyrKes_InitSvcNum();
    LyrKes_InitCwpSrcInfo();
    LyrKes_InitStaSvcInfo();
    LyrKes_InitCwpStatDfx();
    LyrKes_VerifyRcdListInit();
}

void DiscardState() {
    LyrKes_DeinitCwpStatDfx();
    LyrKes_DeinitStaInfo();
    LyrKes_DeinitCwpSrcInfo();
}

void Unwind(size_t startedSteps) {
    while (startedSteps > 0) {
        kSteps[--startedSteps].stop();
    }
    DiscardState();
    lyr::AdmitOperations();
}

}  // namespace

uint32_t LyrKes_Init() {
    // What is called before the service is open does not meet anything half made.
    lyr::RefuseOperations();
    PrepareState();
    for (size_t i = 0; i < std::size(kSteps); ++i) {
        if (kSteps[i].start() == kOk) {
            continue;
        }
        Unwind(i);
        if (kSteps[i].failure != nullptr) {
            LYR_KES_DiagLog(LYR_HOST_EMER, "%s", kSteps[i].failure);
        }
        return kFailed;
    }
    LYR_KES_DiagLog(LYR_HOST_INFO, "LyrHost module init ok.");
    return kOk;
}

uint32_t LyrKes_Exit() {
    LyrKes_DeinitCwpSrcInfo();
    LyrKes_RavelRpcServerDestroy();
    LyrKes_DeinitReconInfo();
    LyrKes_Dist_Deinit();
    // Without packets no drop opens the watch again.
    lyr::EndDropWatch();
    LyrKes_DeinitChannelInfo();
    LyrKes_DeinitStaInfo();
    LYR_KES_DiagLog(LYR_HOST_INFO, "LyrHost module exit ok.");
    LyrKes_DeinitCwpStatDfx();
    lyr::AdmitOperations();
    return kOk;
}
