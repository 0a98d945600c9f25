#include "capture/pcapng_frames.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdint>
#include <ratio>

#include "capture/error.h"
#include "capture/link_layer.h"
#include "capture/pcap_frames.h"

namespace capture {
namespace {

enum BlockType : uint32_t {
    kSection = 0x0A0D0D0A,  // the same in either order of bytes
    kInterface = 1,
    kOldPacket = 2,
    kSimplePacket = 3,
    kPacket = 6,
};
constexpr uint32_t kByteOrder = 0x1A2B3C4D;

// Bytes of a block's type and length, and of its length again.
constexpr size_t kBlockHeader = 8;
constexpr size_t kBlockTrailer = 4;
// And of what the kinds of blocks have before their options or frames.
constexpr size_t kSectionHeader = kBlockHeader + 16;
constexpr size_t kInterfaceHeader = kBlockHeader + 8;
constexpr size_t kPacketHeader = kBlockHeader + 20;
constexpr size_t kSimplePacketHeader = kBlockHeader + 4;

enum Option : uint16_t { kEnd = 0, kName = 2, kResolution = 9, kOffset = 14 };
constexpr size_t kOptionHeader = 4;

constexpr size_t Padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

// The unit that an exponent stands for: of 2 with the highest bit set, of 10 otherwise.
uint64_t UnitsPerSecond(uint8_t resolution) {
    constexpr uint8_t kOfTwo = 0x80;
    const unsigned exponent = resolution & ~kOfTwo;
    const bool ofTwo = (resolution & kOfTwo) != 0;
    if (exponent > (ofTwo ? 63 : 19)) {
        throw Error("an interface counts time in units of " + std::string(ofTwo ? "2" : "10") +
                    " to the power of -" + std::to_string(exponent) + " seconds");
    }
    uint64_t units = 1;
    for (unsigned i = 0; i < exponent; ++i) {
        units *= ofTwo ? 2 : 10;
    }
    return units;
}

}  // namespace

bool PcapngFrames::Begins(ByteSource &source) {
    const auto type = source.Peek(sizeof(uint32_t));
    return type.size() == sizeof(uint32_t) && Load<uint32_t>(type.data()) == kSection;
}

PcapngFrames::PcapngFrames(ByteSource &source) : source_(source) {
    while (interfaces_.empty()) {
        const std::optional<Block> block = NextBlock();
        if (!block) {
            throw Error("a pcapng file without an interface");
        }
        if (ReadFrame(*block)) {
            throw Error("a frame before the first interface");
        }
    }
}

template <class T>
T PcapngFrames::At(const uint8_t *from) const {
    return Number<T>(from, swapped_);
}

std::optional<Frame> PcapngFrames::Next() {
    while (const std::optional<Block> block = NextBlock()) {
        if (std::optional<Frame> frame = ReadFrame(*block)) {
            return frame;
        }
    }
    return std::nullopt;
}

// The section's order of bytes is known from its third word.
std::optional<PcapngFrames::Block> PcapngFrames::NextBlock() {
    Finish();
    const auto header = source_.Peek(kBlockHeader + sizeof kByteOrder);
    if (header.empty()) {
        if (const std::string failure = source_.Failure(); !failure.empty()) {
            throw Error(failure);
        }
        return std::nullopt;
    }
    if (header.size() < kBlockHeader + sizeof kByteOrder) {
        throw Error("a truncated pcapng file: it ends in the header of a block");
    }
    if (Load<uint32_t>(header.data()) == kSection) {
        const uint32_t order = Load<uint32_t>(header.data() + kBlockHeader);
        swapped_ = order != kByteOrder;
        if (swapped_ && __builtin_bswap32(order) != kByteOrder) {
            throw Error("a damaged pcapng file: a section without a known order of bytes");
        }
    }
    const Block block = {At<uint32_t>(header.data()), At<uint32_t>(header.data() + 4)};
    if (block.length < kBlockHeader + kBlockTrailer || block.length % 4 != 0) {
        throw Error("a damaged pcapng file: a block of " + std::to_string(block.length) + " bytes");
    }
    unread_ = block.length;
    return block;
}

const uint8_t *PcapngFrames::Content(const Block &block, size_t size) {
    if (block.length < size + kBlockTrailer) {
        throw Error("a damaged pcapng file: a block of " + std::to_string(block.length) +
                    " bytes that needs " + std::to_string(size + kBlockTrailer));
    }
    const auto content = source_.Peek(size);
    if (content.size() < size) {
        const std::string failure = source_.Failure();
        throw Error(!failure.empty() ? failure
                                     : "a truncated pcapng file: it ends in a block of " +
                                           std::to_string(block.length) + " bytes");
    }
    return content.data();
}

// What is left of the last block, whose frame has been in use until now.
void PcapngFrames::Finish() {
    if (unread_ == 0) {
        return;
    }
    const uint32_t length = unread_;
    unread_ = 0;
    if (!source_.SkipAll(length - kBlockTrailer) ||
        source_.Peek(kBlockTrailer).size() < kBlockTrailer) {
        const std::string failure = source_.Failure();
        throw Error(!failure.empty() ? failure
                                     : "a truncated pcapng file: it ends in a block of " +
                                           std::to_string(length) + " bytes");
    }
    if (const uint32_t again = At<uint32_t>(source_.Peek(kBlockTrailer).data()); again != length) {
        throw Error("a damaged pcapng file: a block of " + std::to_string(length) +
                    " bytes that says " + std::to_string(again) + " at its end");
    }
    source_.Skip(kBlockTrailer);
}

void PcapngFrames::ReadSection(const Block &block) {
    const uint8_t *header = Content(block, kSectionHeader);
    const unsigned major = At<uint16_t>(header + 12);
    const unsigned minor = At<uint16_t>(header + 14);
    // 1.2 is 1.0 by another name.
    if (major != 1 || (minor != 0 && minor != 2)) {
        throw Error("pcapng version " + std::to_string(major) + "." + std::to_string(minor) +
                    " is not known");
    }
    inSection_ = true;
    interfaces_.clear();
    current_ = 0;
}

void PcapngFrames::ReadInterface(const Block &block) {
    const uint8_t *header = Content(block, kInterfaceHeader);
    Interface interface = {.linkType = LinkTypeOfFile(At<uint16_t>(header + kBlockHeader)),
                           .snapLength = At<uint32_t>(header + kBlockHeader + 4),
                           .name = ""};
    // Longer options than these are comments.
    const size_t size = std::min<size_t>(block.length - kBlockTrailer, kReadBytes);
    const uint8_t *content = Content(block, size);
    ReadOptions({content + kInterfaceHeader, content + size}, interface);
    interfaces_.push_back(std::move(interface));
}

void PcapngFrames::ReadOptions(std::span<const uint8_t> options, Interface &interface) const {
    while (options.size() >= kOptionHeader) {
        const uint16_t code = At<uint16_t>(options.data());
        const size_t size = At<uint16_t>(options.data() + 2);
        if (code == kEnd || kOptionHeader + Padded(size) > options.size()) {
            return;
        }
        const uint8_t *value = options.data() + kOptionHeader;
        if (code == kName) {
            interface.name.assign(value, value + size);
        } else if (code == kResolution && size == 1) {
            interface.unitsPerSecond = UnitsPerSecond(*value);
        } else if (code == kOffset && size == sizeof(int64_t)) {
            const int64_t offset = Load<int64_t>(value);
            interface.offsetSeconds =
                swapped_ ? static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(offset)))
                         : offset;
        }
        options = options.subspan(kOptionHeader + Padded(size));
    }
}

