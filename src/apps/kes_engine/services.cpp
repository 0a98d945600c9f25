#include "services.h"

#include <iostream>

#include "control/metrics.h"

namespace kes_engine {

Services::Services(const std::string &metricsPlace, std::optional<gid_t> group) : group_(group) {
    if (!metricsPlace.empty()) {
        metricsSocket_.emplace(metricsPlace);
    }
}

void Services::Begin(const std::string &controlPath, const standin::Module &module,
                     const std::function<State()> &stateNow, LineLog &log,
                     ModuleExchange *exchange) {
    if (!controlPath.empty()) {
        control_.emplace(controlPath, module, stateNow, log, group_, exchange);
        std::cerr << "serving clients on " << controlPath << '\n';
    }
    if (metricsSocket_) {
        view_.emplace(exchange == nullptr ? HandlersOf(module, stateNow)
                                          : HandlersOf(module, stateNow, *exchange));
        metrics_.emplace(*metricsSocket_, [this] {
            return control::RenderMetrics(control::ReadMetrics(*view_)) + "\n";
        });
        std::cerr << "serving metrics on http://" << metricsSocket_->Place() << "/metrics\n";
    }
}

void Services::End() {
    metrics_.reset();
    control_.reset();
}

}  // namespace kes_engine
