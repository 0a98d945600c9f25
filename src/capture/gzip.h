// Unpacks gzip data (RFC 1952) as they come.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace capture {

class Gzip {
  public:
    // Reads packed bytes: how many there were, 0 at their end, -1 and errno for an error.
    using Source = std::function<ptrdiff_t(std::span<uint8_t> room)>;

    // Whether a file that begins with these is packed.
    static bool Begins(std::span<const uint8_t> bytes);

    // `begun` are the first bytes of the source, which have been read already.
    Gzip(std::span<const uint8_t> begun, Source source);
    ~Gzip();
    Gzip(const Gzip &) = delete;
    Gzip &operator=(const Gzip &) = delete;

    // The next unpacked bytes: how many there are, 0 at the end, -1 and errno where they break off.
    ptrdiff_t Read(std::span<uint8_t> room);
    // Why they have; empty for an error of the source.
    const std::string &Failure() const {
        return failure_;
    }

  private:
    ptrdiff_t Fail(const char *reason);
    // Whether there is more to unpack; false with a failure of the source, too.
    bool HasInput();

    const Source source_;
    std::unique_ptr<uint8_t[]> input_;
    z_stream stream_ = {};
    bool inMember_ = true;  // a file may consist of several
    bool sourceFailed_ = false;
    std::string failure_;
};

}  // namespace capture
