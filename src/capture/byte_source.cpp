#include "capture/byte_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "capture/error.h"
#include "capture/gzip.h"

namespace capture {
namespace {

constexpr int kSliceMilliseconds = 50;
constexpr size_t kMagicBytes = 2;

}  // namespace

ByteSource::ByteSource(const std::string &path)
    : descriptor_(path == kStandardStream ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                          : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    struct stat status;
    if (descriptor_ >= 0 && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode)) {
        size_ = status.st_size;
    }
}

ByteSource::~ByteSource() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

void ByteSource::UnpackIfPacked() {
    if (Gzip::Begins(Peek(kMagicBytes))) {
        gzip_ = std::make_unique<Gzip>(std::span<const uint8_t>(&buffer_[next_], end_ - next_),
                                       [this](std::span<uint8_t> room) { return Read(room); });
        next_ = end_ = 0;
    }
}

FILE *ByteSource::Stream() {
    const cookie_io_functions_t functions = {
        .read = [](void *source, char *bytes,
                   size_t size) { return static_cast<ByteSource *>(source)->Take(bytes, size); },
        .write = nullptr,
        .seek = nullptr,
        .close = nullptr};
    FILE *stream = fopencookie(this, "rb", functions);
    if (stream != nullptr) {
        std::setvbuf(stream, nullptr, _IONBF, 0);
    }
    return stream;
}

bool ByteSource::SkipAll(uint64_t size) {
    while (size > 0) {
        const size_t part = Peek(std::min<uint64_t>(size, kReadBytes)).size();
        if (part == 0) {
            return false;
        }
        Skip(part);
        size -= part;
    }
    return true;
}

void ByteSource::WhileWaiting(std::function<bool()> goOn) {
    goOn_ = std::move(goOn);
}

std::string ByteSource::Failure() const {
    if (gzip_ && !gzip_->Failure().empty()) {
        return gzip_->Failure();
    }
    return error_ != 0 ? std::generic_category().message(error_) : "";
}

std::optional<double> ByteSource::Share() const {
    if (size_ == 0) {
        return std::nullopt;
    }
    return std::min(1.0, static_cast<double>(read_) / static_cast<double>(size_));
}

ssize_t ByteSource::Take(char *bytes, size_t size) {
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

ssize_t ByteSource::ReadAhead() {
    std::copy(&buffer_[next_], &buffer_[end_], &buffer_[0]);
    end_ -= std::exchange(next_, 0);
    const std::span<uint8_t> room(&buffer_[end_], std::min(kReadBytes, kBufferBytes - end_));
    const ssize_t got = gzip_ ? gzip_->Read(room) : Read(room);
    end_ += static_cast<size_t>(std::max<ssize_t>(got, 0));
    return ended_ ? 0 : got;
}

ssize_t ByteSource::Read(std::span<uint8_t> room) {
    ssize_t got;
    do {
        if (!WaitForBytes()) {
            return 0;
        }
        got = read(descriptor_, room.data(), room.size());
    } while (got < 0 && (errno == EINTR || errno == EAGAIN));
    error_ = got < 0 ? errno : 0;
    read_ += std::max<ssize_t>(got, 0);
    return got;
}

bool ByteSource::WaitForBytes() {
    pollfd readable = {.fd = descriptor_, .events = POLLIN, .revents = 0};
    while (!ended_ && poll(&readable, 1, goOn_ ? kSliceMilliseconds : -1) <= 0) {
        ended_ = goOn_ && !goOn_();
    }
    return !ended_;
}

}  // namespace capture
