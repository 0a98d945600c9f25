// Frames, built and in captures.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "capture/reader.h"
#include "capture/writer.h"
#include "capwap/packet_builder.h"

namespace programs {

struct Frame {
    int64_t timeNs = 0;
    uint32_t wireLength = 0;
    capwap::Bytes bytes;

    bool operator==(const Frame &) const = default;
};

// Without the bytes, which would fill the screen.
inline void PrintTo(const Frame &frame, std::ostream *out) {
    *out << frame.bytes.size() << " bytes at " << frame.timeNs;
}

using Frames = std::vector<Frame>;

inline Frames ReadCapture(const std::string &path) {
    Frames frames;
    try {
        capture::Reader reader(path);
        while (const auto frame = reader.Next()) {
            frames.push_back(
                {frame->timeNs, frame->wireLength, {frame->bytes.begin(), frame->bytes.end()}});
        }
    } catch (const capture::Error &error) {
        ADD_FAILURE() << error.what();
    }
    return frames;
}

inline void WriteCapture(const std::string &path, const Frames &frames) {
    capture::Writer writer(path);
    for (const Frame &frame : frames) {
        writer.Write(
            {.bytes = frame.bytes, .timeNs = frame.timeNs, .wireLength = frame.wireLength});
    }
    writer.Close();
}

}  // namespace programs
