// Writes captures.
#pragma once

#include <mutex>
#include <string>

#include "kes/mbuf.h"

struct pcap_dumper;

namespace kes_engine {

// One capture of Ethernet frames with times in nanoseconds, created with its first frame.
class CaptureWriter {
  public:
    // Without a path, every frame is dropped.
    explicit CaptureWriter(std::string path) : path_(std::move(path)) {}
    ~CaptureWriter() {
        Close();
    }
    CaptureWriter(const CaptureWriter &) = delete;
    CaptureWriter &operator=(const CaptureWriter &) = delete;

    // Appends a packet as it was received: its bytes, time and length on the wire. After a failure
    // nothing more is written. Callable from any thread.
    void Write(const HostMbuf *packet);

    // Completes the file. Returns what went wrong with it since it was opened, or an empty text.
    std::string Close();

  private:
    void Open();
    void Fail(const std::string &reason);

    const std::string path_;
    std::mutex mutex_;
    pcap_dumper *file_ = nullptr;
    std::string failure_;
};

}  // namespace kes_engine
