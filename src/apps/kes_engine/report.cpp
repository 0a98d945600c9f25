#include "report.h"

#include <algorithm>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "control/counters.h"
#include "control/values.h"

namespace kes_engine {
namespace {

using Json = nlohmann::ordered_json;
using control::kPacketClassWords;
using control::kPacketCounters;
using control::PacketCounter;

constexpr int kCounterWidth = 16;

double PacketsPerSecond(const Result &result) {
    return result.seconds > 0 ? static_cast<double>(result.frames) / result.seconds : 0;
}

void PrintTotals(std::ostream &out, const Result &result) {
    const auto row = [&out](const char *name) -> std::ostream & {
        return out << std::left << std::setw(13) << name << std::right;
    };
    const auto number = [&](const char *name, uint64_t value) {
        row(name) << std::setw(10) << value << '\n';
    };
    row("capture") << result.capture << '\n';
    if (result.cutShort > 0) {
        row("cut short") << std::setw(10) << result.cutShort << "  of " << result.frames
                         << " frames: what depends on the bytes that the capture lacks, as "
                            "\"damaged\", is not to be trusted\n";
    }
    if (result.oversize > 0) {
        row("oversize") << std::setw(10) << result.oversize
                        << "  left out: too long for a buffer\n";
    }
    for (const auto &[linkType, frames] : result.tally.converted) {
        row("converted") << std::setw(10) << frames << "  frames of " << linkType
                         << ": they got an Ethernet header\n";
    }
    if (result.tally.passedOver > 0) {
        row("passed over") << std::setw(10) << result.tally.passedOver
                           << "  frames that were not selected\n";
    }
    for (const InterfaceCounts &counts : result.interfaces) {
        row("interface") << std::setw(10) << counts.frames << "  frames of "
                         << counts.interface << ", " << counts.dropped << " dropped by the kernel, "
                         << counts.droppedByInterface << " by the interface\n";
    }
    number("workers", result.workers);
    number("commands", result.commands);
    number("received", result.received);
    number("returned", result.fates.returned);
    number("taken", result.fates.taken);
    number("undelivered", result.fates.undelivered);
    number("transmitted", result.fates.transmitted);
    row("conserved") << std::setw(10) << (result.Conserved() ? "yes" : "NO") << '\n';
    row("seconds") << std::fixed << std::setprecision(3) << std::setw(10) << result.seconds
                   << std::setprecision(0) << "  (" << PacketsPerSecond(result) << " packets/s)\n";
}

void PrintReceived(std::ostream &out, uint32_t instance, const char *type,
                   const InstanceReport::Received &received) {
    if (received.packets == 0) {
        return;
    }
    out << std::setw(8) << instance << "  " << std::left << std::setw(4) << type << std::right
        << std::setw(9) << received.packets;
    const char *indent = "  ";
    for (const auto &[message, packets] : received.messages) {
        out << indent << std::setw(9) << packets << "  " << message << '\n';
        indent = "                         ";
    }
    out << (received.messages.empty() ? "\n" : "");
}

void PrintInstances(std::ostream &out, const Result &result) {
    if (result.instances.empty()) {
        return;
    }
    out << "\ninstance  type  packets  of these\n";
    for (const InstanceReport &report : result.instances) {
        PrintReceived(out, report.instance, "cwp", report.cwp);
        PrintReceived(out, report.instance, "wapi", report.wapi);
        if (report.delivery) {
            out << std::setw(8) << report.instance << "  port" << std::setw(9)
                << report.delivery->sent << "  sent, " << report.delivery->refused << " refused\n";
        }
    }
}

void PrintCounters(std::ostream &out, const Result &result) {
    if (!result.counters) {
        out << "\nno counters: none could be had of the module\n";
        return;
    }
    out << "\ncounters           ";
    for (const char *name : kPacketClassWords) {
        out << std::setw(kCounterWidth) << name;
    }
    for (const PacketCounter &counter : kPacketCounters) {
        out << '\n' << std::left << std::setw(19) << counter.words << std::right;
        for (const LyrKesPktStat &of : *result.counters) {
            out << std::setw(kCounterWidth) << of.*counter.value;
        }
    }
    out << '\n';
}

void PrintDropAlarm(std::ostream &out, const Result &result) {
    if (!result.dropWatch) {
        return;
    }
    const MundDropWatch &watch = *result.dropWatch;
    const bool raised = watch.alarmRaised != 0;
    out << "\ndrop alarm " << (raised ? "raised" : "not raised");
    if (watch.periodStart != MUND_DROP_WATCH_CLOSED) {
        out << ", " << watch.dropNum << " of " << watch.totalNum << " packets dropped, "
            << (raised ? watch.contNoDropPeriods : watch.contDropPeriods)
            << (raised ? " quiet periods" : " periods with drops");
    }
    out << "; " << result.alarms.raised << " raises, " << result.alarms.restored << " restores\n";
}

void PrintList(std::ostream &out, const char *title, const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
        out << (&line == &lines.front() ? title : "") << "  " << line << '\n';
    }
}

Json InstanceToJson(const InstanceReport &report) {
    Json messages = Json::object();
    for (const InstanceReport::Received *received : {&report.cwp, &report.wapi}) {
        for (const auto &[message, packets] : received->messages) {
            messages[message] = packets + messages.value(message, uint64_t{0});
        }
    }
    Json json = {{"instance", report.instance},
                 {"cwp", report.cwp.packets},
                 {"wapi", report.wapi.packets},
                 {"messages", std::move(messages)}};
    if (report.delivery) {
        json["sent"] = report.delivery->sent;
        json["refused"] = report.delivery->refused;
    }
    return json;
}

Json InterfacesToJson(const Result &result) {
    Json interfaces = Json::array();
    for (const InterfaceCounts &counts : result.interfaces) {
        interfaces.push_back({{"name", counts.interface},
                              {"frames", counts.frames},
                              {"kernelDrops", counts.dropped},
                              {"interfaceDrops", counts.droppedByInterface}});
    }
    return interfaces;
}

Json ClassesToJson(const Result &result) {
    return result.counters ? control::PacketCountersToJson(*result.counters) : Json();
}

Json DropsToJson(const Result &result) {
    if (!result.dropWatch) {
        return nullptr;
    }
    Json json = control::DropWatchToJson(*result.dropWatch);
    json["raises"] = result.alarms.raised;
    json["restores"] = result.alarms.restored;
    return json;
}

}  // namespace

