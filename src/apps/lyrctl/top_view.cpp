#include "top_view.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <numeric>
#include <sstream>

#include "control/counters.h"
#include "control/values.h"

namespace lyrctl {
namespace {

using control::InstancePackets;
using control::kPacketClassWords;
using control::kPacketCounters;
using control::PacketCounter;
using control::TableFill;

#define WORDS(name, words) words,
constexpr const char *kFates[] = {CONTROL_FATES(WORDS)};
#undef WORDS
constexpr size_t kFateNum = std::size(kFates);

// From this height on there is room for empty lines between the parts.
constexpr size_t kRoomy = 32;
// As many service instances, the busiest, come before the parts that matter less.
constexpr size_t kFewInstances = 4;
// Up to there a share's bar goes, on a wider screen too.
constexpr size_t kBarEnd = 100;

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
    const uint64_t counts[] = {CONTROL_FATES(FATE)};
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
    // Packets a second that a port has received, and sent.
    std::pair<double, double> Port(const control::PortReading &port) const {
        const auto before =
            std::ranges::find(earlier_.ports, port.name, &control::PortReading::name);
        return before == earlier_.ports.end()
                   ? std::pair(0.0, 0.0)
                   : std::pair(PerSecond(Grown(before->received, port.received)),
                               PerSecond(Grown(before->sent, port.sent)));
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
using Row = std::vector<std::string>;

std::string NumberText(double number) {
    return Format("%.0f", number);
}

// A row of headings and rows below it; the first column begins its line, the others end where their
// headings do. Columns get the width that is wanted for them, or else what their cells need; those
// for which there is no room are left out whole, the last first.
Lines Table(const std::vector<Row> &rows, std::vector<size_t> widths, size_t width) {
    std::vector<size_t> needed(widths.size());
    for (const Row &row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            needed[i] = std::max(needed[i], row[i].size() + (i == 0 ? 0 : 2));
        }
    }
    std::ranges::transform(widths, needed, widths.begin(),
                           [](size_t wanted, size_t need) { return std::max(wanted, need); });
    if (std::accumulate(widths.begin(), widths.end(), size_t{0}) > width) {
        widths = needed;
    }
    Lines lines;
    for (const Row &row : rows) {
        Line &line = lines.emplace_back();
        line.emphasis = lines.size() == 1 ? Emphasis::kHeading : Emphasis::kNone;
        for (size_t i = 0; i < row.size() && line.text.size() + widths[i] <= width; ++i) {
            const std::string space(widths[i] - row[i].size(), ' ');
            line.text += i == 0 ? row[i] + space : space + row[i];
        }
    }
    return lines;
}

// A sentence behind its subject, on as many lines as it needs.
Lines Sentence(const std::string &subject, const std::string &text, size_t width,
               Emphasis emphasis = Emphasis::kNone) {
    Lines lines = {{subject, emphasis}};
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (lines.back().text.size() + 1 + word.size() > width) {
            lines.push_back({std::string(subject.size(), ' '), emphasis});
        }
        lines.back().text += " " + word;
    }
    return lines;
}

std::string TextOf(const ordered_json &state, const char *name) {
    const auto member = state.find(name);
    return member != state.end() && member->is_string() ? member->get<std::string>() : "";
}

// As much as there is room for.
Lines Title(const Reading &reading, size_t width) {
    const std::string name = "lyrctl top", capture = TextOf(reading.state, "capture");
    const std::string moment = name + "  " + control::TimeText(std::time(nullptr));
    const std::string captures[] = {"  " + capture, "  " + capture.substr(capture.rfind('/') + 1),
                                    ""};
    for (const std::string &which : captures) {
        if (moment.size() + which.size() <= width) {
            return {{moment + which, Emphasis::kTitle}};
        }
    }
    return {{name, Emphasis::kTitle}};
}

Lines Fates(const Reading &later, const Interval &interval, size_t width) {
    std::vector<Row> rows = {{"packets", "received"},
                             {"per second", NumberText(interval.Received())},
                             {"total", std::to_string(later.received)}};
    for (size_t i = 0; i < kFateNum; ++i) {
        rows[0].emplace_back(kFates[i]);
        rows[1].push_back(NumberText(interval.Fate(i)));
        rows[2].push_back(std::to_string(FateOf(later, i)));
    }
    return Table(rows, {14, 12, 13, 13, 13, 13}, width);
}

Lines Classes(const Interval &interval, size_t width) {
    std::vector<Row> rows = {{"per second"}};
    rows[0].insert(rows[0].end(), kPacketClassWords.begin(), kPacketClassWords.end());
    for (const PacketCounter &counter : kPacketCounters) {
        Row &row = rows.emplace_back(Row{counter.words});
        for (size_t i = 0; i < kPacketClassWords.size(); ++i) {
            row.push_back(NumberText(interval.Class(i, counter.value)));
        }
    }
    return Table(rows, {17, 9, 13, 16}, width);
}

Lines Tables(const Reading &later, size_t width) {
    std::vector<Row> rows = {{"table", "entries", "buckets", "per bucket"}};
    for (const TableFill &table : later.tables) {
        rows.push_back({table.name, std::to_string(table.entries), std::to_string(table.buckets),
                        Format("%.3f", EntriesPerBucket(table))});
    }
    return Table(rows, {14, 12, 13, 13}, width);
}

Lines Drops(const MundDropWatch &watch, size_t width) {
    constexpr const char *kSubject = "drops ";
    if (watch.periodStart == MUND_DROP_WATCH_CLOSED) {
        return Sentence(kSubject, "none; the alarm is not raised", width);
    }
    const bool raised = watch.alarmRaised != 0;
    const std::string periods =
        Format("%u of %u %s", raised ? watch.contNoDropPeriods : watch.contDropPeriods,
               unsigned{MUND_DROP_ALARM_PERIODS}, raised ? "quiet periods" : "periods with drops");
    return Sentence(kSubject,
                    Format("%u of %u packets; ", watch.dropNum, watch.totalNum) +
                        (raised ? "ALARM RAISED, " : "the alarm is not raised, ") + periods,
                    width, raised ? Emphasis::kAlarm : Emphasis::kNone);
}

// Those that have got anything.
std::vector<InstancePackets> Busiest(const Reading &later, const Interval &interval, SortKey sort) {
    std::vector<InstancePackets> busiest = later.instances;
    std::erase_if(busiest, [](const InstancePackets &packets) { return packets.Total() == 0; });
    const auto value = [&](const InstancePackets &packets) -> double {
        switch (sort) {
            case SortKey::kInstance:
                return -static_cast<double>(packets.instance);
            case SortKey::kCwp:
                return interval.Cwp(packets);
            case SortKey::kWapi:
                return interval.Wapi(packets);
            case SortKey::kTotal:
                return static_cast<double>(packets.Total());
            case SortKey::kRate:
                break;
        }
        return interval.Rate(packets);
    };
    std::ranges::stable_sort(busiest, std::greater(), value);
    return busiest;
}

// The heading and an instance a row, as far as they go.
Lines Instances(std::vector<InstancePackets> busiest, const Interval &interval,
                const InstanceView &view, size_t width, size_t height) {
    const bool all = busiest.size() < height;
    const size_t left = all ? 0 : busiest.size() - std::min(busiest.size(), height - 2);
    busiest.resize(busiest.size() - left);
    std::vector<Row> rows = {{"instance", "cwp/s", "wapi/s", "share", "total"}};
    for (const InstancePackets &packets : busiest) {
        rows.push_back({Format("%8u", packets.instance), NumberText(interval.Cwp(packets)),
                        NumberText(interval.Wapi(packets)),
                        Format("%.1f %%", 100 * interval.Share(packets)),
                        std::to_string(packets.Total())});
    }
    Lines lines = Table(rows, {8, 12, 12, 10, 14}, width);
    const size_t begin = lines.front().text.size() + 2;
    const size_t room = std::max(begin, std::min(width, kBarEnd)) - begin;
    for (size_t i = 0; i < busiest.size(); ++i) {
        const double bar = interval.Share(busiest[i]) * static_cast<double>(room);
        lines[i + 1].text +=
            "  " + (view.history != nullptr && view.history->IsWorthALine()
                        ? view.history->LineOf(busiest[i].instance, room, view.blocks)
                        : std::string(static_cast<size_t>(std::lround(bar)), '#'));
    }
    if (left > 0) {
        lines.push_back({Format("%8s  %zu more", "...", left)});
    } else if (busiest.empty()) {
        lines.push_back({"    none has got anything"});
    }
    return lines;
}

// A port a row, and the packet buffers; nothing of an engine without ports.
Lines Ports(const Interval &interval, const Reading &later, size_t width) {
    if (later.ports.empty()) {
        return {};
    }
    std::vector<Row> rows = {{"port", "role", "received/s", "sent/s", "dropped", "waiting"}};
    for (const control::PortReading &port : later.ports) {
        const auto [received, sent] = interval.Port(port);
        const std::string room = port.room == 0 ? "" : " of " + std::to_string(port.room);
        rows.push_back({port.name, port.role, NumberText(received), NumberText(sent),
                        std::to_string(port.dropped),
                        room.empty() ? "-" : std::to_string(port.waiting) + room});
    }
    Lines lines = Table(rows, {12, 13, 12, 12, 10, 14}, width);
    const ordered_json &buffers = later.state.at("buffers");
    lines.push_back({"buffers " + buffers.at("inUse").dump() + " of " + buffers.at("total").dump() +
                     " in use"});
    return lines;
}

ordered_json Count(uint64_t total, double perSecond) {
    return {{"total", total}, {"perSecond", perSecond}};
}

size_t HeightOf(const std::vector<Lines> &parts) {
    size_t height = 0;
    for (const Lines &part : parts) {
        height += part.size();
    }
    return height;
}

}  // namespace

