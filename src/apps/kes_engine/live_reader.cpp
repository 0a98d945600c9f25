#include "live_reader.h"

#include <pcap/pcap.h>
#include <poll.h>

#include <ratio>

#include "failure.h"

namespace kes_engine {
namespace {

constexpr int kSnapLength = 262144;
constexpr int kBufferBytes = 16 << 20;
// Frames are gathered for so long, which packs them tightly: without, each takes a slot of the
// longest frame's size.
constexpr int kGatherMilliseconds = 10;

// What a failing call says: its text if it has one.
std::string ReasonOf(pcap_t *capture, int status) {
    const std::string text = pcap_geterr(capture);
    return text.empty() ? pcap_statustostr(status) : text;
}

}  // namespace

LiveReader::LiveReader(const std::string &interface) : interface_(interface) {
    const std::string what = "cannot listen on '" + interface + "': ";
    char reason[PCAP_ERRBUF_SIZE] = "";
    capture_ = pcap_create(interface.c_str(), reason);
    if (capture_ == nullptr) {
        throw UsageError(what + reason);
    }
    pcap_set_snaplen(capture_, kSnapLength);
    pcap_set_promisc(capture_, 1);
    pcap_set_timeout(capture_, kGatherMilliseconds);
    pcap_set_buffer_size(capture_, kBufferBytes);
    pcap_set_tstamp_precision(capture_, PCAP_TSTAMP_PRECISION_NANO);
    std::string wrong;
    if (const int status = pcap_activate(capture_); status < 0) {
        wrong = ReasonOf(capture_, status);
    } else if (pcap_datalink(capture_) != DLT_EN10MB) {
        wrong = "its frames are not Ethernet";
    } else if (pcap_setdirection(capture_, PCAP_D_IN) != 0) {
        wrong = pcap_geterr(capture_);
    } else if (pcap_setnonblock(capture_, 1, reason) != 0) {
        wrong = reason;
    }
    if (!wrong.empty()) {
        pcap_close(capture_);
        throw UsageError(what + wrong);
    }
}

LiveReader::~LiveReader() {
    pcap_close(capture_);
}

std::optional<capture::Frame> LiveReader::Next() {
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    const int outcome = pcap_next_ex(capture_, &header, &bytes);
    if (outcome == 0) {
        return std::nullopt;
    }
    if (outcome != 1) {
        throw Failure("'" + interface_ + "' gives no more frames: " + pcap_geterr(capture_));
    }
    const bool nanoseconds = pcap_get_tstamp_precision(capture_) == PCAP_TSTAMP_PRECISION_NANO;
    return capture::Frame{.bytes = {bytes, header->caplen},
                          .timeNs = header->ts.tv_sec * std::nano::den +
                                    header->ts.tv_usec * (nanoseconds ? 1 : 1000),
                          .wireLength = header->len,
                          .number = ++frames_};
}

void LiveReader::Wait(std::chrono::milliseconds time) {
    pollfd descriptor = {.fd = pcap_get_selectable_fd(capture_), .events = POLLIN, .revents = 0};
    poll(&descriptor, 1, static_cast<int>(time.count()));
}

uint64_t LiveReader::Lost() const {
    pcap_stat statistics = {};
    return pcap_stats(capture_, &statistics) == 0 ? statistics.ps_drop : 0;
}

}  // namespace kes_engine
