#include "capture/frame_ranges.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "capture/error.h"

namespace capture {
namespace {

// Of a whole text; nothing for one that is not a number from 1.
std::optional<uint64_t> NumberOf(std::string_view text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && number > 0 ? std::optional(number) : std::nullopt;
}

// "A", "A-B", "A-" or "-B".
std::optional<std::pair<uint64_t, uint64_t>> RangeOf(std::string_view text) {
    const size_t dash = text.find('-');
    if (dash == std::string_view::npos) {
        const auto number = NumberOf(text);
        return number ? std::optional(std::pair(*number, *number)) : std::nullopt;
    }
    const std::string_view from = text.substr(0, dash), to = text.substr(dash + 1);
    const auto first = from.empty() ? 1 : NumberOf(from);
    const auto last = to.empty() ? UINT64_MAX : NumberOf(to);
    if (!first || !last || *first > *last || text.size() == 1) {
        return std::nullopt;
    }
    return std::pair(*first, *last);
}

}  // namespace

FrameRanges::FrameRanges(std::string_view name, std::string_view text)
    : text_(std::string(name) + " '" + std::string(text) + "'") {
    for (std::string_view rest = text;;) {
        const size_t comma = rest.find(',');
        const std::string_view part = rest.substr(0, comma);
        const auto range = RangeOf(part);
        if (!range) {
            throw Error(text_ + ": '" + std::string(part) +
                        "' is not a frame or a range of frames, counted from 1, such as 7, 3-9, "
                        "100- or -20");
        }
        ranges_.push_back(*range);
        if (comma == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(comma + 1);
    }
    std::ranges::sort(ranges_);
    size_t kept = 0;
    for (const auto &[first, last] : ranges_) {
        if (kept > 0 && first <= ranges_[kept - 1].second) {
            ranges_[kept - 1].second = std::max(ranges_[kept - 1].second, last);
        } else {
            ranges_[kept++] = {first, last};
        }
    }
    ranges_.resize(kept);
}

bool FrameRanges::Contain(uint64_t number) const {
    const auto behind = std::ranges::upper_bound(ranges_, number, {},
                                                 [](const auto &range) { return range.first; });
    return AreAll() || (behind != ranges_.begin() && number <= std::prev(behind)->second);
}

}  // namespace capture
