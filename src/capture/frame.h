// A frame as captures keep it.
#pragma once

#include <cstdint>
#include <span>

namespace capture {

struct Frame {
    std::span<const uint8_t> bytes;
    int64_t timeNs = 0;       // since the epoch
    uint32_t wireLength = 0;  // bytes on the wire
    uint64_t number = 0;      // from 1

    // Whether the capture kept less than there was on the wire.
    bool IsCutShort() const {
        return bytes.size() < wireLength;
    }
};

}  // namespace capture
