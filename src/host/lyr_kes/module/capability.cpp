#include "module/capability.h"

#include "kes/capability.h"
#include "module/diag_log.h"

namespace {
constexpr uint32_t kDefaultSvcNum = 27;
}

uint32_t g_lyrHostsvcNum = kDefaultSvcNum;

uint32_t LyrKes_GetCapsetSpec(const char *name, uint32_t defaultValue) {
    if (name == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "spec name is NULL");
        return 0;
    }
    uint32_t value = 0;
    const uint32_t result = TovCapabilityQueryItem(name, &value, sizeof(value));
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Get capset %s failed, ret=%d.", name,
                        static_cast<int>(result));
        return defaultValue;
    }
    return value;
}

uint32_t LyrKes_InitSvcNum() {
    g_lyrHostsvcNum = LyrKes_GetCapsetSpec("WCWP_SPEC_SVC_NUM", kDefaultSvcNum);
    return g_lyrHostsvcNum;
}
