#pragma once

#include <string_view>

#include "standin/runtime.h"

namespace standin {

// Gives a line to the sink, if there is one.
void EmitLine(LineKind kind, std::string_view line);

}  // namespace standin
