// The parts in use.
#pragma once

#include "standin/engine_parts.h"

namespace standin {

EngineParts &Parts();

}  // namespace standin
