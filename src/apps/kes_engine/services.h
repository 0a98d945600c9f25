// What an engine offers to the world besides packets: the control socket, and metrics.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "control_service.h"
#include "local_view.h"
#include "metrics_service.h"
#include "state.h"

namespace kes_engine {

class Services {
  public:
    // Listens where metrics are to be served; nowhere, for an empty place. Throws as MetricsSocket.
    // Clients may be members of the group, too.
    explicit Services(const std::string &metricsPlace, std::optional<gid_t> group);

    // Begins to serve, clients on a socket if there is a path, and says where on standard error.
    // Module and log outlive it, and the module is started until End(). `stateNow` is called from
    // several threads. Clients may exchange the module where there is an `exchange`, which outlives
    // this. Throws std::runtime_error.
    void Begin(const std::string &controlPath, const standin::Module &module,
               const std::function<State()> &stateNow, LineLog &log,
               ModuleExchange *exchange = nullptr);
    void End();

  private:
    const std::optional<gid_t> group_;
    std::optional<MetricsSocket> metricsSocket_;
    std::optional<ControlService> control_;
    std::optional<LocalView> view_;
    std::optional<MetricsService> metrics_;
};

}  // namespace kes_engine
