#include "reading.h"

#include "control/command.h"
#include "control/counters.h"
#include "module_object.h"

namespace lyrctl {
namespace {

// What the rest of the program relies on is checked here, once.
void ReadState(Reading &reading) {
    const ordered_json &state = reading.state;
    reading.received = state.at("received");
#define FATE(name, words) reading.name = state.at(#name);
    LYRCTL_FATES(FATE)
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
}

void ReadClasses(Reading &reading, Client &client) {
    const std::string words[] = {"stats", "show"};
    const control::Outcome outcome = control::Execute(control::ParseWords(words), client.Caller());
    if (!outcome.Ok()) {
        throw control::Refused("the packet counters cannot be read: " + outcome.Meaning());
    }
    for (size_t i = 0; i < reading.classes.size(); ++i) {
        const ordered_json &counters = outcome.reply["classes"][i];
        for (const control::PacketCounter &counter : control::kPacketCounters) {
            reading.classes[i].*counter.value = counters[counter.name];
        }
    }
}

}  // namespace

Reading TakeReading(Client &client) {
    control::Connection &engine = client.Engine();
    Reading reading = {};
    reading.when = std::chrono::steady_clock::now();
    reading.state = engine.State();
    try {
        ReadState(reading);
    } catch (const ordered_json::exception &error) {
        throw control::Refused("the engine's state is not understood: " +
                               std::string(error.what()));
    }
    ReadClasses(reading, client);
    reading.drops = ReadObject<MundDropWatch>(engine, MUND_OBJECT_DROP_WATCH);
    return reading;
}

}  // namespace lyrctl
