// Keeps packets as a capture.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "capture/writer.h"
#include "kes/mbuf.h"

namespace kes_engine {

// One capture with times in nanoseconds, created with its first packet.
class PacketCapture {
  public:
    // Without a path, every packet is dropped.
    explicit PacketCapture(std::string path) : path_(std::move(path)) {}
    PacketCapture(const PacketCapture &) = delete;
    PacketCapture &operator=(const PacketCapture &) = delete;

    // Appends a packet as it was received: its bytes, time and length on the wire. After a failure
    // nothing more is written. Callable from any thread.
    void Write(const HostMbuf *packet);

    // Completes the file. Returns what went wrong with it, or an empty text.
    std::string Close();

  private:
    const std::string path_;
    std::mutex mutex_;
    std::optional<capture::Writer> file_;
    std::string failure_;
};

}  // namespace kes_engine
