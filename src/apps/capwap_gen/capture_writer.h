// Captures on disk.
#pragma once

#include <string>

#include "capwap_gen/link.h"

struct pcap;
struct pcap_dumper;

namespace capwap_gen {

// Writes Ethernet captures in pcap format with micro- or nanosecond timestamps. Throws
// std::runtime_error that names the file when it cannot be written.
class CaptureWriter {
  public:
    // "-" is the standard output.
    CaptureWriter(const std::string &path, bool nanoseconds);
    ~CaptureWriter();

    void Write(const Frame &frame);
    // Ends the capture; nothing may follow.
    void Close();

  private:
    std::string path_;
    bool nanoseconds_;
    pcap *pcap_;
    pcap_dumper *dumper_;
};

}  // namespace capwap_gen
