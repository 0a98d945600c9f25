#include "reading.h"

#include "control/command.h"
#include "module_object.h"

namespace lyrctl {
namespace {

// Blocks that the module holds under a tag.
uint64_t BlocksOf(const ordered_json &state, std::string_view tag) {
    uint64_t blocks = 0;
    for (const ordered_json &use : state.value("memory", ordered_json::array())) {
        if (use.at("tag") == tag) {
            blocks += use.at("blocks").get<uint64_t>();
        }
    }
    return blocks;
}

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
}

void ReadClasses(Reading &reading, Client &client) {
    const std::string words[] = {"stats", "show"};
    const control::Outcome outcome = control::Execute(control::ParseWords(words), client.Caller());
    if (!outcome.Ok()) {
        throw control::Refused("the packet counters cannot be read: " + outcome.Meaning());
    }
    for (size_t i = 0; i < reading.classes.size(); ++i) {
        const ordered_json &counters = outcome.reply["classes"][i];
#define COUNTER(field, words) reading.classes[i].field = counters[#field];
        LYR_KES_PKT_STAT_COUNTERS(COUNTER)
#undef COUNTER
    }
}

// An entry of a table is a block of the function that adds it.
TableFill Table(const Reading &reading, control::Connection &engine, std::string_view name,
                std::string_view adder, std::string_view buckets) {
    return {name, BlocksOf(reading.state, adder), ReadObject<uint32_t>(engine, buckets)};
}

}  // namespace

Reading TakeReading(Client &client) {
    control::Connection &engine = client.Engine();
    Reading reading = {};
    reading.when = std::chrono::steady_clock::now();
    reading.state = engine.State();
    try {
        ReadState(reading);
        reading.tables = {
            Table(reading, engine, "IPv4", "LyrKes_DistAddIPv4Tunnel", MUND_OBJECT_IPV4_BUCKETS),
            Table(reading, engine, "IPv6", "LyrKes_DistAddIPv6Tunnel", MUND_OBJECT_IPV6_BUCKETS),
            Table(reading, engine, "session", "LyrKes_DistAddKaTunnel", MUND_OBJECT_KA_BUCKETS)};
    } catch (const ordered_json::exception &error) {
        throw control::Refused("the engine's state is not understood: " +
                               std::string(error.what()));
    }
    ReadClasses(reading, client);
    reading.drops = ReadObject<MundDropWatch>(engine, MUND_OBJECT_DROP_WATCH);
    return reading;
}

}  // namespace lyrctl
