// What top shows: the difference of two readings, as lines.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "control/reading.h"
#include "rate_history.h"

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

// What the busiest instance is judged by.
enum class SortKey { kRate, kInstance, kCwp, kWapi, kTotal };
// Nothing for a word that is none; the words are "rate", "instance", "cwp", "wapi", "total".
std::optional<SortKey> SortKeyOf(const std::string &word);

// How instances are shown.
struct InstanceView {
    std::optional<SortKey> sort;           // the rate if none is given
    const RateHistory *history = nullptr;  // instead of bars
    bool blocks = false;                   // for the history
};

// Packets a second of each instance, for a history.
std::map<uint32_t, double> RatesOf(const Reading &earlier, const Reading &later);

// The frame for a screen of this size: no line is wider, and there are no more of them.
std::vector<Line> TopLines(const Reading &earlier, const Reading &later, size_t width,
                           size_t height, const InstanceView &view = {});

// {"time", "seconds", "received": {"total", "perSecond"}, "fates": {FATE: the same}, "classes":
// [{"class", COUNTER: the same}], "instances": [{"instance", "cwp", "wapi", "packets": the same,
// "share"}], "tables": [{"table", "entries", "buckets", "entriesPerBucket"}], "drops":
// {...}}
ordered_json TopJson(const Reading &earlier, const Reading &later, const InstanceView &view = {});

}  // namespace lyrctl
