// Sound frames to begin with.
#pragma once

#include "fuzz_target.h"

namespace fuzz {

// Frames of every kind that the module knows, in both families, and what lies beside them:
// generated traffic, and a session of a real access point.
std::vector<Bytes> SeedFrames();

}  // namespace fuzz
