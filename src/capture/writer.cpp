#include "capture/writer.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ratio>
#include <system_error>
#include <utility>

namespace capture {
namespace {

constexpr int kSnapLength = 262144;

[[noreturn]] void Fail(const std::string &name) {
    throw Error("cannot write " + name + ": " + std::generic_category().message(errno));
}

}  // namespace

Writer::Writer(const std::string &path, Times times)
    : name_(path == kStandardStream ? "the standard output" : "'" + path + "'"), times_(times) {
    FILE *file = path == kStandardStream ? stdout : std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        Fail(name_);
    }
    pcap_t *shape = pcap_open_dead_with_tstamp_precision(
        DLT_EN10MB, kSnapLength,
        times_ == Times::kNanoseconds ? PCAP_TSTAMP_PRECISION_NANO : PCAP_TSTAMP_PRECISION_MICRO);
    file_ = pcap_dump_fopen(shape, file);
    if (file_ == nullptr) {
        const std::string reason = pcap_geterr(shape);
        pcap_close(shape);
        std::fclose(file);
        throw Error("cannot write " + name_ + ": " + reason);
    }
    pcap_close(shape);
}

Writer::~Writer() {
    if (file_ != nullptr) {
        pcap_dump_close(file_);
    }
}

void Writer::Write(const Frame &frame) {
    pcap_pkthdr header = {};
    header.ts.tv_sec = frame.timeNs / std::nano::den;
    header.ts.tv_usec = frame.timeNs % std::nano::den / (times_ == Times::kNanoseconds ? 1 : 1000);
    header.caplen = static_cast<bpf_u_int32>(frame.bytes.size());
    header.len = frame.wireLength;
    pcap_dump(reinterpret_cast<u_char *>(file_), &header, frame.bytes.data());
    if (std::ferror(pcap_dump_file(file_)) != 0) {
        Fail(name_);
    }
}

void Writer::Close() {
    const bool failed = pcap_dump_flush(file_) != 0 || std::ferror(pcap_dump_file(file_)) != 0;
    const int reason = errno;
    pcap_dump_close(std::exchange(file_, nullptr));
    if (failed) {
        errno = reason;
        Fail(name_);
    }
}

}  // namespace capture