std::optional<SortKey> SortKeyOf(const std::string &word) {
    constexpr std::pair<std::string_view, SortKey> kWords[] = {{"rate", SortKey::kRate},
                                                               {"instance", SortKey::kInstance},
                                                               {"cwp", SortKey::kCwp},
                                                               {"wapi", SortKey::kWapi},
                                                               {"total", SortKey::kTotal}};
    const auto *found =
        std::ranges::find(kWords, word, [](const auto &known) { return known.first; });
    return found == std::end(kWords) ? std::nullopt : std::optional(found->second);
}

std::map<uint32_t, double> RatesOf(const Reading &earlier, const Reading &later) {
    const Interval interval(earlier, later);
    std::map<uint32_t, double> rates;
    for (const InstancePackets &packets : later.instances) {
        rates[packets.instance] = interval.Rate(packets);
    }
    return rates;
}

std::vector<Line> TopLines(const Reading &earlier, const Reading &later, size_t width,
                           size_t height, const InstanceView &view) {
    const Interval interval(earlier, later);
    const std::vector<InstancePackets> busiest =
        Busiest(later, interval, view.sort.value_or(SortKey::kRate));
    // What matters most comes first, and what matters least goes first where there is no room.
    std::vector<Lines> parts = {Title(later, width), Fates(later, interval, width),
                                Drops(later.drops, width), Classes(interval, width),
                                Tables(later, width)};
    if (Lines ports = Ports(interval, later, width); !ports.empty()) {
        parts.insert(parts.begin() + 3, std::move(ports));
    }
    constexpr size_t kDispensable = 2;
    const size_t few = 1 + std::clamp<size_t>(busiest.size(), 1, kFewInstances);
    for (size_t i = 0; i < kDispensable && HeightOf(parts) + few > height; ++i) {
        parts.pop_back();
    }
    Lines lines;
    for (const Lines &part : parts) {
        lines.insert(lines.end(), part.begin(), part.end());
        lines.resize(lines.size() + (height >= kRoomy ? 1 : 0));
    }
    const size_t left = height - std::min(lines.size(), height);
    const Lines instances = Instances(busiest, interval, view, width, std::max<size_t>(left, 2));
    lines.insert(lines.end(), instances.begin(), instances.end());
    lines.resize(std::min(lines.size(), height));
    for (Line &line : lines) {
        line.text.resize(line.text.find_last_not_of(' ') + 1);
        line.text = FirstCharacters(line.text, width);
    }
    return lines;
}

