// What a fuzzer consists of, and what it checks with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

// Runs one input; ends the program when something does not hold.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

using Bytes = std::vector<uint8_t>;
using ByteSpan = std::span<const uint8_t>;

inline void Require(bool holds, const char *what) {
    if (!holds) [[unlikely]] {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

// Takes an input apart from its front; what is missing is zero.
class Reader {
  public:
    Reader(const uint8_t *data, size_t size) : rest_(data, size) {}

    bool AtEnd() const {
        return rest_.empty();
    }
    template <class Value>
    Value Take() {
        static_assert(std::is_trivially_copyable_v<Value>);
        Value value = {};
        const ByteSpan bytes = TakeBytes(sizeof value);
        if (!bytes.empty()) {
            std::memcpy(&value, bytes.data(), bytes.size());
        }
        return value;
    }
    // As many bytes as there are, at most `count`.
    ByteSpan TakeBytes(size_t count) {
        const ByteSpan bytes = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(bytes.size());
        return bytes;
    }
    ByteSpan Rest() const {
        return rest_;
    }

  private:
    ByteSpan rest_;
};

}  // namespace fuzz
