#include "capture/gzip.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace capture {
namespace {

constexpr size_t kInputBytes = 64 << 10;
constexpr uint8_t kMagic[] = {0x1F, 0x8B};
// Tells zlib to expect the header of gzip, and a window of any size.
constexpr int kGzipWindow = MAX_WBITS + 16;

}  // namespace

bool Gzip::Begins(std::span<const uint8_t> bytes) {
    return bytes.size() >= std::size(kMagic) && std::equal(kMagic, std::end(kMagic), bytes.begin());
}

Gzip::Gzip(std::span<const uint8_t> begun, Source source)
    : source_(std::move(source)),
      input_(std::make_unique_for_overwrite<uint8_t[]>(std::max(kInputBytes, begun.size()))) {
    std::ranges::copy(begun, input_.get());
    stream_.next_in = input_.get();
    stream_.avail_in = static_cast<uInt>(begun.size());
    if (inflateInit2(&stream_, kGzipWindow) != Z_OK) {
        throw std::bad_alloc();
    }
}

Gzip::~Gzip() {
    inflateEnd(&stream_);
}

ptrdiff_t Gzip::Read(std::span<uint8_t> room) {
    stream_.next_out = room.data();
    stream_.avail_out = static_cast<uInt>(room.size());
    while (stream_.avail_out == room.size()) {
        if (!HasInput()) {
            if (sourceFailed_) {
                return -1;
            }
            return inMember_ ? Fail("they end too early") : 0;
        }
        if (!inMember_) {
            inflateReset(&stream_);
            inMember_ = true;
        }
        const int outcome = inflate(&stream_, Z_NO_FLUSH);
        if (outcome == Z_STREAM_END) {
            inMember_ = false;
        } else if (outcome != Z_OK && outcome != Z_BUF_ERROR) {
            return Fail(stream_.msg != nullptr ? stream_.msg : "they cannot be unpacked");
        }
    }
    return static_cast<ptrdiff_t>(room.size() - stream_.avail_out);
}

bool Gzip::HasInput() {
    if (stream_.avail_in == 0) {
        const ptrdiff_t got = source_({input_.get(), kInputBytes});
        sourceFailed_ = got < 0;
        stream_.next_in = input_.get();
        stream_.avail_in = static_cast<uInt>(std::max<ptrdiff_t>(got, 0));
    }
    return stream_.avail_in > 0;
}

ptrdiff_t Gzip::Fail(const char *reason) {
    failure_ = std::string("damaged gzip data: ") + reason;
    errno = EIO;
    return -1;
}

}  // namespace capture
