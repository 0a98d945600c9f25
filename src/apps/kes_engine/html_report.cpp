#include "html_report.h"

#include <algorithm>
#include <map>
#include <ranges>
#include <span>

#include "control/counters.h"
#include "html.h"

namespace kes_engine {
namespace {

using html::Cell;
using html::Row;
using html::Series;

// What a picture or table shows at most; the rest is told.
constexpr size_t kMostInstances = 48;
constexpr size_t kMostTalks = 25;
constexpr size_t kMostSteps = 120;
constexpr size_t kMostRowsOfTime = 12;

std::string Section(const char *title, const std::string &content) {
    return std::string("<section>\n<h2>") + title + "</h2>\n" + content + "</section>\n";
}

std::string Paragraph(const std::string &text, const char *style = "soft") {
    return std::string("<p class=\"") + style + "\">" + html::Escaped(text) + "</p>\n";
}

std::string Count(uint64_t number, const std::string &what) {
    return html::Grouped(number) + " " + what + (number == 1 ? "" : "s");
}

double PerSecond(uint64_t packets, double seconds) {
    return seconds > 0 ? static_cast<double>(packets) / seconds : 0;
}

std::string Head(const Result &result) {
    std::string head = "<header>\n<h1>" + html::Escaped(result.capture) + "</h1>\n";
    head += Paragraph((result.begunAt.empty() ? "" : "begun " + result.begunAt + ", ") +
                      Count(result.workers, "worker") + ", " + Count(result.commands, "command"));
    head += Paragraph(result.Ok() ? "All packets are accounted for, and nothing went wrong."
                                  : "Something went wrong: see below.",
                      result.Ok() ? "" : "bad");
    head += "<dl class=\"tiles\">\n";
    const auto tile = [&head](const char *name, const std::string &value) {
        head += std::string("<div><dt>") + name + "</dt><dd>" + value + "</dd></div>\n";
    };
    tile("received", html::Grouped(result.received));
    tile("taken", html::Grouped(result.fates.taken));
    tile("undelivered", html::Grouped(result.fates.undelivered));
    tile("returned", html::Grouped(result.fates.returned));
    tile("transmitted", html::Grouped(result.fates.transmitted));
    tile("seconds", html::Decimal(result.seconds, 3));
    tile("packets/s", html::Decimal(PerSecond(result.frames, result.seconds), 0));
    return head + "</dl>\n</header>\n";
}

// What is to be known before the numbers are believed.
std::string Notes(const Result &result) {
    std::string notes;
    const auto list = [&notes](const char *what, const std::vector<std::string> &lines,
                               const char *style) {
        for (const std::string &line : lines) {
            notes += Paragraph(what + line, style);
        }
    };
    if (!result.Conserved()) {
        notes += Paragraph("Packets are not conserved.", "bad");
    }
    list("", result.failures, "bad");
    list("Left behind by the module: ", result.leftovers, "bad");
    list(result.CountsAreExact() ? "The counters contradict what was seen: "
                                 : "Counts lost by several workers, or reset: ",
         result.Contradictions(), result.CountsAreExact() ? "bad" : "soft");
    if (result.lostLogLines > 0) {
        notes += Paragraph(
            Count(result.lostLogLines, "line") + " lost that the log could not take.", "bad");
    }
    if (result.oversize > 0) {
        notes +=
            Paragraph(Count(result.oversize, "frame") + " left out: too long for a buffer.", "bad");
    }
    if (result.cutShort > 0) {
        notes += Paragraph(Count(result.cutShort, "frame") +
                           " cut short by the capture: what depends on the bytes that it lacks, as "
                           "\"damaged\", is not to be trusted.");
    }
    for (const auto &[linkType, frames] : result.tally.converted) {
        notes += Paragraph(Count(frames, "frame") + " of " + linkType + " got an Ethernet header.");
    }
    if (result.tally.passedOver > 0) {
        notes += Paragraph(Count(result.tally.passedOver, "frame") +
                           " passed over that were not selected.");
    }
    return notes.empty() ? "" : Section("Notes", notes);
}

std::string Interfaces(const Result &result) {
    if (result.interfaces.empty()) {
        return "";
    }
    std::vector<Row> rows = {
        {"interface", "frames", "dropped by the kernel", "dropped by the interface"}};
    for (const InterfaceCounts &counts : result.interfaces) {
        rows.push_back(
            {counts.interface, counts.frames, counts.dropped, counts.droppedByInterface});
    }
    return Section("Interfaces", html::Table("interfaces", "What was listened to", rows));
}

std::string FatesSection(const Result &result) {
    const std::pair<const char *, uint64_t> fates[] = {{"taken", result.fates.taken},
                                                       {"undelivered", result.fates.undelivered},
                                                       {"returned", result.fates.returned},
                                                       {"transmitted", result.fates.transmitted}};
    const char *const meanings[] = {
        "a service instance got them", "for a service instance, and did not reach it",
        "left to the engine, data packets among them", "from the controller's own addresses"};
    std::vector<std::string> names;
    std::vector<Series> series;
    std::vector<Row> rows = {{"fate", "packets", "share", "what it means"}};
    for (size_t i = 0; i < std::size(fates); ++i) {
        const auto &[name, packets] = fates[i];
        names.emplace_back(name);
        series.push_back({name, name, std::vector<double>(std::size(fates))});
        series.back().values[i] = static_cast<double>(packets);
        const double share = result.frames == 0 ? 0
                                                : 100 * static_cast<double>(packets) /
                                                      static_cast<double>(result.frames);
        Cell percent(share, 1);
        percent.html += " %";
        rows.push_back({name, packets, percent, meanings[i]});
    }
    return Section("Where packets went", html::Bars("Packets by fate", names, series) +
                                             html::Table("fates", "Packets by fate", rows));
}

// --- instances ---

std::string InstancesSection(const Result &result) {
    if (result.instances.empty()) {
        return Section("Service instances", Paragraph("None has got anything."));
    }
    std::vector<InstanceReport> busiest = result.instances;
    std::ranges::stable_sort(busiest, std::greater(), [](const InstanceReport &report) {
        return report.cwp.packets + report.wapi.packets;
    });
    const size_t left = busiest.size() - std::min(busiest.size(), kMostInstances);
    busiest.resize(busiest.size() - left);
    std::ranges::sort(busiest, {}, &InstanceReport::instance);
    std::vector<std::string> names;
    std::vector<Series> series = {{"CAPWAP (cwp)", "cwp", {}}, {"stations (wapi)", "wapi", {}}};
    for (const InstanceReport &report : busiest) {
        names.push_back("instance " + std::to_string(report.instance));
        series[0].values.push_back(static_cast<double>(report.cwp.packets));
        series[1].values.push_back(static_cast<double>(report.wapi.packets));
    }
    std::vector<Row> rows = {{"instance", "cwp", "wapi"}};
    for (const InstanceReport &report : result.instances) {
        rows.push_back({std::to_string(report.instance), report.cwp.packets, report.wapi.packets});
    }
    return Section("Service instances",
                   html::Legend(series) + html::Bars("Packets by instance", names, series) +
                       (left == 0 ? ""
                                  : Paragraph(Count(left, "further instance") +
                                              " got fewer packets: see the table.")) +
                       html::Table("instances", "Packets by instance", rows));
}

std::string MessagesSection(const Result &result) {
    std::map<std::string, std::map<uint32_t, uint64_t>> messages;
    for (const InstanceReport &report : result.instances) {
        for (const InstanceReport::Received *received : {&report.cwp, &report.wapi}) {
            for (const auto &[message, packets] : received->messages) {
                messages[message][report.instance] += packets;
            }
        }
    }
    std::vector<Row> rows = {{"type", "packets", "by instance"}};
    for (const auto &[message, byInstance] : messages) {
        uint64_t sum = 0;
        std::string words;
        for (const auto &[instance, packets] : byInstance) {
            sum += packets;
            words += (words.empty() ? "" : ", ") + std::to_string(instance) + ": " +
                     std::to_string(packets);
        }
        rows.push_back({message, sum, words});
    }
    return messages.empty() ? ""
                            : Section("Types of packets",
                                      html::Table("messages", "What the instances got", rows));
}

std::string CountersSection(const Result &result) {
    if (!result.counters) {
        return Section("The module's counters", Paragraph("None could be had of the module."));
    }
    std::vector<Row> rows = {{"counter"}};
    for (const char *name : control::kPacketClassWords) {
        rows[0].emplace_back(name);
    }
    for (const control::PacketCounter &counter : control::kPacketCounters) {
        Row &row = rows.emplace_back(Row{counter.words});
        for (const LyrKesPktStat &of : *result.counters) {
            row.emplace_back(uint64_t{of.*counter.value});
        }
    }
    return Section("The module's counters",
                   html::Table("counters", "Packets by class, as the module counts them", rows));
}

// --- time ---

// Every n-th point and the last.
std::vector<TimePoint> Thinned(const std::vector<TimePoint> &points, size_t most) {
    const size_t step = (points.size() + most - 1) / most;
    std::vector<TimePoint> thinned;
    for (size_t i = 0; i + 1 < points.size(); i += step) {
        thinned.push_back(points[i]);
    }
    thinned.push_back(points.back());
    return thinned;
}

struct Curve {
    const char *name;
    uint64_t TimePoint::*count;
};
constexpr Curve kCurves[] = {{"received", &TimePoint::received},
                             {"taken", &TimePoint::taken},
                             {"returned", &TimePoint::returned},
                             {"transmitted", &TimePoint::transmitted},
                             {"undelivered", &TimePoint::undelivered}};

Series RatesOf(const std::vector<TimePoint> &points, const Curve &curve) {
    Series series = {curve.name, curve.name, {}};
    for (size_t i = 1; i < points.size(); ++i) {
        series.values.push_back(PerSecond(points[i].*curve.count - points[i - 1].*curve.count,
                                          points[i].seconds - points[i - 1].seconds));
    }
    return series;
}

std::vector<html::Mark> Alarms(const std::vector<TimePoint> &points) {
    std::vector<html::Mark> marks;
    for (size_t i = 1; i < points.size(); ++i) {
        if (points[i].raised > points[i - 1].raised) {
            marks.push_back({points[i].seconds, "alarm raised"});
        }
        if (points[i].restored > points[i - 1].restored) {
            marks.push_back({points[i].seconds, "alarm restored"});
        }
    }
    return marks;
}

std::string TimeTable(const std::vector<TimePoint> &all) {
    const std::vector<TimePoint> points = Thinned(all, kMostRowsOfTime);
    std::vector<Row> rows = {{"seconds"}};
    for (const Curve &curve : kCurves) {
        rows[0].emplace_back(curve.name);
    }
    rows[0].insert(rows[0].end(), {"alarms raised", "restored"});
    for (size_t i = 1; i < points.size(); ++i) {
        Row &row = rows.emplace_back(Row{html::Decimal(points[i - 1].seconds, 2) + " to " +
                                         html::Decimal(points[i].seconds, 2)});
        for (const Curve &curve : kCurves) {
            row.emplace_back(points[i].*curve.count - points[i - 1].*curve.count);
        }
        row.emplace_back(points[i].raised - points[i - 1].raised);
        row.emplace_back(points[i].restored - points[i - 1].restored);
    }
    return html::Table("time", "Packets and alarms by time", rows);
}

std::string AlarmText(const Result &result) {
    if (!result.dropWatch) {
        return "";
    }
    return Paragraph(std::string("At the end the drop alarm is ") +
                     (result.dropWatch->alarmRaised != 0 ? "raised" : "not raised") + "; " +
                     Count(result.alarms.raised, "raise") + " and " +
                     Count(result.alarms.restored, "restore") + " in all.");
}

std::string TimeSection(const Result &result) {
    if (result.timeline.size() < 2) {
        return "";
    }
    const std::vector<TimePoint> points = Thinned(result.timeline, kMostSteps);
    std::vector<double> times;
    std::ranges::transform(points, std::back_inserter(times), &TimePoint::seconds);
    html::Panel rates = {"packets a second", {}, false};
    for (const Curve &curve : std::span(kCurves).first(4)) {
        if (points.back().*curve.count > 0) {
            rates.series.push_back(RatesOf(points, curve));
        }
    }
    const html::Panel drops = {"undelivered a second", {RatesOf(points, kCurves[4])}, true};
    std::vector<Series> named = rates.series;
    named.push_back(drops.series[0]);
    return Section("Over time",
                   html::Legend(named) +
                       html::Curves("Packets a second over time, and below on the same axis those "
                                    "that were not delivered; alarms are marked. The table has the "
                                    "numbers.",
                                    times, {rates, drops}, Alarms(points)) +
                       AlarmText(result) + TimeTable(result.timeline));
}

// --- who is not served ---

std::string UnservedSection(const Result &result) {
    const char *const title = "Who is not served, and why";
    if (!result.unserved) {
        return "";
    }
    const UnservedReport &unserved = *result.unserved;
    if (unserved.talks.empty()) {
        return Section(title, Paragraph("Every packet for the module's instances reached one."));
    }
    std::vector<Row> rows = {{"source", "destination", "class", "packets", "fate", "why"}};
    const std::span talks(unserved.talks);
    const size_t shown = std::min(talks.size(), kMostTalks);
    for (const UnservedReport::Talk &talk : talks.first(shown)) {
        rows.push_back({talk.source, talk.destination, talk.kind, talk.packets,
                        talk.undelivered ? "undelivered" : "returned", talk.why});
    }
    std::string content = html::Table(
        "unserved", "The most packets first; why is what holds for the first of them", rows);
    uint64_t packets = 0;
    for (const UnservedReport::Talk &talk : talks.subspan(shown)) {
        packets += talk.packets;
    }
    if (packets > 0) {
        content += Paragraph(Count(talks.size() - shown, "further talker") +
                             " left out here, with " + Count(packets, "packet") + ".");
    }
    if (unserved.others > 0) {
        content += Paragraph(Count(unserved.others, "packet") + " of talkers beyond the first " +
                             html::Grouped(Unserved::kMostTalks) + ", which were not told apart.");
    }
    return Section(title, content);
}

}  // namespace

std::string HtmlReport(const Result &result) {
    return html::Page(result.capture, Head(result) + "<main>\n" + Notes(result) +
                                          Interfaces(result) + FatesSection(result) +
                                          TimeSection(result) + InstancesSection(result) +
                                          MessagesSection(result) + CountersSection(result) +
                                          UnservedSection(result) + "</main>\n");
}

}  // namespace kes_engine
