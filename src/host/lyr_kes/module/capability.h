// Numbers that the platform configures for the module.
#pragma once

#include <cstdint>

#include "module/export.h"

// Service instances of the management service are numbered from 0 to this number inclusive.
// Set once during start, before any packet or operation can read it.
LYR_API uint32_t g_lyrHostsvcNum;

// The value of a capability; the default, with an error line, when the engine has none of that
// name. A null name gives 0.
LYR_API uint32_t LyrKes_GetCapsetSpec(const char *name, uint32_t defaultValue);

// Reads the number of service instances into g_lyrHostsvcNum and returns it.
LYR_API uint32_t LyrKes_InitSvcNum();

namespace lyr {

// Whether there is a service instance of this number. The largest count wraps to no instances.
inline bool IsInstance(uint32_t nodeId) {
    return nodeId < g_lyrHostsvcNum + 1;
}

}  // namespace lyr
