#include "capture/reader.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ratio>
#include <system_error>
#include <utility>

namespace capture {
namespace {

constexpr int kSliceMilliseconds = 50;
constexpr size_t kBufferBytes = 64 << 10;

std::string NameOf(const std::string &path) {
    return path == kStandardStream ? "the standard input" : "'" + path + "'";
}

std::string LinkTypeName(int linkType) {
    const char *name = pcap_datalink_val_to_description(linkType);
    return name != nullptr ? name : "link type " + std::to_string(linkType);
}

// With the precision asked for, the microseconds' field counts nanoseconds. A block of pcapng can
// tell a time that so many nanoseconds since the epoch cannot: it becomes the last that they can.
int64_t NanosecondsOf(const timeval &time) {
    constexpr int64_t kLastSecond = INT64_MAX / std::nano::den - UINT32_MAX / std::milli::den;
    return std::clamp<int64_t>(time.tv_sec, 0, kLastSecond) * std::nano::den + time.tv_usec;
}

}  // namespace

// Where the bytes come from.
class ByteSource {
  public:
    // A named pipe that has no writer yet is opened all the same, and is waited for when it is
    // read.
    explicit ByteSource(const std::string &path)
        : descriptor_(path == kStandardStream
                          ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                          : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        struct stat status;
        if (descriptor_ >= 0 && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode)) {
            size_ = status.st_size;
        }
    }
    ~ByteSource() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    ByteSource(const ByteSource &) = delete;
    ByteSource &operator=(const ByteSource &) = delete;

    bool IsOpen() const {
        return descriptor_ >= 0;
    }
    // The bytes as a stream, which must go before this; null and errno if there can be none.
    FILE *Stream() {
        const cookie_io_functions_t functions = {
            .read =
                [](void *source, char *bytes, size_t size) {
                    return static_cast<ByteSource *>(source)->Read(bytes, size);
                },
            .write = nullptr,
            .seek = nullptr,
            .close = nullptr};
        FILE *stream = fopencookie(this, "rb", functions);
        if (stream != nullptr) {
            std::setvbuf(stream, nullptr, _IOFBF, kBufferBytes);
        }
        return stream;
    }

    void WhileWaiting(std::function<bool()> goOn) {
        goOn_ = std::move(goOn);
    }
    bool WasEnded() const {
        return ended_;
    }
    std::optional<double> Share() const {
        if (size_ == 0) {
            return std::nullopt;
        }
        return std::min(1.0, static_cast<double>(read_) / static_cast<double>(size_));
    }

  private:
    ssize_t Read(char *bytes, size_t size) {
        ssize_t got;
        do {
            if (!WaitForBytes()) {
                return 0;
            }
            got = read(descriptor_, bytes, size);
        } while (got < 0 && (errno == EINTR || errno == EAGAIN));
        read_ += std::max<ssize_t>(got, 0);
        return got;
    }

    bool WaitForBytes() {
        pollfd readable = {.fd = descriptor_, .events = POLLIN, .revents = 0};
        while (!ended_ && poll(&readable, 1, goOn_ ? kSliceMilliseconds : -1) <= 0) {
            ended_ = goOn_ && !goOn_();
        }
        return !ended_;
    }

    const int descriptor_;
    int64_t size_ = 0;  // bytes; 0: not a file of fixed length
    int64_t read_ = 0;  // of these
    std::function<bool()> goOn_;
    bool ended_ = false;
};

bool CanBeReadOnlyOnce(const std::string &path) {
    struct stat status;
    return path == kStandardStream ||
           (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
}

Reader::Reader(const std::string &path)
    : name_(NameOf(path)), source_(std::make_unique<ByteSource>(path)) {
    const std::string what = "cannot read " + name_ + ": ";
    FILE *file = source_->IsOpen() ? source_->Stream() : nullptr;
    if (file == nullptr) {
        throw Error(what + std::generic_category().message(errno));
    }
    char reason[PCAP_ERRBUF_SIZE] = "";
    capture_ = pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, reason);
    if (capture_ == nullptr) {
        std::fclose(file);
        throw Error(what + reason);
    }
    if (const int linkType = pcap_datalink(capture_); linkType != DLT_EN10MB) {
        pcap_close(capture_);
        throw Error(what + "its frames are not Ethernet but " + LinkTypeName(linkType));
    }
}

Reader::~Reader() {
    pcap_close(capture_);
}

void Reader::WhileWaiting(std::function<bool()> goOn) {
    source_->WhileWaiting(std::move(goOn));
}

std::optional<Frame> Reader::Next() {
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    const int outcome = pcap_next_ex(capture_, &header, &bytes);
    if (outcome == PCAP_ERROR_BREAK || source_->WasEnded()) {
        return std::nullopt;
    }
    if (outcome != 1) {
        throw Error(name_ + " breaks off after frame " + std::to_string(frames_) + ": " +
                    pcap_geterr(capture_));
    }
    return Frame{.bytes = {bytes, header->caplen},
                 .timeNs = NanosecondsOf(header->ts),
                 .wireLength = header->len,
                 .number = ++frames_};
}

std::optional<double> Reader::Share() const {
    return source_->Share();
}

}  // namespace capture
