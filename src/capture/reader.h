// Reads captures: pcap and pcapng, plain or packed with gzip, of Ethernet and of what can be given
// its form.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/error.h"
#include "capture/frame.h"
#include "capture/frame_ranges.h"

struct pcap;

namespace capture {

class ByteSource;
class FrameFilter;
class PcapFrames;
class PcapngFrames;

// Whether a capture comes through a pipe or the like, which gives its bytes once. A file that is
// not there does not.
bool CanBeReadOnlyOnce(const std::string &path);

// Which frames of a capture are wanted.
struct Selection {
    std::string filter;  // in libpcap's language; empty: all
    FrameRanges frames;  // as the capture counts them
};

// What has been done to frames besides reading them.
struct Tally {
    uint64_t passedOver = 0;                    // read, and not wanted
    std::map<std::string, uint64_t> converted;  // to Ethernet, by the link type's name

    Tally &operator+=(const Tally &other);
};

class Reader {
  public:
    // Opens a capture and reads its header; "-" is the standard input. Throws Error for what is
    // not a capture, for one whose frames are of another kind, and for a filter that makes no
    // sense.
    explicit Reader(const std::string &path, Selection selection = {});
    ~Reader();
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    // Asked every 50 ms at least while a pipe keeps the reader waiting: the capture ends there once
    // the answer is false.
    void WhileWaiting(std::function<bool()> goOn);

    // The next frame that is wanted, as Ethernet, whose bytes stay until the next call; nothing at
    // the end, or behind the last that can be wanted. Throws Error where the capture breaks off,
    // and at its end if it has none of the numbers that are wanted.
    std::optional<Frame> Next();

    // How much of the file has been read, from 0 to 1; nothing for one whose length is unknown.
    std::optional<double> Share() const;

    // The number of the last frame that has been read.
    uint64_t Frames() const {
        return frames_;
    }
    Tally Done() const;

  private:
    // What belongs to the frames of a link type.
    struct Link {
        int type;
        std::unique_ptr<FrameFilter> filter;
        uint64_t converted = 0;
    };

    void OpenPcapng();
    void OpenPcap();
    Link &LinkOf(int type);
    std::optional<Frame> NextOfAny();
    std::optional<Frame> NextByLibpcap();
    std::optional<Frame> NextWanted();
    void RequireWantedNumber() const;
    // Throws Error for a frame whose interface is of another kind.
    int TypeOf(const Frame &frame) const;
    [[noreturn]] void BreakOff(const std::string &reason) const;

    const std::string name_;
    const Selection selection_;
    std::unique_ptr<ByteSource> source_;
    std::unique_ptr<PcapFrames> plain_;     // of all but pcapng
    pcap *capture_ = nullptr;               // what goes on where these do not
    std::unique_ptr<PcapngFrames> pcapng_;  // null for other files
    bool takesAll_ = false;                 // of Ethernet
    std::vector<Link> links_;
    size_t link_ = 0;  // of the last frame
    std::vector<uint8_t> room_;
    uint64_t frames_ = 0;
    uint64_t passedOver_ = 0;
};

}  // namespace capture
