// What a fuzzer consists of, and what it checks with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

// Runs one input; ends the program when something does not hold.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

using Bytes = std::vector<uint8_t>;

// The fuzzer's input that stands for a sound frame.
Bytes SeedInput(const Bytes &frame);

// Sound frames of every kind that the module knows, in both families, and what lies beside them.
std::vector<Bytes> SeedFrames();

inline void Require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

}  // namespace fuzz
