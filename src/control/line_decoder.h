// The module's lines with their values as people write them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace control {

// A line of the engine or the module with addresses, session ids, message types, times and the like
// in words, each in its place; nothing for a line that has none. The words of the line stay.
//
//   IP not match, ipVer 6, badIp [0x20010db8|20010db8:0:0:1], firstSrcIp [0xa000001|a000001:0:0:0]
//   IP not match, ipVer 6, badIp [2001:db8::1], firstSrcIp [10.0.0.1]
std::optional<std::string> DecodeLine(std::string_view line);

// Stands between a line that has been decoded and the line as it came.
inline constexpr std::string_view kDecodedFrom = "  <- ";

}  // namespace control
