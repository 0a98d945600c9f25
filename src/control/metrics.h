// All counters, for a monitoring system.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "control/engine_view.h"

namespace control {

// {"metrics": [{"name", "type", "help", "samples": [{"labels": {...}, "value"}]}]}. Throws what the
// engine throws, and Refused for what is not understood.
nlohmann::ordered_json ReadMetrics(EngineView &engine);

// The same in the text exposition format of Prometheus, without the last line's end.
std::string RenderMetrics(const nlohmann::ordered_json &reply);

}  // namespace control
