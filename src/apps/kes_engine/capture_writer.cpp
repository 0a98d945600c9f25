#include "capture_writer.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cstring>
#include <ratio>

#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

constexpr int kSnapLength = 262144;

pcap_pkthdr HeaderOf(const standin::Arrival &arrival, size_t length) {
    pcap_pkthdr header = {};
    header.ts.tv_sec = arrival.timeNs / std::nano::den;
    header.ts.tv_usec = arrival.timeNs % std::nano::den;
    header.caplen = static_cast<bpf_u_int32>(length);
    header.len = arrival.wireLength;
    return header;
}

}  // namespace

void CaptureWriter::Write(const HostMbuf *packet) {
    const std::lock_guard lock(mutex_);
    if (path_.empty() || !failure_.empty()) {
        return;
    }
    if (file_ == nullptr) {
        Open();
    }
    if (file_ == nullptr) {
        return;
    }
    const std::span<const uint8_t> frame = standin::FrameAsReceived(packet);
    const pcap_pkthdr header = HeaderOf(standin::MetaOf(packet).arrival, frame.size());
    pcap_dump(reinterpret_cast<u_char *>(file_), &header, frame.data());
    if (std::ferror(pcap_dump_file(file_)) != 0) {
        Fail(std::strerror(errno));
    }
}

std::string CaptureWriter::Close() {
    const std::lock_guard lock(mutex_);
    if (file_ != nullptr) {
        if (pcap_dump_flush(file_) != 0) {
            Fail(std::strerror(errno));
        }
        pcap_dump_close(file_);
        file_ = nullptr;
    }
    return failure_;
}

void CaptureWriter::Open() {
    pcap_t *shape =
        pcap_open_dead_with_tstamp_precision(DLT_EN10MB, kSnapLength, PCAP_TSTAMP_PRECISION_NANO);
    file_ = pcap_dump_open(shape, path_.c_str());
    if (file_ == nullptr) {
        failure_ = std::string("cannot write ") + pcap_geterr(shape);
    }
    pcap_close(shape);
}

void CaptureWriter::Fail(const std::string &reason) {
    if (failure_.empty()) {
        failure_ = "cannot write " + path_ + ": " + reason;
    }
}

}  // namespace kes_engine
