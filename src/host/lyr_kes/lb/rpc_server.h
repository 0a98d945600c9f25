// The module's RPC service.
#pragma once

#include <cstdint>

#include "module/export.h"

// Opens the service: operations may arrive before this returns. Returns 0 or 1.
LYR_API uint32_t LyrKes_RavelRpcServerCreate();

// Closes the service; no operation is running any more when this returns.
LYR_API void LyrKes_RavelRpcServerDestroy();

// The module id that message memory is accounted to.
LYR_API uint32_t LyrHost_GetMundModuleId();

namespace lyr {

// Where the service's broken invariants are reported from.
constexpr const char *kMundSource = "src/host/lyr_kes/lb/lyr_kes_mund";

}  // namespace lyr
