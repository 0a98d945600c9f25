// JSON as programs read it, an object a line.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace control {

// The value without a line break. Bytes that are no UTF-8 are replaced.
inline std::string JsonLine(const nlohmann::ordered_json &value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace control
