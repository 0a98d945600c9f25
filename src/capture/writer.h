// Writes captures: pcap, Ethernet.
#pragma once

#include <string>

#include "capture/error.h"
#include "capture/frame.h"

struct pcap_dumper;

namespace capture {

enum class Times { kMicroseconds, kNanoseconds };

class Writer {
  public:
    // Replaces a file, or begins one; "-" is the standard output. Throws Error, as the others do.
    explicit Writer(const std::string &path, Times times = Times::kNanoseconds);
    // Closes the file, whatever becomes of it.
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    // Appends a frame, of which the number is left out.
    void Write(const Frame &frame);
    // Completes the file; nothing may follow.
    void Close();

  private:
    const std::string name_;
    const Times times_;
    pcap_dumper *file_ = nullptr;
};

}  // namespace capture
