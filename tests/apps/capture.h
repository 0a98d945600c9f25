// Frames, built and in captures.
#pragma once

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <string>
#include <string_view>
#include <vector>

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
    char error[PCAP_ERRBUF_SIZE];
    pcap_t *capture =
        pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, error);
    Frames frames;
    if (capture == nullptr) {
        ADD_FAILURE() << error;
        return frames;
    }
    pcap_pkthdr *header;
    const u_char *bytes;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
        frames.push_back({header->ts.tv_sec * 1'000'000'000 + header->ts.tv_usec, header->len,
                          capwap::Bytes(bytes, bytes + header->caplen)});
    }
    pcap_close(capture);
    return frames;
}

inline void WriteCapture(const std::string &path, const Frames &frames, int link = DLT_EN10MB) {
    pcap_t *shape = pcap_open_dead_with_tstamp_precision(link, 262144, PCAP_TSTAMP_PRECISION_NANO);
    pcap_dumper_t *file = pcap_dump_open(shape, path.c_str());
    ASSERT_NE(file, nullptr) << pcap_geterr(shape);
    for (const Frame &frame : frames) {
        pcap_pkthdr header = {};
        header.ts.tv_sec = frame.timeNs / 1'000'000'000;
        header.ts.tv_usec = frame.timeNs % 1'000'000'000;
        header.caplen = static_cast<bpf_u_int32>(frame.bytes.size());
        header.len = frame.wireLength;
        pcap_dump(reinterpret_cast<u_char *>(file), &header, frame.bytes.data());
    }
    pcap_dump_close(file);
    pcap_close(shape);
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
