#include "control/reading.h"

#include "control/command.h"
#include "control/counters.h"
#include "control/module_object.h"

namespace control {
namespace {

using nlohmann::ordered_json;

PortReading ReadPort(const ordered_json &port) {
    const ordered_json &instance = port.at("instance");
    PortReading reading = {.name = port.at("name"),
                           .role = port.at("role"),
                           .received = port.at("receivedPackets"),
                           .sent = port.at("sentPackets"),
                           .dropped = 0,
                           .waiting = port.at("waiting"),
                           .room = port.at("room")};
    if (!instance.is_null()) {
        reading.role += " " + instance.dump();
    }
    for (const char *reason : {"missed", "noBuffer", "oversize", "refused"}) {
        reading.dropped += port.at(reason).get<uint64_t>();
    }
    return reading;
}

// What the rest of the program relies on is checked here, once.
void ReadState(Reading &reading) {
    const ordered_json &state = reading.state;
    reading.received = state.at("received");
#define FATE(name, words) reading.name = state.at(#name);
    CONTROL_FATES(FATE)
#undef FATE
    for (const ordered_json &instance : state.at("instances")) {
        reading.instances.push_back({.instance = instance.at("instance"),
                                     .cwp = instance.at("cwp"),
                                     .wapi = instance.at("wapi")});
    }
    for (const ordered_json &table : state.at("tables")) {
        reading.tables.push_back({.name = table.at("table"),
                                  .entries = table.at("entries"),
                                  .buckets = table.at("buckets")});
    }
    if (state.contains("ports")) {
        for (const ordered_json &port : state["ports"]) {
            reading.ports.push_back(ReadPort(port));
        }
    }
}

void ReadClasses(Reading &reading, EngineView &engine) {
    const std::string words[] = {"stats", "show"};
    const Outcome outcome = Execute(
        ParseWords(words), [&engine](MundOperation operation, std::span<const uint8_t> request) {
            return engine.Call(operation, request);
        });
    if (!outcome.Ok()) {
        throw Refused("the packet counters cannot be read: " + outcome.Meaning());
    }
    for (size_t i = 0; i < reading.classes.size(); ++i) {
        const ordered_json &counters = outcome.reply["classes"][i];
        for (const PacketCounter &counter : kPacketCounters) {
            reading.classes[i].*counter.value = counters[counter.name];
        }
    }
}

}  // namespace

Reading TakeReading(EngineView &engine) {
    Reading reading = {};
    reading.when = std::chrono::steady_clock::now();
    reading.state = engine.State();
    try {
        ReadState(reading);
    } catch (const ordered_json::exception &error) {
        throw NotUnderstood(error);
    }
    ReadClasses(reading, engine);
    reading.drops = ReadObject<MundDropWatch>(engine, MUND_OBJECT_DROP_WATCH);
    return reading;
}

}  // namespace control
