// Receives frames from network interfaces.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/frame.h"
#include "capture/reader.h"
#include "interface_counts.h"

struct pcap;

namespace kes_engine {

struct ListenOptions {
    std::string filter;               // in libpcap's language, for the kernel; empty: all frames
    bool promiscuous = false;         // frames for others, too
    uint32_t bufferBytes = 16 << 20;  // of the kernel, for each interface
};

class LiveReader {
  public:
    // Opens an interface whose frames are Ethernet or can be given its form. Throws UsageError,
    // which names it.
    LiveReader(const std::string &interface, const ListenOptions &options);
    ~LiveReader();
    LiveReader(const LiveReader &) = delete;
    LiveReader &operator=(const LiveReader &) = delete;

    // The next frame but for its number, whose bytes stay until the next call; nothing when none
    // has come. Throws Failure when the interface is gone.
    std::optional<capture::Frame> Next();
    // Readable when a frame has come.
    int Descriptor() const;

    InterfaceCounts Counts() const;
    // The frames that got an Ethernet header.
    capture::Tally Done() const;

  private:
    void Open(const ListenOptions &options);

    const std::string interface_;
    pcap *capture_ = nullptr;
    int linkType_ = 0;
    std::vector<uint8_t> room_;
    uint64_t frames_ = 0;
};

// Several at once, in turns.
class LiveReaders {
  public:
    // Throws UsageError, as above, and for an interface that is named twice.
    LiveReaders(const std::vector<std::string> &interfaces, const ListenOptions &options);

    // The next frame of any of them, numbered from 1 over all; nothing when none has come. An
    // interface that is gone gives no more.
    std::optional<capture::Frame> Next();
    // Waits until a frame comes, or for a time.
    void Wait(std::chrono::milliseconds time) const;
    // False once all of them are gone.
    bool AnyLeft() const {
        return !left_.empty();
    }

    std::vector<InterfaceCounts> Counts() const;
    capture::Tally Done() const;
    // Why interfaces are gone, one line each.
    const std::vector<std::string> &Failures() const {
        return failures_;
    }

  private:
    std::vector<std::unique_ptr<LiveReader>> readers_;
    std::vector<LiveReader *> left_;
    size_t turn_ = 0;      // of these
    uint32_t inTurn_ = 0;  // frames that it has given
    uint64_t frames_ = 0;
    std::vector<std::string> failures_;
};

}  // namespace kes_engine