ordered_json TopJson(const Reading &earlier, const Reading &later, const InstanceView &view) {
    const Interval interval(earlier, later);
    ordered_json json = {{"time", control::TimeText(std::time(nullptr))},
                         {"seconds", interval.Seconds()},
                         {"received", Count(later.received, interval.Received())}};
    for (size_t i = 0; i < kFateNum; ++i) {
        json["fates"][kFates[i]] = Count(FateOf(later, i), interval.Fate(i));
    }
    for (size_t row = 0; row < std::size(kPacketClassWords); ++row) {
        ordered_json &rates = json["classes"].emplace_back();
        rates["class"] = kPacketClassWords[row];
        for (const PacketCounter &counter : kPacketCounters) {
            rates[counter.name] =
                Count(later.classes[row].*counter.value, interval.Class(row, counter.value));
        }
    }
    json["tables"] = ordered_json::array();
    for (const TableFill &table : later.tables) {
        json["tables"].push_back({{"table", table.name},
                                  {"entries", table.entries},
                                  {"buckets", table.buckets},
                                  {"entriesPerBucket", EntriesPerBucket(table)}});
    }
    if (!later.ports.empty()) {
        json["ports"] = later.state.at("ports");
        json["buffers"] = later.state.at("buffers");
    }
    if (later.state.contains("reassembly")) {
        json["reassembly"] = later.state.at("reassembly");
    }
    json["drops"] = control::DropWatchToJson(later.drops);
    json["instances"] = ordered_json::array();
    for (const InstancePackets &packets :
         view.sort ? Busiest(later, interval, *view.sort) : later.instances) {
        json["instances"].push_back({{"instance", packets.instance},
                                     {"cwp", Count(packets.cwp, interval.Cwp(packets))},
                                     {"wapi", Count(packets.wapi, interval.Wapi(packets))},
                                     {"packets", Count(packets.Total(), interval.Rate(packets))},
                                     {"share", interval.Share(packets)}});
    }
    return json;
}

}  // namespace lyrctl
