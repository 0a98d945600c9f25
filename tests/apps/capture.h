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

// A datagram of either family.
inline capwap::FrameSpec Udp(std::string_view source, uint16_t sourcePort,
                             std::string_view destination, uint16_t port, capwap::Bytes payload) {
    capwap::FrameSpec spec = {
        .srcPort = sourcePort, .dstPort = port, .payload = std::move(payload)};
    spec.ipv6 = source.find(':') != source.npos;
    if (spec.ipv6) {
        spec.srcIp6 = capwap::Ipv6(source);
        spec.dstIp6 = capwap::Ipv6(destination);
    } else {
        spec.srcIp = capwap::Ipv4(source);
        spec.dstIp = capwap::Ipv4(destination);
    }
    return spec;
}

}  // namespace programs
