// What top shows: the difference of two readings, as lines.
#pragma once

#include <string>
#include <vector>

#include "control/reading.h"

namespace lyrctl {

using control::Reading;
using nlohmann::ordered_json;

enum class Emphasis { kNone, kTitle, kHeading, kAlarm };

struct Line {
    std::string text;
    Emphasis emphasis = Emphasis::kNone;

    bool operator==(const Line &) const = default;
};

inline constexpr size_t kUnlimited = SIZE_MAX;

// The frame for a screen of this size: no line is wider, and there are no more of them.
std::vector<Line> TopLines(const Reading &earlier, const Reading &later, size_t width,
                           size_t height);

// {"time", "seconds", "received": {"total", "perSecond"}, "fates": {FATE: the same}, "classes":
// [{"class", COUNTER: the same}], "instances": [{"instance", "cwp", "wapi", "packets": the same,
// "share"}], "tables": [{"table", "entries", "buckets", "entriesPerBucket"}], "drops":
// {...}}
ordered_json TopJson(const Reading &earlier, const Reading &later);

}  // namespace lyrctl
