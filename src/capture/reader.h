// Reads captures: pcap and pcapng, Ethernet.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "capture/error.h"
#include "capture/frame.h"

struct pcap;

namespace capture {

class ByteSource;
class PlainFrames;

// Whether a capture comes through a pipe or the like, which gives its bytes once. A file that is
// not there does not.
bool CanBeReadOnlyOnce(const std::string &path);

class Reader {
  public:
    // Opens a capture and reads its header; "-" is the standard input. Throws Error for what is
    // not a capture of Ethernet frames.
    explicit Reader(const std::string &path);
    ~Reader();
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    // Asked every 50 ms at least while a pipe keeps the reader waiting: the capture ends there once
    // the answer is false.
    void WhileWaiting(std::function<bool()> goOn);

    // The next frame, whose bytes stay until the next call; nothing at the end. Throws Error where
    // the capture breaks off.
    std::optional<Frame> Next();

    // How much of the file has been read, from 0 to 1; nothing for one whose length is unknown.
    std::optional<double> Share() const;

  private:
    const std::string name_;
    std::unique_ptr<ByteSource> source_;
    std::unique_ptr<PlainFrames> plain_;
    pcap *capture_ = nullptr;
    uint64_t frames_ = 0;
};

}  // namespace capture
