#include "control/module_state.h"

#include <cstring>
#include <string>

#include "control/message_bytes.h"
#include "control/module_object.h"

namespace control {
namespace {

using std::to_string;

#define TABLE_WORDS(name, words) words,
constexpr const char *kTableWords[] = {MUND_TABLES(TABLE_WORDS)};
#undef TABLE_WORDS

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

// Checks a page's head, and that it moves on.
template <typename Entry>
MundWireEntriesRsp HeadOf(const Bytes &page, const MundWireEntriesReq &request) {
    MundWireEntriesRsp head = {};
    if (page.size() >= sizeof head) {
        head = MessageOf<MundWireEntriesRsp>(page);
    }
    const bool movesOn = head.nextBucket > request.bucket || head.nextBucket == head.buckets;
    if (page.size() < sizeof head || head.entrySize != sizeof(Entry) ||
        page.size() != sizeof head + size_t{head.count} * sizeof(Entry) || !movesOn ||
        head.nextBucket > head.buckets) {
        throw Refused("the listing of the " + std::string(kTableWords[request.table]) +
                      " table is not understood: " + to_string(page.size()) + " bytes of " +
                      to_string(head.count) + " entries from bucket " + to_string(request.bucket) +
                      " to " + to_string(head.nextBucket) + " of " + to_string(head.buckets));
    }
    return head;
}

template <typename Entry>
std::vector<Entry> ReadTable(EngineView &engine, uint32_t table) {
    std::vector<Entry> entries;
    MundWireEntriesReq request = {.table = table, .bucket = 0};
    MundWireEntriesRsp head;
    do {
        const Bytes page = engine.Entries(request);
        head = HeadOf<Entry>(page, request);
        const size_t begin = entries.size();
        entries.resize(begin + head.count);
        if (head.count > 0) {
            std::memcpy(&entries[begin], &page[sizeof head], head.count * sizeof(Entry));
        }
        request.bucket = head.nextBucket;
    } while (head.nextBucket < head.buckets);
    for (Entry &entry : entries) {
        entry.reconMark = 0;
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
    return ReadTable<MundIpv4Tunnel>(engine, MUND_TABLE_IPV4_TUNNELS);
}

std::vector<MundIpv6Tunnel> ReadIpv6Tunnels(EngineView &engine) {
    return ReadTable<MundIpv6Tunnel>(engine, MUND_TABLE_IPV6_TUNNELS);
}

std::vector<MundSession> ReadSessions(EngineView &engine) {
    return ReadTable<MundSession>(engine, MUND_TABLE_SESSIONS);
}

}  // namespace control
