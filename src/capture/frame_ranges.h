// Which frames of a capture are meant, by their numbers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace capture {

class FrameRanges {
  public:
    // All of them.
    FrameRanges() = default;
    // "7", "3-9", "100-", "-20", and several of these with commas between them; `name` says in
    // errors what the text stands for. Throws Error.
    FrameRanges(std::string_view name, std::string_view text);

    bool AreAll() const {
        return ranges_.empty();
    }
    bool Contain(uint64_t number) const;
    // None before this one is meant.
    uint64_t First() const {
        return AreAll() ? 1 : ranges_.front().first;
    }
    // No frame behind this one is meant.
    uint64_t Last() const {
        return AreAll() ? UINT64_MAX : ranges_.back().second;
    }
    // As they were given, behind what they stand for: "--frames '3-9'".
    const std::string &Text() const {
        return text_;
    }

  private:
    std::string text_;
    std::vector<std::pair<uint64_t, uint64_t>> ranges_;  // in order, apart from each other
};

}  // namespace capture
