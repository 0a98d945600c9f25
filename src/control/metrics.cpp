#include "control/metrics.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "capwap/message_type.h"
#include "control/counters.h"
#include "control/module_object.h"
#include "control/reading.h"
#include "control/values.h"

namespace control {
namespace {

using nlohmann::ordered_json;

// Prometheus gives "instance" to every sample itself.
constexpr const char *kInstanceLabel = "service_instance";

// Families of samples, in the order in which they are begun.
class Metrics {
  public:
    Metrics &Counter(const char *name, const char *help) {
        return Family(name, "counter", help);
    }
    Metrics &Counter(const MetricFamily &family) {
        return Counter(family.name, family.help);
    }
    Metrics &Gauge(const char *name, const char *help) {
        return Family(name, "gauge", help);
    }
    // A sample of the family that was begun last.
    Metrics &Sample(ordered_json labels, uint64_t value) {
        families_.back()["samples"].push_back({{"labels", std::move(labels)}, {"value", value}});
        return *this;
    }
    Metrics &Sample(uint64_t value) {
        return Sample(ordered_json::object(), value);
    }

    ordered_json Take() {
        return std::move(families_);
    }

  private:
    Metrics &Family(const char *name, const char *type, const char *help) {
        families_.push_back(
            {{"name", name}, {"type", type}, {"help", help}, {"samples", ordered_json::array()}});
        return *this;
    }

