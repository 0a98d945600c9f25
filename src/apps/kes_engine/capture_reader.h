// Reads captures: pcap and pcapng, Ethernet.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

struct pcap;

namespace kes_engine {

struct Frame {
    std::span<const uint8_t> bytes;
    int64_t timeNs = 0;       // since the epoch
    uint32_t wireLength = 0;  // bytes on the wire; fewer may have been captured
    uint64_t number = 0;      // from 1
};

class CaptureReader {
  public:
    // Opens a capture and reads its header. Throws Failure for a file that is not a capture of
    // Ethernet frames.
    explicit CaptureReader(const std::string &path);
    ~CaptureReader();
    CaptureReader(const CaptureReader &) = delete;
    CaptureReader &operator=(const CaptureReader &) = delete;

    // The next frame, whose bytes stay until the next call; nothing at the end. Throws Failure
    // where the capture breaks off.
    std::optional<Frame> Next();

    // How much of the file has been read, from 0 to 1; nothing for one whose length is unknown.
    std::optional<double> Share() const;

    const std::string &Path() const {
        return path_;
    }

  private:
    std::string path_;
    pcap *capture_ = nullptr;
    uint64_t frames_ = 0;
    int64_t fileSize_ = 0;  // bytes; 0: not a file of fixed length
};

}  // namespace kes_engine
