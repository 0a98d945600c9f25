#include "live_reader.h"

#include <pcap/pcap.h>
#include <poll.h>

#include <algorithm>
#include <iterator>
#include <ratio>

#include "capture/frame_filter.h"
#include "capture/link_layer.h"
#include "failure.h"

namespace kes_engine {
namespace {

constexpr int kSnapLength = 262144;
// Frames are gathered for so long, which packs them tightly: without, each takes a slot of the
// longest frame's size.
constexpr int kGatherMilliseconds = 10;
// Frames of one interface before another has its turn.
constexpr uint32_t kFramesInTurn = 64;

// What a failing call says: its text if it has one.
std::string ReasonOf(pcap_t *capture, int status) {
    const std::string text = pcap_geterr(capture);
    return text.empty() ? pcap_statustostr(status) : text;
}

// Has the kernel pass over what does not match.
void SetFilter(pcap_t *capture, const std::string &expression) {
    constexpr int kOptimize = 1;
    bpf_program program = {};
    int status =
        pcap_compile(capture, &program, expression.c_str(), kOptimize, PCAP_NETMASK_UNKNOWN);
    if (status == 0) {
        status = pcap_setfilter(capture, &program);
        pcap_freecode(&program);
    }
    if (status != 0) {
        throw UsageError(capture::FrameFilter::Complaint(expression, ReasonOf(capture, status)));
    }
}

}  // namespace

LiveReader::LiveReader(const std::string &interface, const ListenOptions &options)
    : interface_(interface) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    capture_ = pcap_create(interface.c_str(), reason);
    if (capture_ == nullptr) {
        throw UsageError("cannot listen on '" + interface + "': " + reason);
    }
    try {
        Open(options);
    } catch (...) {
        pcap_close(capture_);
        throw;
    }
}

void LiveReader::Open(const ListenOptions &options) {
    const std::string what = "cannot listen on '" + interface_ + "': ";
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap_set_snaplen(capture_, kSnapLength);
    pcap_set_promisc(capture_, options.promiscuous ? 1 : 0);
    pcap_set_timeout(capture_, kGatherMilliseconds);
    pcap_set_buffer_size(capture_, static_cast<int>(options.bufferBytes));
    pcap_set_tstamp_precision(capture_, PCAP_TSTAMP_PRECISION_NANO);
    if (const int status = pcap_activate(capture_); status < 0) {
        throw UsageError(what + ReasonOf(capture_, status));
    }
    linkType_ = pcap_datalink(capture_);
    try {
        capture::RequireEthernetForm(linkType_);
    } catch (const capture::Error &error) {
        throw UsageError(what + error.what());
    }
    if (!options.filter.empty()) {
        SetFilter(capture_, options.filter);
    }
    if (pcap_setdirection(capture_, PCAP_D_IN) != 0) {
        throw UsageError(what + pcap_geterr(capture_));
    }
    if (pcap_setnonblock(capture_, 1, reason) != 0) {
        throw UsageError(what + reason);
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
    ++frames_;
    const capture::Frame frame = {.bytes = {bytes, header->caplen},
                                  .timeNs = header->ts.tv_sec * std::nano::den +
                                            header->ts.tv_usec * (nanoseconds ? 1 : 1000),
                                  .wireLength = header->len};
    return linkType_ == DLT_EN10MB ? frame : capture::AsEthernet(frame, linkType_, room_);
}

int LiveReader::Descriptor() const {
    return pcap_get_selectable_fd(capture_);
}

InterfaceCounts LiveReader::Counts() const {
    pcap_stat statistics = {};
    pcap_stats(capture_, &statistics);
    return {.interface = interface_,
            .frames = frames_,
            .dropped = statistics.ps_drop,
            .droppedByInterface = statistics.ps_ifdrop};
}

capture::Tally LiveReader::Done() const {
    capture::Tally tally;
    if (linkType_ != DLT_EN10MB && frames_ > 0) {
        tally.converted[capture::LinkTypeName(linkType_)] = frames_;
    }
    return tally;
}

LiveReaders::LiveReaders(const std::vector<std::string> &interfaces, const ListenOptions &options) {
    for (const std::string &interface : interfaces) {
        if (std::ranges::count(interfaces, interface) > 1) {
            throw UsageError("--listen '" + interface + "' is given twice");
        }
        readers_.push_back(std::make_unique<LiveReader>(interface, options));
        left_.push_back(readers_.back().get());
    }
}

std::optional<capture::Frame> LiveReaders::Next() {
    for (size_t without = 0; without < left_.size();) {
        turn_ %= left_.size();
        try {
            std::optional<capture::Frame> frame = left_[turn_]->Next();
            if (frame) {
                frame->number = ++frames_;
                if (++inTurn_ == kFramesInTurn) {
                    ++turn_;
                    inTurn_ = 0;
                }
                return frame;
            }
        } catch (const Failure &failure) {
            failures_.emplace_back(failure.what());
            left_.erase(std::next(left_.begin(), static_cast<ptrdiff_t>(turn_)));
            continue;
        }
        ++turn_;
        inTurn_ = 0;
        ++without;
    }
    return std::nullopt;
}

void LiveReaders::Wait(std::chrono::milliseconds time) const {
    std::vector<pollfd> descriptors;
    std::ranges::transform(left_, std::back_inserter(descriptors), [](const LiveReader *reader) {
        return pollfd{.fd = reader->Descriptor(), .events = POLLIN, .revents = 0};
    });
    poll(descriptors.data(), descriptors.size(), static_cast<int>(time.count()));
}

std::vector<InterfaceCounts> LiveReaders::Counts() const {
    std::vector<InterfaceCounts> counts;
    std::ranges::transform(readers_, std::back_inserter(counts),
                           [](const auto &reader) { return reader->Counts(); });
    return counts;
}

capture::Tally LiveReaders::Done() const {
    capture::Tally tally;
    for (const auto &reader : readers_) {
        tally += reader->Done();
    }
    return tally;
}

}  // namespace kes_engine
