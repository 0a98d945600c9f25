#include "capture/pcap_frames.h"

#include <algorithm>
#include <utility>

namespace capture {
namespace {

constexpr size_t kFileHeader = 24;

}  // namespace

PcapFrames::PcapFrames(ByteSource &source) : source_(source) {
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
    const bool isVersion24 = Number<uint16_t>(header.data() + 4, swapped_) == 2 &&
                             Number<uint16_t>(header.data() + 6, swapped_) == 4;
    longest_ = isVersion24 && nanosecondsPerUnit_ != 0 ? kReadBytes : 0;
}

void PcapFrames::LimitTo(int snapLength) {
    longest_ = std::min(longest_, static_cast<size_t>(std::max(snapLength, 0)));
}

}  // namespace capture
