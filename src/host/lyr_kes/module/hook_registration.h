// Registration of the module's packet hooks, all of one priority and under the module's name.
#pragma once

#include <cstdint>

#include "kes/hook.h"
#include "module/diag_log.h"

namespace lyr {

constexpr uint32_t kHookPriority = 100;

// 0 when the hook is registered; otherwise the engine's error, logged in the words of `failure`,
// which prints it as "%lx".
inline uint64_t RegisterHook(uint32_t point, HostHookFunc hook, const char *failure) {
    const uint64_t result = HostHookRegister(point, kHookPriority, hook, "LyrHost");
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, failure, result);
    }
    return result;
}

// No thread is inside the hook when this returns; an error of the engine is logged.
inline void UnregisterHook(uint32_t point, HostHookFunc hook) {
    const uint64_t result = HostHookUnregister(point, hook);
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "unregister kes hook failed, ret=%lx.", result);
    }
}

}  // namespace lyr