    ordered_json families_ = ordered_json::array();
};

void AddFamily(Metrics &metrics, const Reading &reading, const MetricFamily &family) {
    metrics.Counter(family);
    for (size_t i = 0; i < reading.classes.size(); ++i) {
        for (const PacketCounter &counter : kPacketCounters) {
            if (&counter.metric != &family) {
                continue;
            }
            ordered_json labels = {{"class", IdentifierOf(kPacketClassWords[i])}};
            if (family.label != nullptr) {
                labels[family.label] = IdentifierOf(counter.words);
            }
            metrics.Sample(std::move(labels), reading.classes[i].*counter.value);
        }
    }
}

void AddClasses(Metrics &metrics, const Reading &reading) {
    AddFamily(metrics, reading, kPacketsReceived);
    AddFamily(metrics, reading, kPacketResults);
    AddFamily(metrics, reading, kPacketFailures);
}

void AddHandOffs(Metrics &metrics, EngineView &engine) {
    using Counts = std::array<uint32_t, MUND_PACKET_TYPE_NUM>;
    const auto handedOver = ReadObject<Counts>(engine, MUND_OBJECT_HANDED_OVER);
    const auto failed = ReadObject<Counts>(engine, MUND_OBJECT_HAND_OFF_FAILED);
    metrics.Counter("lyr_host_handoffs_total",
                    "Packets put into the channel of a service instance, and those refused there.");
    for (size_t i = 0; i < handedOver.size(); ++i) {
        metrics.Sample({{"type", kPacketTypeWords[i]}, {"result", "sent"}}, handedOver[i])
            .Sample({{"type", kPacketTypeWords[i]}, {"result", "send_failed"}}, failed[i]);
    }
    metrics.Counter("lyr_host_wapi_frames_total", "WAPI frames meant for a service instance.")
        .Sample(ReadObject<uint32_t>(engine, MUND_OBJECT_WAPI_FRAMES));
    metrics.Counter("lyr_host_wapi_failures_total", "WAPI frames that were not handed over.")
        .Sample(ReadObject<uint32_t>(engine, MUND_OBJECT_WAPI_FAILED));
}

void AddDropWatch(Metrics &metrics, const MundDropWatch &watch) {
    const bool open = watch.periodStart != MUND_DROP_WATCH_CLOSED;
    metrics.Gauge("lyr_host_drop_alarm_raised", "1 while the alarm for dropped packets is raised.")
        .Sample(watch.alarmRaised);
    metrics.Gauge("lyr_host_drop_watch_open", "1 while drops are watched.").Sample(open);
    for (const DropNumber &number : kDropNumbers) {
        metrics.Gauge(number.metric.name, number.metric.help).Sample(watch.*number.value);
    }
}

void AddTables(Metrics &metrics, const Reading &reading) {
    metrics.Gauge("lyr_host_table_entries", "Tunnels and sessions that are registered.");
    for (const TableFill &table : reading.tables) {
        metrics.Sample({{"table", IdentifierOf(table.name)}}, table.entries);
    }
    metrics.Gauge("lyr_host_table_buckets", "Hash buckets of the tables.");
    for (const TableFill &table : reading.tables) {
        metrics.Sample({{"table", IdentifierOf(table.name)}}, table.buckets);
    }
}

void AddConfiguration(Metrics &metrics, EngineView &engine) {
    using Sources = std::array<MundSourceRecord, LYR_KES_CWP_SRC_NUM>;
    const auto sources = ReadObject<Sources>(engine, MUND_OBJECT_SOURCES);
    const auto free =
        std::ranges::count(sources, uint32_t{MUND_SOURCE_FREE}, &MundSourceRecord::srcType);
    metrics.Gauge("lyr_host_sources", "CAPWAP sources that are configured.")
        .Sample(sources.size() - static_cast<size_t>(free));
    metrics.Gauge("lyr_host_service_instances", "Service instances that the module knows of.")
        .Sample(uint64_t{ReadObject<uint32_t>(engine, MUND_OBJECT_LAST_INSTANCE)} + 1);
    metrics.Gauge("lyr_host_station_instances", "Service instances that serve stations.")
        .Sample(ReadObject<uint64_t>(engine, MUND_OBJECT_STATION_SERVICE) >> 32);
    metrics.Gauge("lyr_host_trace_enabled", "1 while the debug trace is on.")
        .Sample(ReadObject<MundTraceConfig>(engine, MUND_OBJECT_TRACE).enable);
}

void AddPings(Metrics &metrics, EngineView &engine) {
    const auto ping = ReadObject<MundPingStat>(engine, MUND_OBJECT_PING);
    for (const PingCounter &counter : kPingCounters) {
        metrics.Counter(counter.metric);
        for (size_t i = 0; i < std::size(kHookPointWords); ++i) {
            metrics.Sample({{"point", IdentifierOf(kHookPointWords[i])}},
                           ping.counters[i].*counter.value);
        }
    }
}

std::string MessageLabel(uint32_t type) {
    const std::string_view name = capwap::MessageTypeName(type);
    return name.empty() ? std::to_string(type) : std::string(name);
}

// The arrays are read through the object's pointers: the operation cannot tell of more than 32
// instances.
void AddMessageTypes(Metrics &metrics, EngineView &engine) {
    const auto stat = ReadObject<MundMsgTypeStat>(engine, MUND_OBJECT_MSG_TYPE);
    if (stat.statMsgType == LYR_KES_MSG_TYPE_OFF) {
        return;
    }
    metrics.Counter(kMsgTypeHandOffs);
    for (const MsgTypeCounter &counter : kMsgTypeCounters) {
        const auto counts = ReadArray<uint32_t>(
            engine, MUND_OBJECT_MSG_TYPE, static_cast<uint32_t>(counter.offset / sizeof(uint64_t)));
        for (size_t i = 0; i < counts.size(); ++i) {
            metrics.Sample({{"message_type", MessageLabel(stat.statMsgType + counter.above)},
                            {kInstanceLabel, std::to_string(i)},
                            {kMsgTypeHandOffs.label, counter.result}},
                           counts[i]);
        }
    }
}

void AddMemory(Metrics &metrics, const Reading &reading) {
    const ordered_json uses = reading.state.value("memory", ordered_json::array());
    metrics.Gauge("lyr_host_memory_blocks",
                  "Blocks that the module holds, by allocating function.");
    for (const ordered_json &use : uses) {
        metrics.Sample({{"function", use.at("function")}}, use.at("blocks").get<uint64_t>());
    }
    metrics.Gauge("lyr_host_memory_bytes", "Bytes that the module holds, by allocating function.");
    for (const ordered_json &use : uses) {
        metrics.Sample({{"function", use.at("function")}}, use.at("bytes").get<uint64_t>());
    }
}

void AddEngine(Metrics &metrics, const Reading &reading) {
    metrics.Counter("lyr_engine_packets_received_total", "Packets that the engine received.")
        .Sample(reading.received);
    metrics.Counter("lyr_engine_packets_total", "Packets of the engine by their fate.");
#define FATE(name, words) metrics.Sample({{"fate", words}}, reading.name);
    CONTROL_FATES(FATE)
#undef FATE
    metrics.Counter("lyr_engine_instance_packets_total",
                    "Packets that service instances have got.");
    for (const InstancePackets &packets : reading.instances) {
        const std::string instance = std::to_string(packets.instance);
        metrics.Sample({{kInstanceLabel, instance}, {"type", "cwp"}}, packets.cwp)
            .Sample({{kInstanceLabel, instance}, {"type", "wapi"}}, packets.wapi);
    }
}

// What tells a port's samples apart.
ordered_json PortLabels(const ordered_json &port) {
    ordered_json labels = {{"port", port.at("name")}, {"role", port.at("role")}};
    if (const ordered_json &instance = port.at("instance"); !instance.is_null()) {
        labels[kInstanceLabel] = instance.dump();
    }
    return labels;
}

// A family with a sample of each port for each of some keys, which a label's values stand for.
struct PortFamily {
    MetricFamily family;
    std::vector<std::pair<const char *, const char *>> keys;
};

void AddPorts(Metrics &metrics, const Reading &reading) {
    const ordered_json ports = reading.state.value("ports", ordered_json());
    if (ports.empty()) {
        return;
    }
    const PortFamily families[] = {
        {{"lyr_engine_port_packets_total", "Packets that ports received and sent.", "direction"},
         {{"receivedPackets", "received"}, {"sentPackets", "sent"}}},
        {{"lyr_engine_port_bytes_total", "Their bytes.", "direction"},
         {{"receivedBytes", "received"}, {"sentBytes", "sent"}}},
        {{"lyr_engine_port_errors_total", "Packets that drivers call damaged.", "direction"},
         {{"receiveErrors", "received"}, {"sendErrors", "sent"}}},
        {{"lyr_engine_port_dropped_packets_total", "Packets dropped at ports.", "reason"},
         {{"missed", "missed"},
          {"noBuffer", "no_buffer"},
          {"oversize", "oversize"},
          {"refused", "refused"}}},
    };
    for (const PortFamily &of : families) {
        metrics.Counter(of.family);
        for (const ordered_json &port : ports) {
            for (const auto &[key, value] : of.keys) {
                ordered_json labels = PortLabels(port);
                labels[of.family.label] = value;
                metrics.Sample(std::move(labels), port.at(key));
            }
        }
    }
    metrics.Gauge("lyr_engine_port_up", "1 while the port's link is up.");
    for (const ordered_json &port : ports) {
        metrics.Sample(PortLabels(port), port.at("up").get<bool>() ? 1 : 0);
    }
    metrics.Gauge("lyr_engine_port_waiting_packets", "Packets that wait for an instance's port.");
    for (const ordered_json &port : ports) {
        metrics.Sample(PortLabels(port), port.at("waiting"));
    }
    metrics.Gauge("lyr_engine_port_room_packets", "Packets that may wait for an instance's port.");
    for (const ordered_json &port : ports) {
        metrics.Sample(PortLabels(port), port.at("room"));
    }
    const ordered_json &buffers = reading.state.at("buffers");
    metrics.Gauge("lyr_engine_buffers", "Packet buffers.").Sample(buffers.at("total"));
    metrics.Gauge("lyr_engine_buffers_in_use", "Packet buffers that are not free.")
        .Sample(buffers.at("inUse"));
}

std::string Quoted(const std::string &value) {
    std::string quoted = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c == '\n' ? "\\n" : std::string(1, c);
    }
    return quoted + "\"";
}

std::string LabelText(const ordered_json &labels) {
    std::string text;
    for (const auto &[name, value] : labels.items()) {
        text += (text.empty() ? "{" : ",") + name + "=" + Quoted(value.get<std::string>());
    }
    return text.empty() ? "" : text + "}";
}

}  // namespace

ordered_json ReadMetrics(EngineView &engine) try {
    const Reading reading = TakeReading(engine);
    Metrics metrics;
    AddClasses(metrics, reading);
    AddHandOffs(metrics, engine);
    AddDropWatch(metrics, reading.drops);
    AddTables(metrics, reading);
    AddConfiguration(metrics, engine);
    AddPings(metrics, engine);
    AddMessageTypes(metrics, engine);
    AddMemory(metrics, reading);
    AddEngine(metrics, reading);
    AddPorts(metrics, reading);
    return {{"metrics", metrics.Take()}};
} catch (const ordered_json::exception &error) {
    throw NotUnderstood(error);
}

std::string RenderMetrics(const ordered_json &reply) {
    std::string text;
    for (const ordered_json &family : reply["metrics"]) {
        const std::string name = family["name"];
        text += text.empty() ? "# HELP " : "\n# HELP ";
        text.append(name).append(" ").append(family["help"].get<std::string>());
        text.append("\n# TYPE ").append(name).append(" ");
        text.append(family["type"].get<std::string>());
        for (const ordered_json &sample : family["samples"]) {
            text += "\n" + name + LabelText(sample["labels"]) + " " + sample["value"].dump();
        }
    }
    return text;
}

}  // namespace control
