#include "control/module_state.h"

#include <cstring>
#include <string>

#include "client/pages.h"
#include "control/module_object.h"

namespace control {
namespace {

template <typename Record>
bool SameBytes(const Record *a, const Record *b, size_t count) {
    static_assert(std::has_unique_object_representations_v<Record>);
    return std::memcmp(a, b, count * sizeof(Record)) == 0;
}

template <typename Record>
bool SameRecords(const std::vector<Record> &a, const std::vector<Record> &b) {
    return a.size() == b.size() && SameBytes(a.data(), b.data(), a.size());
}

// The part of an object up to `size`, as it is twice in a row: the module may write it meanwhile.
template <typename Layout>
Layout ReadSteady(EngineView &engine, std::string_view name, size_t size = sizeof(Layout)) {
    constexpr int kTries = 100;
    auto before = ReadObject<Layout>(engine, name);
    for (int i = 0; i < kTries; ++i) {
        const auto now = ReadObject<Layout>(engine, name);
        if (std::memcmp(&before, &now, size) == 0) {
            return now;
        }
        before = now;
    }
    throw Refused(std::string(name) + " is changed all the time, and cannot be read");
}

template <typename Entry>
std::vector<Entry> ReadTable(EngineView &engine) {
    std::vector<Entry> entries;
    try {
        client::ForEachEntry<Entry>(
            [&engine](const MundWireEntriesReq &request) { return engine.Entries(request); },
            [&entries](Entry entry) {
                entry.reconMark = 0;
                entries.push_back(entry);
                return true;
            });
    } catch (const client::BadReply &reply) {
        throw Refused(reply.what());
    }
    return entries;
}

}  // namespace

ModuleState::ModuleState() {
    for (MundSourceRecord &source : sources) {
        source.srcType = MUND_SOURCE_FREE;
    }
}

bool ModuleState::operator==(const ModuleState &other) const {
    return SameBytes(sources.data(), other.sources.data(), sources.size()) &&
           stations == other.stations && SameBytes(&trace, &other.trace, 1) &&
           messageType == other.messageType && SameBytes(&ping, &other.ping, 1) &&
           SameRecords(ipv4Tunnels, other.ipv4Tunnels) &&
           SameRecords(ipv6Tunnels, other.ipv6Tunnels) && SameRecords(sessions, other.sessions);
}

ModuleState ReadState(EngineView &engine) {
    ModuleState state;
    state.sources = ReadSteady<decltype(state.sources)>(engine, MUND_OBJECT_SOURCES);
    state.stations = ReadSteady<uint64_t>(engine, MUND_OBJECT_STATION_SERVICE);
    if (const auto trace = ReadSteady<MundTraceConfig>(engine, MUND_OBJECT_TRACE);
        trace.enable != 0) {
        state.trace = trace;
    }
    state.messageType = ReadSteady<MundMsgTypeStat>(engine, MUND_OBJECT_MSG_TYPE).statMsgType;
    // Its counters move.
    if (const auto ping =
            ReadSteady<MundPingStat>(engine, MUND_OBJECT_PING, offsetof(MundPingStat, counters));
        ping.pingEnable != 0) {
        state.ping = ping.pingAddr;
    }
    state.ipv4Tunnels = ReadIpv4Tunnels(engine);
    state.ipv6Tunnels = ReadIpv6Tunnels(engine);
    state.sessions = ReadSessions(engine);
    return state;
}

ModuleSize ReadSize(EngineView &engine) {
    return {.lastInstance = ReadSteady<uint32_t>(engine, MUND_OBJECT_LAST_INSTANCE),
            .buckets = {ReadSteady<uint32_t>(engine, MUND_OBJECT_IPV4_BUCKETS),
                        ReadSteady<uint32_t>(engine, MUND_OBJECT_IPV6_BUCKETS),
                        ReadSteady<uint32_t>(engine, MUND_OBJECT_KA_BUCKETS)}};
}

std::vector<MundIpv4Tunnel> ReadIpv4Tunnels(EngineView &engine) {
    return ReadTable<MundIpv4Tunnel>(engine);
}

std::vector<MundIpv6Tunnel> ReadIpv6Tunnels(EngineView &engine) {
    return ReadTable<MundIpv6Tunnel>(engine);
}

std::vector<MundSession> ReadSessions(EngineView &engine) {
    return ReadTable<MundSession>(engine);
}

}  // namespace control
