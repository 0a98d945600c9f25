// Where the bytes of a capture come from: a file, a pipe or the standard input, packed or not.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace capture {

class Gzip;

// Read at once. The longest frame that is read, 256 KiB, and its header fit twice.
inline constexpr size_t kReadBytes = 256 << 10;

// What is read ahead is seen by whoever reads next.
class ByteSource {
  public:
    // A named pipe that has no writer yet is opened all the same, and is waited for when it is
    // read.
    explicit ByteSource(const std::string &path);
    ~ByteSource();
    ByteSource(const ByteSource &) = delete;
    ByteSource &operator=(const ByteSource &) = delete;

    bool IsOpen() const {
        return descriptor_ >= 0;
    }
    // Looks at the first bytes, and unpacks all from here on where they are those of gzip.
    void UnpackIfPacked();
    // The bytes as a stream, which must go before this; null and errno if there can be none. It
    // takes no more than is asked for.
    FILE *Stream();

    // The next bytes, which stay until they are skipped and more are looked at; fewer where the
    // source ends.
    std::span<const uint8_t> Peek(size_t size) {
        while (end_ - next_ < size && ReadAhead() > 0) {
        }
        return {&buffer_[next_], std::min(size, end_ - next_)};
    }
    // Of bytes that have been looked at.
    void Skip(size_t size) {
        next_ += size;
    }
    // Of any bytes; false where the source ends before.
    bool SkipAll(uint64_t size);

    // Asked every 50 ms at least while a pipe has no bytes: the source ends once the answer is
    // false.
    void WhileWaiting(std::function<bool()> goOn);
    bool WasEnded() const {
        return ended_;
    }
    // Why the bytes ended before their end, in words; empty if they did not.
    std::string Failure() const;
    // How much has been read, of 1; nothing where the length is unknown.
    std::optional<double> Share() const;

  private:
    static constexpr size_t kBufferBytes = 3 * kReadBytes;

    ssize_t Take(char *bytes, size_t size);
    ssize_t ReadAhead();
    ssize_t Read(std::span<uint8_t> room);
    bool WaitForBytes();

    const int descriptor_;
    int64_t size_ = 0;  // bytes; 0: not a file of fixed length
    int64_t read_ = 0;  // of these
    int error_ = 0;     // of the last read
    std::function<bool()> goOn_;
    bool ended_ = false;
    std::unique_ptr<Gzip> gzip_;  // of a packed file
    const std::unique_ptr<uint8_t[]> buffer_ =
        std::make_unique_for_overwrite<uint8_t[]>(kBufferBytes);
    size_t next_ = 0;  // of the bytes that are read ahead
    size_t end_ = 0;
};

}  // namespace capture
