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
// Read at once. The longest frame that libpcap takes, 256 KiB, and its header fit twice.
constexpr size_t kReadBytes = 256 << 10;
constexpr size_t kBufferBytes = 3 * kReadBytes;

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

template <class T>
T Load(const uint8_t *from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

constexpr size_t kFileHeader = 24;
constexpr size_t kRecordHeader = 16;

// Where the bytes come from. What is read ahead is seen by whoever reads next.
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
    // The bytes as a stream, which must go before this; null and errno if there can be none. It
    // takes no more than is asked for.
    FILE *Stream() {
        const cookie_io_functions_t functions = {
            .read =
                [](void *source, char *bytes, size_t size) {
                    return static_cast<ByteSource *>(source)->Take(bytes, size);
                },
            .write = nullptr,
            .seek = nullptr,
            .close = nullptr};
        FILE *stream = fopencookie(this, "rb", functions);
        if (stream != nullptr) {
            std::setvbuf(stream, nullptr, _IONBF, 0);
        }
        return stream;
    }
    // The next bytes, which stay until they are skipped and more are looked at; fewer where the
    // source ends.
    std::span<const uint8_t> Peek(size_t size) {
        while (end_ - next_ < size && ReadAhead() > 0) {
        }
        return {&buffer_[next_], std::min(size, end_ - next_)};
    }
    void Skip(size_t size) {
        next_ += size;
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
    ssize_t Take(char *bytes, size_t size) {
        if (next_ == end_) {
            if (const ssize_t got = ReadAhead(); got <= 0) {
                return got;
            }
        }
        const auto ready = Peek(std::min(size, end_ - next_));
        std::ranges::copy(ready, bytes);
        Skip(ready.size());
        return static_cast<ssize_t>(ready.size());
    }

    ssize_t ReadAhead() {
        std::copy(&buffer_[next_], &buffer_[end_], &buffer_[0]);
        end_ -= std::exchange(next_, 0);
        ssize_t got;
        do {
            if (!WaitForBytes()) {
                return 0;
            }
            got = read(descriptor_, &buffer_[end_], std::min(kReadBytes, kBufferBytes - end_));
        } while (got < 0 && (errno == EINTR || errno == EAGAIN));
        read_ += std::max<ssize_t>(got, 0);
        end_ += static_cast<size_t>(std::max<ssize_t>(got, 0));
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
    const std::unique_ptr<uint8_t[]> buffer_ =
        std::make_unique_for_overwrite<uint8_t[]>(kBufferBytes);
    size_t next_ = 0;  // of the bytes that are read ahead
    size_t end_ = 0;
};

// Reads the frames of an ordinary pcap file in place. Everything else — pcapng, other versions,
// damage, the end — is left to libpcap.
class PlainFrames {
  public:
    // Looks at the file's header.
    explicit PlainFrames(ByteSource &source) : source_(source) {
        const auto header = source.Peek(kFileHeader);
        if (header.size() < kFileHeader) {
            return;
        }
        const uint32_t magic = Load<uint32_t>(header.data());
        for (const bool swapped : {false, true}) {
            for (const auto &[number, unit] : {std::pair(0xA1B2C3D4u, 1000u), {0xA1B23C4Du, 1u}}) {
                if (magic == (swapped ? __builtin_bswap32(number) : number)) {
                    swapped_ = swapped;
                    nanosecondsPerUnit_ = unit;
                }
            }
        }
        const bool isVersion24 =
            Number<uint16_t>(header.data() + 4) == 2 && Number<uint16_t>(header.data() + 6) == 4;
        longest_ = isVersion24 && nanosecondsPerUnit_ != 0 ? kLongest : 0;
    }

    // As libpcap has read the file's header.
    void LimitTo(int snapLength) {
        longest_ = std::min(longest_, static_cast<size_t>(std::max(snapLength, 0)));
    }

    // The next frame but for its number; nothing for one that is not ordinary.
    std::optional<Frame> Next() {
        const auto header =
            longest_ == 0 ? std::span<const uint8_t>() : source_.Peek(kRecordHeader);
        if (header.size() < kRecordHeader) {
            return std::nullopt;
        }
        const uint32_t seconds = Number<uint32_t>(header.data());
        const uint32_t fraction = Number<uint32_t>(header.data() + 4);
        const size_t size = Number<uint32_t>(header.data() + 8);
        const uint32_t wireLength = Number<uint32_t>(header.data() + 12);
        if (size > longest_ || seconds > INT32_MAX ||
            uint64_t{fraction} * nanosecondsPerUnit_ >= std::nano::den) {
            return std::nullopt;
        }
        const auto record = source_.Peek(kRecordHeader + size);
        if (record.size() < kRecordHeader + size) {
            return std::nullopt;
        }
        source_.Skip(record.size());
        return Frame{
            .bytes = record.subspan(kRecordHeader),
            .timeNs = int64_t{seconds} * std::nano::den + int64_t{fraction} * nanosecondsPerUnit_,
            .wireLength = wireLength};
    }

  private:
    static constexpr size_t kLongest = kReadBytes;

    template <class T>
    T Number(const uint8_t *from) const {
        const T value = Load<T>(from);
        if constexpr (sizeof(T) == 2) {
            return swapped_ ? __builtin_bswap16(value) : value;
        } else {
            return swapped_ ? __builtin_bswap32(value) : value;
        }
    }

    ByteSource &source_;
    bool swapped_ = false;
    uint32_t nanosecondsPerUnit_ = 0;
    size_t longest_ = 0;  // bytes of an ordinary frame; 0: the file has none
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
    plain_ = std::make_unique<PlainFrames>(*source_);
    char reason[PCAP_ERRBUF_SIZE] = "";
    capture_ = pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, reason);
    if (capture_ == nullptr) {
        std::fclose(file);
        throw Error(what + reason);
    }
    plain_->LimitTo(pcap_snapshot(capture_));
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
    if (std::optional<Frame> frame = plain_->Next()) {
        frame->number = ++frames_;
        return frame;
    }
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
