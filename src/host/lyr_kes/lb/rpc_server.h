// The module's RPC service.
#pragma once

#include <cstdint>

#include "module/export.h"

// Opens the service: operations may arrive before this returns. Returns 0 or 1.
LYR_API uint32_t LyrKes_RavelRpcServerCreate();

// Closes the service. No operation is running any more when this returns, and one that still comes
// is refused.
LYR_API void LyrKes_RavelRpcServerDestroy();

// The module id that message memory is accounted to.
LYR_API uint32_t LyrHost_GetMundModuleId();

namespace lyr {

// An operation, for as long as it runs.
class RunningOperation {
  public:
    RunningOperation();
    ~RunningOperation();
    RunningOperation(const RunningOperation &) = delete;
    RunningOperation &operator=(const RunningOperation &) = delete;

    // False while operations are refused: what they use is being made or released.
    bool Admitted() const {
        return admitted_;
    }

  private:
    const bool admitted_;
};

// Refuses operations from now on, and waits for those that run.
void RefuseOperations();
void AdmitOperations();

// Where the service's broken invariants are reported from.
constexpr const char *kMundSource = "src/host/lyr_kes/lb/lyr_kes_mund";

}  // namespace lyr
