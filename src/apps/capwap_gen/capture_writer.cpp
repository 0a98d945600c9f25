#include "capwap_gen/capture_writer.h"

#include <pcap/pcap.h>

#include <cstdio>
#include <stdexcept>

namespace capwap_gen {
namespace {

constexpr int kSnapLength = 65535;
constexpr int64_t kNsPerSecond = 1'000'000'000;

}  // namespace

CaptureWriter::CaptureWriter(const std::string &path, bool nanoseconds)
    : path_(path),
      nanoseconds_(nanoseconds),
      pcap_(pcap_open_dead_with_tstamp_precision(
          DLT_EN10MB, kSnapLength,
          nanoseconds ? PCAP_TSTAMP_PRECISION_NANO : PCAP_TSTAMP_PRECISION_MICRO)),
      dumper_(pcap_ == nullptr ? nullptr : pcap_dump_open(pcap_, path.c_str())) {
    if (dumper_ != nullptr)
        return;
    std::string reason = pcap_ == nullptr ? path + ": out of memory" : pcap_geterr(pcap_);
    if (pcap_ != nullptr)
        pcap_close(pcap_);
    throw std::runtime_error("cannot write " + reason);
}

CaptureWriter::~CaptureWriter() {
    if (dumper_ != nullptr)
        pcap_dump_close(dumper_);
    pcap_close(pcap_);
}

void CaptureWriter::Write(const Frame &frame) {
    pcap_pkthdr header = {};
    header.ts.tv_sec = frame.timeNs / kNsPerSecond;
    header.ts.tv_usec = frame.timeNs % kNsPerSecond / (nanoseconds_ ? 1 : 1000);
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.bytes.size());
    pcap_dump(reinterpret_cast<u_char *>(dumper_), &header, frame.bytes.data());
}

void CaptureWriter::Close() {
    bool failed = pcap_dump_flush(dumper_) != 0 || std::ferror(pcap_dump_file(dumper_)) != 0;
    pcap_dump_close(dumper_);
    dumper_ = nullptr;
    if (failed)
        throw std::runtime_error("cannot write " + path_ + ": the capture is incomplete");
}

}  // namespace capwap_gen
