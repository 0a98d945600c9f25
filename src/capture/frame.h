// A frame as captures keep it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

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
    size_t MissingBytes() const {
        return IsCutShort() ? wireLength - bytes.size() : 0;
    }
    // "frame 3", or "frame 3, cut short by the capture: 64 of 128 bytes".
    std::string ToText() const {
        return "frame " + std::to_string(number) +
               (IsCutShort() ? ", cut short by the capture: " + std::to_string(bytes.size()) +
                                   " of " + std::to_string(wireLength) + " bytes"
                             : "");
    }
};

}  // namespace capture
