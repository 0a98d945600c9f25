// Sound frames to begin with.
#pragma once

#include "fuzz_target.h"

namespace fuzz {

// Frames of every kind that the module knows, in both families, and what lies beside them: built
// ones, generated traffic, and a session of a real access point.
std::vector<Bytes> SeedFrames();

// The inputs that begin with `head` and end with a frame.
std::vector<Bytes> SeedsBehind(const Bytes &head);

}  // namespace fuzz
