// What others have written, for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace control {

// Bytes that would control a terminal are a '?' each, but for those that are kept.
std::string Printable(std::string_view text, std::string_view kept = "");

}  // namespace control
