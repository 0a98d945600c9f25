// Records laid out for people.
#pragma once

#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

namespace control {

// A line of headings and one of values for each record, in columns as wide as their widest cell
// and two spaces apart. Every record has a value for each heading, in their order; null shows as
// "-".
std::string RecordTable(std::span<const std::string_view> headings,
                        const nlohmann::ordered_json &records);

}  // namespace control