std::optional<Frame> PcapngFrames::ReadFrame(const Block &block) {
    switch (block.type) {
        case kSection:
            ReadSection(block);
            return std::nullopt;
        case kInterface:
            ReadInterface(block);
            return std::nullopt;
        case kSimplePacket: {
            const uint32_t wireLength =
                At<uint32_t>(Content(block, kSimplePacketHeader) + kBlockHeader);
            current_ = 0;
            const uint32_t limit = interfaces_.empty() || interfaces_[0].snapLength == 0
                                       ? UINT32_MAX
                                       : interfaces_[0].snapLength;
            Frame frame = FrameAt(block, kSimplePacketHeader, std::min(wireLength, limit));
            frame.wireLength = wireLength;
            return frame;
        }
        case kPacket:
        case kOldPacket: {
            const uint8_t *header = Content(block, kPacketHeader) + kBlockHeader;
            current_ = block.type == kPacket ? At<uint32_t>(header) : At<uint16_t>(header);
            const uint64_t units =
                uint64_t{At<uint32_t>(header + 4)} << 32 | At<uint32_t>(header + 8);
            const uint32_t wireLength = At<uint32_t>(header + 16);
            Frame frame = FrameAt(block, kPacketHeader, At<uint32_t>(header + 12));
            frame.timeNs = Time(units);
            frame.wireLength = wireLength;
            return frame;
        }
        default:
            return std::nullopt;
    }
}

Frame PcapngFrames::FrameAt(const Block &block, size_t header, size_t size) {
    if (current_ >= interfaces_.size()) {
        throw Error("a damaged pcapng file: a frame of interface " + std::to_string(current_) +
                    " of " + std::to_string(interfaces_.size()));
    }
    if (size > kReadBytes) {
        throw Error("a frame of " + std::to_string(size) + " bytes; at most " +
                    std::to_string(kReadBytes) + " are read");
    }
    return {.bytes = {Content(block, header + size) + header, size}};
}

// A block can tell a time that nanoseconds since the epoch cannot: it becomes the first or the last
// that they can.
int64_t PcapngFrames::Time(uint64_t units) const {
    __extension__ using Wide = __int128;
    const Interface &interface = interfaces_[current_];
    const Wide nanoseconds = Wide{units} * std::nano::den / interface.unitsPerSecond +
                             Wide{interface.offsetSeconds} * std::nano::den;
    return static_cast<int64_t>(std::clamp<Wide>(nanoseconds, 0, INT64_MAX));
}

}  // namespace capture
