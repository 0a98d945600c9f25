// Reads the frames of a pcapng file: of any number of sections and interfaces, each with a link
// type and a resolution of time of its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capture/byte_source.h"
#include "capture/frame.h"

namespace capture {

class PcapngFrames {
  public:
    struct Interface {
        int linkType = 0;  // DLT_*
        uint32_t snapLength = 0;
        uint64_t unitsPerSecond = 1'000'000;
        int64_t offsetSeconds = 0;  // of its times
        std::string name;           // that the file gives it; may be empty
    };

    // Whether the source has such a file.
    static bool Begins(ByteSource &source);

    // Reads up to the first interface. Throws Error, whose text is the reason alone; so does the
    // next one.
    explicit PcapngFrames(ByteSource &source);

    // The next frame but for its number; nothing at the end. Blocks that hold no frame are passed
    // over.
    std::optional<Frame> Next();

    // The interface of the last frame or, before, the first one.
    const Interface &FrameInterface() const {
        return interfaces_[current_];
    }
    // Its number in the section.
    size_t FrameInterfaceNumber() const {
        return current_;
    }

  private:
    struct Block {
        uint32_t type;
        uint32_t length;  // with all that belongs to it
    };

    // The next block; nothing at the end of the file.
    std::optional<Block> NextBlock();
    // The first bytes of a block that has so many, from its type on.
    const uint8_t *Content(const Block &block, size_t size);
    // Of a block that holds no frame: what it says of those that follow.
    void ReadSection(const Block &block);
    void ReadInterface(const Block &block);
    void ReadOptions(std::span<const uint8_t> options, Interface &interface) const;
    std::optional<Frame> ReadFrame(const Block &block);
    Frame FrameAt(const Block &block, size_t header, size_t size);
    void Finish();

    template <class T>
    T At(const uint8_t *from) const;
    int64_t Time(uint64_t units) const;

    ByteSource &source_;
    bool swapped_ = false;
    bool inSection_ = false;
    std::vector<Interface> interfaces_;  // of the section
    size_t current_ = 0;
    uint32_t unread_ = 0;  // bytes of the last block
};

}  // namespace capture