uint64_t Result::ReceivedByInstances() const {
    uint64_t packets = 0;
    for (const InstanceReport &report : instances) {
        packets += report.cwp.packets + report.wapi.packets;
    }
    return packets;
}

bool Result::Conserved() const {
    return frames == received + fates.transmitted &&
           received == fates.returned + fates.taken + fates.undelivered &&
           fates.taken == ReceivedByInstances() &&
           std::ranges::all_of(instances, &InstanceReport::IsConserved);
}

std::vector<std::string> Result::Contradictions() const {
    if (!counters) {
        return {};
    }
    ClassCounts byClass = {};
    for (const InstanceReport &report : instances) {
        for (size_t row = 0; row < byClass.size(); ++row) {
            byClass[row] += report.cwp.byClass[row];
        }
    }
    std::vector<std::string> lines = ContradictionsIn(*counters, byClass, fates);
    if (dropWatch && (dropWatch->alarmRaised != 0) != (alarms.raised > alarms.restored)) {
        lines.push_back(std::string("the drop alarm is ") +
                        (dropWatch->alarmRaised ? "raised" : "not raised") + ", but " +
                        std::to_string(alarms.raised) + " raises and " +
                        std::to_string(alarms.restored) + " restores were sent");
    }
    return lines;
}

bool Result::CountsAreExact() const {
    return workers == 1 && !served;
}

bool Result::Ok() const {
    return Conserved() && (!CountsAreExact() || Contradictions().empty()) && leftovers.empty() &&
           failures.empty() && lostLogLines == 0;
}

std::string TextReport(const Result &result) {
    std::ostringstream out;
    PrintTotals(out, result);
    PrintInstances(out, result);
    PrintCounters(out, result);
    PrintList(out,
              result.CountsAreExact() ? "\nthe counters contradict what was seen\n"
                                      : "\ncounts lost by several workers, or reset\n",
              result.Contradictions());
    PrintDropAlarm(out, result);
    if (result.traffic) {
        Print(out, *result.traffic);
    }
    PrintList(out, "\nleft behind by the module\n", result.leftovers);
    PrintList(out, "\nfailures\n", result.failures);
    if (result.lostLogLines > 0) {
        out << "\nlines lost that the log could not take  " << result.lostLogLines << '\n';
    }
    return out.str();
}

std::string JsonReport(const Result &result) {
    Json instances = Json::array();
    for (const InstanceReport &report : result.instances) {
        instances.push_back(InstanceToJson(report));
    }
    Json report = {{"frames", result.frames},
                   {"cutShort", result.cutShort},
                   {"oversize", result.oversize},
                   {"converted", Json(result.tally.converted)},
                   {"passedOver", result.tally.passedOver},
                   {"interfaces", InterfacesToJson(result)},
                   {"received", result.received},
                   {"returned", result.fates.returned},
                   {"taken", result.fates.taken},
                   {"undelivered", result.fates.undelivered},
                   {"transmitted", result.fates.transmitted},
                   {"conserved", result.Conserved()},
                   {"ok", result.Ok()},
                   {"instances", std::move(instances)},
                   {"classes", ClassesToJson(result)},
                   {"contradictions", result.Contradictions()},
                   {"drops", DropsToJson(result)},
                   {"capture", result.capture},
                   {"workers", result.workers},
                   {"commands", result.commands},
                   {"seconds", result.seconds},
                   {"packetsPerSecond", PacketsPerSecond(result)},
                   {"leftovers", result.leftovers},
                   {"failures", result.failures},
                   {"lostLogLines", result.lostLogLines}};
    if (result.traffic) {
        report.update(ToJson(*result.traffic));
    }
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace kes_engine
