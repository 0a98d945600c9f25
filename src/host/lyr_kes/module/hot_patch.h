// The engine's hot-patch facility announces every patch that goes in or out.
#pragma once

#include <cstdint>

#include "kes/patch.h"
#include "module/export.h"

// Takes note of a patch (HOST_PATCH_*) that targets this library; `handled` becomes 1 for one that
// does, 0 for another's. Returns 0, or 1 for a null argument or an unknown operation.
LYR_API uint32_t liblyr_host_PAT_C2HSyncHookFunc(int32_t operation, void *ignored,
                                                 const HostPatchRecord *patch, uint32_t *handled);

// What happens when a patch of this library goes in, and out.
LYR_API void LyrKes_PatchC2hActivefunc();
LYR_API void LyrKes_PatchC2hDeactivefunc();
