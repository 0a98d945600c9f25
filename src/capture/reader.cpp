#include "capture/reader.h"

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ratio>
#include <system_error>
#include <utility>

#include "capture/byte_source.h"
#include "capture/frame_filter.h"
#include "capture/link_layer.h"
#include "capture/pcap_frames.h"
#include "capture/pcapng_frames.h"

namespace capture {
namespace {

std::string NameOf(const std::string &path) {
    return path == kStandardStream ? "the standard input" : "'" + path + "'";
}

// With the precision asked for, the microseconds' field counts nanoseconds.
int64_t NanosecondsOf(const timeval &time) {
    constexpr int64_t kLastSecond = INT64_MAX / std::nano::den - UINT32_MAX / std::milli::den;
    return std::clamp<int64_t>(time.tv_sec, 0, kLastSecond) * std::nano::den + time.tv_usec;
}

}  // namespace

bool CanBeReadOnlyOnce(const std::string &path) {
    struct stat status;
    return path == kStandardStream ||
           (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
}

Tally &Tally::operator+=(const Tally &other) {
    passedOver += other.passedOver;
    for (const auto &[linkType, frames] : other.converted) {
        converted[linkType] += frames;
    }
    return *this;
}

Reader::Reader(const std::string &path, Selection selection)
    : name_(NameOf(path)),
      selection_(std::move(selection)),
      source_(std::make_unique<ByteSource>(path)) {
    if (!source_->IsOpen()) {
        throw Error("cannot read " + name_ + ": " + std::generic_category().message(errno));
    }
    source_->UnpackIfPacked();
    PcapngFrames::Begins(*source_) ? OpenPcapng() : OpenPcap();
    takesAll_ = links_.front().type == DLT_EN10MB && selection_.filter.empty() &&
                selection_.frames.AreAll();
}

Reader::~Reader() {
    if (capture_ != nullptr) {
        pcap_close(capture_);
    }
}

void Reader::OpenPcapng() {
    try {
        pcapng_ = std::make_unique<PcapngFrames>(*source_);
        RequireEthernetForm(pcapng_->FrameInterface().linkType);
    } catch (const Error &error) {
        throw Error("cannot read " + name_ + ": " + error.what());
    }
    LinkOf(pcapng_->FrameInterface().linkType);
}

void Reader::OpenPcap() {
    const std::string what = "cannot read " + name_ + ": ";
    plain_ = std::make_unique<PcapFrames>(*source_);
    FILE *file = source_->Stream();
    if (file == nullptr) {
        throw Error(what + std::generic_category().message(errno));
    }
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap *capture =
        pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, reason);
    if (capture == nullptr) {
        std::fclose(file);
        const std::string failure = source_->Failure();
        throw Error(what + (failure.empty() ? reason : failure));
    }
    const int linkType = pcap_datalink(capture);
    plain_->LimitTo(pcap_snapshot(capture));
    try {
        RequireEthernetForm(linkType);
        LinkOf(linkType);
    } catch (const Error &error) {
        pcap_close(capture);
        throw Error(HasEthernetForm(linkType) ? error.what() : what + error.what());
    }
    capture_ = capture;
}

Reader::Link &Reader::LinkOf(int type) {
    const auto known = std::ranges::find(links_, type, &Link::type);
    link_ = static_cast<size_t>(known - links_.begin());
    if (known == links_.end()) {
        links_.push_back({.type = type,
                          .filter = selection_.filter.empty()
                                        ? nullptr
                                        : std::make_unique<FrameFilter>(selection_.filter, type)});
    }
    return links_[link_];
}

void Reader::WhileWaiting(std::function<bool()> goOn) {
    source_->WhileWaiting(std::move(goOn));
}

std::optional<Frame> Reader::Next() {
    if (takesAll_ && plain_) {
        if (std::optional<Frame> frame = plain_->Next()) {
            frame->number = ++frames_;
            return frame;
        }
    }
    return takesAll_ && !pcapng_ ? NextByLibpcap() : NextWanted();
}

std::optional<Frame> Reader::NextWanted() {
    while (frames_ < selection_.frames.Last()) {
        std::optional<Frame> frame = NextOfAny();
        if (!frame) {
            RequireWantedNumber();
            return std::nullopt;
        }
        if (!selection_.frames.Contain(frame->number)) {
            ++passedOver_;
            continue;
        }
        const int type = TypeOf(*frame);
        Link &link = LinkOf(type);
        if (link.filter && !link.filter->Matches(*frame)) {
            ++passedOver_;
            continue;
        }
        if (type == DLT_EN10MB) {
            return frame;
        }
        ++link.converted;
        return AsEthernet(*frame, type, room_);
    }
    return std::nullopt;
}

void Reader::RequireWantedNumber() const {
    if (frames_ < selection_.frames.First() && !selection_.frames.AreAll() &&
        !source_->WasEnded()) {
        throw Error(selection_.frames.Text() + ": " + name_ + " has " + std::to_string(frames_) +
                    " frames");
    }
}

int Reader::TypeOf(const Frame &frame) const {
    if (!pcapng_) {
        return links_.front().type;
    }
    const PcapngFrames::Interface &interface = pcapng_->FrameInterface();
    if (!HasEthernetForm(interface.linkType)) {
        throw Error(name_ + ": frame " + std::to_string(frame.number) + " is of interface " +
                    std::to_string(pcapng_->FrameInterfaceNumber()) +
                    (interface.name.empty() ? "" : " '" + interface.name + "'") +
                    ", whose frames are not Ethernet but " + LinkTypeName(interface.linkType));
    }
    return interface.linkType;
}

std::optional<Frame> Reader::NextOfAny() {
    std::optional<Frame> frame;
    if (pcapng_) {
        try {
            frame = pcapng_->Next();
        } catch (const Error &error) {
            if (!source_->WasEnded()) {
                BreakOff(error.what());
            }
        }
    } else {
        frame = plain_->Next();
        if (!frame) {
            return NextByLibpcap();
        }
    }
    if (frame) {
        frame->number = ++frames_;
    }
    return frame;
}

std::optional<Frame> Reader::NextByLibpcap() {
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    const int outcome = pcap_next_ex(capture_, &header, &bytes);
    if (outcome == PCAP_ERROR_BREAK || source_->WasEnded()) {
        return std::nullopt;
    }
    if (outcome != 1) {
        const std::string failure = source_->Failure();
        BreakOff(failure.empty() ? pcap_geterr(capture_) : failure);
    }
    return Frame{.bytes = {bytes, header->caplen},
                 .timeNs = NanosecondsOf(header->ts),
                 .wireLength = header->len,
                 .number = ++frames_};
}

void Reader::BreakOff(const std::string &reason) const {
    throw Error(name_ + " breaks off after frame " + std::to_string(frames_) + ": " + reason);
}

std::optional<double> Reader::Share() const {
    return source_->Share();
}

Tally Reader::Done() const {
    Tally tally = {.passedOver = passedOver_, .converted = {}};
    for (const Link &link : links_) {
        if (link.converted > 0) {
            tally.converted[LinkTypeName(link.type)] = link.converted;
        }
    }
    return tally;
}

}  // namespace capture
