// Reads the frames of an ordinary pcap file in place.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <ratio>
#include <span>

#include "capture/byte_source.h"
#include "capture/frame.h"

namespace capture {

template <class T>
T Load(const uint8_t *from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

// A number of a file whose bytes may be in the other order.
template <class T>
T Number(const uint8_t *from, bool swapped) {
    const T value = Load<T>(from);
    if constexpr (sizeof(T) == 2) {
        return swapped ? __builtin_bswap16(value) : value;
    } else {
        return swapped ? __builtin_bswap32(value) : value;
    }
}

// Other versions, damage and the end are left to libpcap.
class PcapFrames {
  public:
    // Looks at the file's header.
    explicit PcapFrames(ByteSource &source);

    // As libpcap has read the file's header.
    void LimitTo(int snapLength);

    // The next frame but for its number; nothing for one that is not ordinary.
    std::optional<Frame> Next() {
        const auto header =
            longest_ == 0 ? std::span<const uint8_t>() : source_.Peek(kRecordHeader);
        if (header.size() < kRecordHeader) {
            return std::nullopt;
        }
        const uint32_t seconds = Number<uint32_t>(header.data(), swapped_);
        const uint32_t fraction = Number<uint32_t>(header.data() + 4, swapped_);
        const size_t size = Number<uint32_t>(header.data() + 8, swapped_);
        const uint32_t wireLength = Number<uint32_t>(header.data() + 12, swapped_);
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
    static constexpr size_t kRecordHeader = 16;

    ByteSource &source_;
    bool swapped_ = false;
    uint32_t nanosecondsPerUnit_ = 0;
    size_t longest_ = 0;  // bytes of an ordinary frame; 0: the file has none
};

}  // namespace capture
