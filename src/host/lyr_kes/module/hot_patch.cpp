#include "module/hot_patch.h"

#include <cstring>

#include "module/diag_log.h"
#include "module/status.h"

uint32_t liblyr_host_PAT_C2HSyncHookFunc(int32_t operation, void * /*ignored*/,
                                         const HostPatchRecord *patch, uint32_t *handled) {
    if (patch == nullptr || handled == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "[lyrkes]Err: input para is NULL.");
        return lyr::kFailed;
    }
    *handled = 0;
    if (std::strcmp(patch->libraryName, "liblyr_host.so") != 0) {
        return lyr::kOk;
    }
    *handled = 1;
    switch (operation) {
        case HOST_PATCH_ACTIVATE:
            LyrKes_PatchC2hActivefunc();
            return lyr::kOk;
        case HOST_PATCH_DEACTIVATE:
            LyrKes_PatchC2hDeactivefunc();
            return lyr::kOk;
        default:
            return lyr::kFailed;
    }
}

void LyrKes_PatchC2hActivefunc() {
    LYR_KES_DiagLog(LYR_HOST_WARN, "[lyrkes]patch c2h active.");
}

void LyrKes_PatchC2hDeactivefunc() {
    LYR_KES_DiagLog(LYR_HOST_WARN, "[lyrkes]patch c2h deactive.");
}
