// Receives frames from a network interface.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "capture/frame.h"

struct pcap;

namespace kes_engine {

class LiveReader {
  public:
    // Opens an Ethernet interface, in promiscuous mode. Throws UsageError, which names it.
    explicit LiveReader(const std::string &interface);
    ~LiveReader();
    LiveReader(const LiveReader &) = delete;
    LiveReader &operator=(const LiveReader &) = delete;

    // The next frame, whose bytes stay until the next call; nothing when none has come. Throws
    // Failure when the interface is gone.
    std::optional<capture::Frame> Next();
    // Waits until a frame comes, or for a time.
    void Wait(std::chrono::milliseconds time);

    // Frames that came and were lost before they could be received here.
    uint64_t Lost() const;

  private:
    const std::string interface_;
    pcap *capture_ = nullptr;
    uint64_t frames_ = 0;
};

}  // namespace kes_engine
