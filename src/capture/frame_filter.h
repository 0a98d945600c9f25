// Filters in libpcap's own language.
#pragma once

#include <memory>
#include <string>

#include "capture/frame.h"

struct bpf_program;

namespace capture {

class FrameFilter {
  public:
    // For frames of a link type. Throws Error, which names the expression as that of --filter, and
    // has libpcap's words.
    FrameFilter(const std::string &expression, int linkType);

    // Of a frame in its capture's own form.
    bool Matches(const Frame &frame) const;

    // What is said of an expression that cannot be compiled.
    static std::string Complaint(const std::string &expression, const std::string &reason);

  private:
    struct Release {
        void operator()(bpf_program *program) const;
    };
    std::unique_ptr<bpf_program, Release> program_;
};

}  // namespace capture
