// What exported objects hold: the show commands, and inspect.
#include <algorithm>
#include <array>

#include "control/counters.h"
#include "control/module_object.h"
#include "control/record_table.h"
#include "control/values.h"
#include "object_format.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

using control::Arguments;
using control::RecordTable;

std::string TextOf(const ordered_json &value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// The texts of an array with ", " between them.
std::string ListText(const ordered_json &array) {
    std::string text;
    for (const ordered_json &value : array) {
        text += (text.empty() ? "" : ", ") + TextOf(value);
    }
    return text;
}

// The pairs of an object in two columns.
std::string Pairs(const ordered_json &object) {
    size_t width = 0;
    for (const auto &[name, value] : object.items()) {
        width = std::max(width, name.size());
    }
    std::string text;
    for (const auto &[name, value] : object.items()) {
        text += (text.empty() ? "" : "\n") + name + std::string(width + 2 - name.size(), ' ') +
                (value.is_array()  ? ListText(value)
                 : value.is_null() ? "-"
                                   : TextOf(value));
    }
    return text;
}

bool IsTable(const ordered_json &value) {
    return value.is_array() && !value.empty() && value.front().is_object();
}

std::string Table(const ordered_json &records) {
    std::vector<std::string> names;
    for (const auto &[name, value] : records.front().items()) {
        names.push_back(name);
    }
    const std::vector<std::string_view> headings(names.begin(), names.end());
    return RecordTable(headings, records);
}

// Whatever an object says: a table, a number, or names and values with the tables behind them.
std::string Layout(const ordered_json &value) {
    if (IsTable(value)) {
        return Table(value);
    }
    if (!value.is_object()) {
        return value.is_null() ? "none" : TextOf(value);
    }
    ordered_json plain = ordered_json::object();
    std::string tables;
    for (const auto &[name, member] : value.items()) {
        if (IsTable(member)) {
            tables += "\n\n" + Table(member);
        } else {
            plain[name] = member;
        }
    }
    return Pairs(plain) + tables;
}

void AddChannels(ordered_json &channels, control::Connection &engine, uint32_t type,
                 std::string_view typeName) {
    const auto ids = ReadArray<uint32_t>(engine, MUND_OBJECT_CHANNELS, type);
    const auto threads = ReadArray<uint64_t>(engine, MUND_OBJECT_THREADS, type);
    for (size_t i = 0; i < std::min(ids.size(), threads.size()); ++i) {
        const bool resolved = ids[i] != MUND_NO_CHANNEL;
        channels.push_back(
            {{"type", typeName},
             {"instance", i},
             {"resolved", resolved},
             {"channel", resolved ? ordered_json(ids[i]) : nullptr},
             {"thread", threads[i] != 0 ? ordered_json(control::HexText(threads[i])) : nullptr}});
    }
}

ordered_json ListObjects() {
    ordered_json objects = ordered_json::array();
    for (const KnownObject &object : KnownObjects()) {
        objects.push_back(
            {{"name", object.name}, {"size", object.size}, {"meaning", object.meaning}});
    }
    return {{"objects", std::move(objects)}};
}

control::Bytes BytesFrom(const std::string &hex) {
    control::Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

}  // namespace

ordered_json ReadSources(Client &client, const Arguments &) {
    using Sources = std::array<MundSourceRecord, LYR_KES_CWP_SRC_NUM>;
    ordered_json sources = ordered_json::array();
    for (const MundSourceRecord &source :
         ReadObject<Sources>(client.Engine(), MUND_OBJECT_SOURCES)) {
        sources.push_back({{"position", sources.size()}});
        sources.back().update(Decode(source));
    }
    return {{"sources", std::move(sources)}};
}

std::string RenderSources(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"position", "type", "known by", "address",
                                              "interface"};
    return RecordTable(kHeadings, reply["sources"]);
}

ordered_json ReadTrace(Client &client, const Arguments &) {
    return Decode(ReadObject<MundTraceConfig>(client.Engine(), MUND_OBJECT_TRACE));
}

std::string RenderTrace(const ordered_json &reply) {
    if (!reply["enabled"].get<bool>()) {
        return "the trace is off";
    }
    const auto orAny = [](const ordered_json &value) {
        return value.is_null() ? "any" : TextOf(value);
    };
    const std::string traced = ListText(reply["traced"]);
    const ordered_json &name = reply["messageTypeName"];
    const ordered_json lines = {
        {"level", TextOf(reply["level"]) + ": " + (traced.empty() ? "nothing" : traced)},
        {"source", orAny(reply["source"])},
        {"source port", orAny(reply["sourcePort"])},
        {"destination", orAny(reply["destination"])},
        {"destination port", orAny(reply["destinationPort"])},
        {"message type", name.is_null() ? orAny(reply["messageType"]) : TextOf(name)},
        {"MAC (no filter)", reply["mac"]}};
    return Pairs(lines);
}

ordered_json ReadWapi(Client &client, const Arguments &) {
    return DecodeStationService(ReadObject<uint64_t>(client.Engine(), MUND_OBJECT_STATION_SERVICE));
}

std::string RenderWapi(const ordered_json &reply) {
    const uint64_t first = reply["firstInstance"];
    const uint64_t count = reply["instanceCount"];
    if (count == 0) {
        return "no service instance serves stations";
    }
    if (count == 1) {
        return "service instance " + std::to_string(first) + " serves stations";
    }
    return "service instances " + std::to_string(first) + " to " +
           std::to_string(first + count - 1) + " serve stations";
}

ordered_json ReadChannels(Client &client, const Arguments &) {
    ordered_json channels = ordered_json::array();
    for (uint32_t type = 0; type < std::size(control::kPacketTypeWords); ++type) {
        AddChannels(channels, client.Engine(), type, control::kPacketTypeWords[type]);
    }
    return {{"channels", std::move(channels)}};
}

std::string RenderChannels(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"type", "instance", "resolved", "channel", "thread"};
    ordered_json rows = reply["channels"];
    for (ordered_json &row : rows) {
        row["resolved"] = row["resolved"].get<bool>() ? "yes" : "no";
    }
    return RecordTable(kHeadings, rows);
}

ordered_json ReadInspected(Client &client, const Arguments &arguments) {
    const std::string *name = arguments.Find("NAME");
    if (name == nullptr) {
        return ListObjects();
    }
    std::optional<uint32_t> slot;
    if (const std::string *text = arguments.Find("--slot")) {
        slot = control::ParseNumber("--slot", *text, MUND_WIRE_NO_SLOT - 1);
    }
    const control::Bytes bytes = client.Engine().Object(*name, slot);
    const KnownObject *object = FindObject(*name);
    ordered_json reply = {{"name", *name}, {"size", bytes.size()}};
    if (slot) {
        reply["slot"] = *slot;
    }
    const bool known = object != nullptr && !slot && bytes.size() == object->size;
    if (known && arguments.Find("--hex") == nullptr) {
        reply["value"] = object->decode(bytes);
    } else {
        reply["hex"] = HexText(bytes);
    }
    return reply;
}

std::string RenderInspected(const ordered_json &reply) {
    if (reply.contains("objects")) {
        return Table(reply["objects"]);
    }
    return reply.contains("value") ? Layout(reply["value"]) : HexDump(BytesFrom(reply["hex"]));
}

}  // namespace lyrctl
