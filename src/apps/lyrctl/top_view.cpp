#include "top_view.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "control/statistics_words.h"
#include "control/values.h"

namespace lyrctl {
namespace {

using control::kPacketClassWords;

struct ClassColumn {
    const char *heading;
    int width;
    const char *key;
    uint32_t LyrKesPktStat::*count;
};

// The last three are reasons of "failed".
constexpr ClassColumn kClassColumns[] = {
    {"received", 9, "received", &LyrKesPktStat::rxCnt},
    {"sent", 9, "sent", &LyrKesPktStat::sendOkCnt},
    {"unsent", 8, "sendFailed", &LyrKesPktStat::sendFailCnt},
    {"failed", 8, "processingFailed", &LyrKesPktStat::procFailCnt},
    {"by source", 11, "sourceMismatch", &LyrKesPktStat::srcMismatchCnt},
    {"by table", 10, "notDistributed", &LyrKesPktStat::distFailCnt},
    {"by session", 11, "sessionIdFailed", &LyrKesPktStat::kaSessionFailCnt},
};

#define WORDS(name, words) words,
constexpr const char *kFates[] = {LYRCTL_FATES(WORDS)};
#undef WORDS
constexpr size_t kFateNum = std::size(kFates);

// From this height on there is room for empty lines between the parts.
constexpr size_t kRoomy = 32;

__attribute__((format(printf, 1, 2))) std::string Format(const char *format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

uint64_t FateOf(const Reading &reading, size_t fate) {
#define FATE(name, words) reading.name,
    const uint64_t counts[] = {LYRCTL_FATES(FATE)};
#undef FATE
    return counts[fate];
}

// What was counted meanwhile; all of it after a counter has been set to zero.
uint64_t Grown(uint64_t earlier, uint64_t later) {
    return later >= earlier ? later - earlier : later;
}

// The same of a counter of 32 bits, which may also have begun anew at its end.
uint64_t Grown(uint32_t earlier, uint32_t later) {
    const uint32_t grown = later - earlier;
    return later >= earlier || grown < 1u << 31 ? grown : later;
}

// Two readings and what lies between them.
class Interval {
  public:
    Interval(const Reading &earlier, const Reading &later)
        : earlier_(earlier),
          later_(later),
          seconds_(std::chrono::duration<double>(later.when - earlier.when).count()) {}

    double Seconds() const {
        return seconds_;
    }
    double Received() const {
        return PerSecond(Grown(earlier_.received, later_.received));
    }
    double Fate(size_t fate) const {
        return PerSecond(Grown(FateOf(earlier_, fate), FateOf(later_, fate)));
    }
    double Class(size_t row, uint32_t LyrKesPktStat::*count) const {
        return PerSecond(Grown(earlier_.classes[row].*count, later_.classes[row].*count));
    }
    double Cwp(const InstancePackets &packets) const {
        return PerSecond(Grown(Before(packets).cwp, packets.cwp));
    }
    double Wapi(const InstancePackets &packets) const {
        return PerSecond(Grown(Before(packets).wapi, packets.wapi));
    }
    double Rate(const InstancePackets &packets) const {
        return Cwp(packets) + Wapi(packets);
    }
    // Of what all instances get.
    double Share(const InstancePackets &packets) const {
        double all = 0;
        for (const InstancePackets &any : later_.instances) {
            all += Rate(any);
        }
        return all > 0 ? Rate(packets) / all : 0;
    }

  private:
    double PerSecond(uint64_t count) const {
        return seconds_ > 0 ? static_cast<double>(count) / seconds_ : 0;
    }
    InstancePackets Before(const InstancePackets &packets) const {
        const auto before =
            std::ranges::find(earlier_.instances, packets.instance, &InstancePackets::instance);
        return before == earlier_.instances.end() ? InstancePackets{} : *before;
    }

    const Reading &earlier_;
    const Reading &later_;
    double seconds_;
};

double EntriesPerBucket(const TableFill &table) {
    return table.buckets == 0 ? 0 : static_cast<double>(table.entries) / table.buckets;
}

using Lines = std::vector<Line>;

std::string TextOf(const ordered_json &state, const char *name) {
    const auto member = state.find(name);
    return member != state.end() && member->is_string() ? member->get<std::string>() : "";
}

void AddTitle(Lines &lines, const Reading &reading) {
    std::string title = "lyrctl top  " + control::TimeText(std::time(nullptr));
    if (const std::string capture = TextOf(reading.state, "capture"); !capture.empty()) {
        title += "  " + capture;
    }
    lines.push_back({title, Emphasis::kTitle});
}

void AddFates(Lines &lines, const Reading &later, const Interval &interval) {
    std::string heading = Format("%-14s%12s", "packets", "received");
    std::string rates = Format("%-14s%12.0f", "per second", interval.Received());
    std::string totals =
        Format("%-14s%12llu", "total", static_cast<unsigned long long>(later.received));
    for (size_t i = 0; i < kFateNum; ++i) {
        heading += Format("%13s", kFates[i]);
        rates += Format("%13.0f", interval.Fate(i));
        totals += Format("%13llu", static_cast<unsigned long long>(FateOf(later, i)));
    }
    lines.insert(lines.end(), {{heading, Emphasis::kHeading}, {rates}, {totals}});
}

void AddClasses(Lines &lines, const Interval &interval) {
    std::string heading = Format("%-14s", "per second");
    for (const ClassColumn &column : kClassColumns) {
        heading += Format("%*s", column.width, column.heading);
    }
    lines.push_back({heading, Emphasis::kHeading});
    for (size_t row = 0; row < std::size(kPacketClassWords); ++row) {
        std::string text = Format("%-14s", kPacketClassWords[row]);
        for (const ClassColumn &column : kClassColumns) {
            text += Format("%*.0f", column.width, interval.Class(row, column.count));
        }
        lines.push_back({text});
    }
}

void AddTables(Lines &lines, const Reading &later) {
    lines.push_back({Format("%-14s%12s%12s%16s", "table", "entries", "buckets", "a bucket"),
                     Emphasis::kHeading});
    for (const TableFill &table : later.tables) {
        lines.push_back({Format("%-14s%12llu%12u%16.3f", table.name.c_str(),
                                static_cast<unsigned long long>(table.entries), table.buckets,
                                EntriesPerBucket(table))});
    }
}

void AddDrops(Lines &lines, const MundDropWatch &watch) {
    if (watch.periodStart == MUND_DROP_WATCH_CLOSED) {
        lines.push_back({"drops         none; the alarm is not raised"});
        return;
    }
    const bool raised = watch.alarmRaised != 0;
    const std::string periods =
        Format("%u of %u %s", raised ? watch.contNoDropPeriods : watch.contDropPeriods,
               unsigned{MUND_DROP_ALARM_PERIODS}, raised ? "quiet periods" : "periods with drops");
    lines.push_back({Format("drops         %u of %u packets; ", watch.dropNum, watch.totalNum) +
                         (raised ? "ALARM RAISED, " : "the alarm is not raised, ") + periods,
                     raised ? Emphasis::kAlarm : Emphasis::kNone});
}

void AddInstances(Lines &lines, const Reading &later, const Interval &interval, size_t width,
                  size_t height) {
    std::vector<InstancePackets> busiest = later.instances;
    std::erase_if(busiest, [](const InstancePackets &packets) { return packets.Total() == 0; });
    std::ranges::stable_sort(busiest, std::greater(), [&](const InstancePackets &packets) {
        return interval.Rate(packets);
    });
    lines.push_back({Format("%8s%12s%12s%14s%9s", "instance", "cwp/s", "wapi/s", "total", "share"),
                     Emphasis::kHeading});
    const size_t columns = lines.back().text.size() + 2;
    const size_t room = std::max(columns, std::min<size_t>(width, 100)) - columns;
    for (const InstancePackets &packets : busiest) {
        const size_t left = busiest.size() - static_cast<size_t>(&packets - busiest.data());
        if (left > 1 && lines.size() + 1 >= height) {
            lines.push_back({Format("%8s  %zu more", "...", left)});
            return;
        }
        const double share = interval.Share(packets);
        const auto bar = static_cast<size_t>(std::lround(share * static_cast<double>(room)));
        lines.push_back({Format("%8u%12.0f%12.0f%14llu%7.1f %%  ", packets.instance,
                                interval.Cwp(packets), interval.Wapi(packets),
                                static_cast<unsigned long long>(packets.Total()), 100 * share) +
                         std::string(bar, '#')});
    }
    if (busiest.empty()) {
        lines.push_back({"    none has got anything"});
    }
}

}  // namespace

Lines TopLines(const Reading &earlier, const Reading &later, size_t width, size_t height) {
    const Interval interval(earlier, later);
    Lines lines;
    const auto gap = [&] {
        if (height >= kRoomy) {
            lines.push_back({});
        }
    };
    AddTitle(lines, later);
    gap();
    AddFates(lines, later, interval);
    gap();
    AddClasses(lines, interval);
    gap();
    AddTables(lines, later);
    gap();
    AddDrops(lines, later.drops);
    gap();
    AddInstances(lines, later, interval, width, height);
    lines.resize(std::min(lines.size(), height));
    for (Line &line : lines) {
        line.text.resize(std::min(line.text.find_last_not_of(' ') + 1, width));
    }
    return lines;
}

ordered_json TopJson(const Reading &earlier, const Reading &later) {
    const Interval interval(earlier, later);
    ordered_json json = {
        {"time", control::TimeText(std::time(nullptr))},
        {"seconds", interval.Seconds()},
        {"received", {{"total", later.received}, {"perSecond", interval.Received()}}}};
    for (size_t i = 0; i < kFateNum; ++i) {
        json["fates"][kFates[i]] = {{"total", FateOf(later, i)}, {"perSecond", interval.Fate(i)}};
    }
    for (size_t row = 0; row < std::size(kPacketClassWords); ++row) {
        ordered_json &rates = json["classes"].emplace_back();
        rates["class"] = kPacketClassWords[row];
        for (const ClassColumn &column : kClassColumns) {
            rates[column.key] = interval.Class(row, column.count);
        }
    }
    json["tables"] = ordered_json::array();
    for (const TableFill &table : later.tables) {
        json["tables"].push_back({{"table", table.name},
                                  {"entries", table.entries},
                                  {"buckets", table.buckets},
                                  {"entriesPerBucket", EntriesPerBucket(table)}});
    }
    const MundDropWatch &watch = later.drops;
    json["drops"] = {{"alarmRaised", watch.alarmRaised != 0},
                     {"open", watch.periodStart != MUND_DROP_WATCH_CLOSED},
                     {"dropped", watch.dropNum},
                     {"messages", watch.totalNum}};
    json["instances"] = ordered_json::array();
    for (const InstancePackets &packets : later.instances) {
        json["instances"].push_back({{"instance", packets.instance},
                                     {"cwpPerSecond", interval.Cwp(packets)},
                                     {"wapiPerSecond", interval.Wapi(packets)},
                                     {"total", packets.Total()},
                                     {"share", interval.Share(packets)}});
    }
    return json;
}

}  // namespace lyrctl
