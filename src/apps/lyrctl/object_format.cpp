#include "object_format.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

#include "capwap/message_type.h"
#include "control/counters.h"
#include "control/message_bytes.h"
#include "control/values.h"

namespace lyrctl {
namespace {

using Bytes = std::span<const uint8_t>;
using control::MessageOf;

// Null for an address that there is not.
ordered_json AddressOf(uint8_t version, const uint32_t (&words)[4]) {
    switch (version) {
        case 4:
            return control::AddressText(words[0]);
        case 6:
            return control::AddressText(words);
        default:
            return nullptr;
    }
}

// Null for a filter that lets every address pass.
ordered_json AddressFilter(uint8_t family, const uint32_t (&words)[4]) {
    const bool any = std::ranges::all_of(words, [](uint32_t word) { return word == 0; });
    return any ? ordered_json() : AddressOf(family, words);
}

ordered_json NullIf(uint32_t none, uint32_t value) {
    return value == none ? ordered_json() : ordered_json(value);
}

std::string SourceTypeText(uint32_t type) {
#define ROW(name, code, words) words,
    constexpr std::string_view kTypes[] = {MUND_SOURCE_TYPES(ROW)};
#undef ROW
    // Codes that have no behaviour of their own behave as an address.
    const bool known = type < std::size(kTypes) && type != MUND_SOURCE_NONE;
    return std::string(kTypes[known ? type : uint32_t{MUND_SOURCE_ADDRESS}]);
}

ordered_json MessageTypeName(uint32_t type) {
    const std::string_view name = capwap::MessageTypeName(type);
    return name.empty() ? ordered_json() : ordered_json(name);
}

std::string PointerText(uint64_t pointer) {
    char text[20];
    std::snprintf(text, sizeof text, "0x%012llx", static_cast<unsigned long long>(pointer));
    return text;
}

ordered_json DecodeSources(Bytes bytes) {
    ordered_json sources = ordered_json::array();
    for (size_t i = 0; i < LYR_KES_CWP_SRC_NUM; ++i) {
        sources.push_back(
            Decode(MessageOf<MundSourceRecord>(bytes.subspan(i * sizeof(MundSourceRecord)))));
    }
    return sources;
}

ordered_json DecodeTrace(Bytes bytes) {
    return Decode(MessageOf<MundTraceConfig>(bytes));
}

ordered_json DecodeStations(Bytes bytes) {
    return DecodeStationService(MessageOf<uint64_t>(bytes));
}

ordered_json DecodeNumber(Bytes bytes) {
    return MessageOf<uint32_t>(bytes);
}

ordered_json DecodeTimer(Bytes bytes) {
    return NullIf(UINT32_MAX, MessageOf<uint32_t>(bytes));
}

template <typename Value>
ordered_json DecodeByPacketType(Bytes bytes) {
    ordered_json values;
    for (size_t i = 0; i < std::size(control::kPacketTypeWords); ++i) {
        const auto value = MessageOf<Value>(bytes.subspan(i * sizeof(Value)));
        ordered_json &shown = values[control::kPacketTypeWords[i]];
        if constexpr (sizeof(Value) == sizeof(uint64_t)) {
            shown = PointerText(value);
        } else {
            shown = value;
        }
    }
    return values;
}

ordered_json DecodePacketCounters(Bytes bytes) {
    using Classes = std::array<LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM>;
    return control::PacketCountersToJson(MessageOf<Classes>(bytes));
}

ordered_json DecodeDropWatch(Bytes bytes) {
    return control::DropWatchToJson(MessageOf<MundDropWatch>(bytes));
}

ordered_json DecodePing(Bytes bytes) {
    const auto ping = MessageOf<MundPingStat>(bytes);
    return {{"enabled", ping.pingEnable != 0},
            {"peer", AddressOf(ping.pingAddr.ipVer, ping.pingAddr.words)},
            {"points", control::PingCountersToJson(ping.counters)}};
}

ordered_json DecodeMsgType(Bytes bytes) {
    const auto stat = MessageOf<MundMsgTypeStat>(bytes);
    ordered_json json = {{"messageType", NullIf(LYR_KES_MSG_TYPE_OFF, stat.statMsgType)},
                         {"messageTypeName", MessageTypeName(stat.statMsgType)}};
    for (const control::MsgTypeCounter &counter : control::kMsgTypeCounters) {
        json[counter.name] = PointerText(stat.*counter.array);
    }
    return json;
}

// The records are what 'probe show' lists.
ordered_json DecodeProbes(Bytes bytes) {
    const auto word = [&](size_t offset) { return MessageOf<uint32_t>(bytes.subspan(offset)); };
    return {{"head", word(offsetof(MundProbeRing, head))},
            {"tail", word(offsetof(MundProbeRing, tail))},
            {"count", word(offsetof(MundProbeRing, count))}};
}

constexpr size_t kPointers = MUND_PACKET_TYPE_NUM * sizeof(uint64_t);
constexpr size_t kCounts = MUND_PACKET_TYPE_NUM * sizeof(uint32_t);

constexpr KnownObject kObjects[] = {
    {MUND_OBJECT_SOURCES, LYR_KES_CWP_SRC_NUM * sizeof(MundSourceRecord),
     "the controller's CAPWAP sources", DecodeSources},
    {MUND_OBJECT_TRACE, sizeof(MundTraceConfig), "the debug trace and its filters", DecodeTrace},
    {MUND_OBJECT_CHANNELS, kPointers, "pointers to the instances' channel ids",
     DecodeByPacketType<uint64_t>},
    {MUND_OBJECT_THREADS, kPointers, "pointers to the instances' thread handles",
     DecodeByPacketType<uint64_t>},
    {MUND_OBJECT_STATION_SERVICE, sizeof(uint64_t), "the instances that serve stations",
     DecodeStations},
    {MUND_OBJECT_LAST_INSTANCE, sizeof(uint32_t), "the highest number of a service instance",
     DecodeNumber},
    {MUND_OBJECT_IPV4_BUCKETS, sizeof(uint32_t), "buckets of the IPv4 tunnels", DecodeNumber},
    {MUND_OBJECT_IPV6_BUCKETS, sizeof(uint32_t), "buckets of the IPv6 tunnels", DecodeNumber},
    {MUND_OBJECT_KA_BUCKETS, sizeof(uint32_t), "buckets of the keepalive sessions", DecodeNumber},
    {MUND_OBJECT_IPV4_LOCK, sizeof(uint32_t), "lock word of the IPv4 tunnels", DecodeNumber},
    {MUND_OBJECT_IPV6_LOCK, sizeof(uint32_t), "lock word of the IPv6 tunnels", DecodeNumber},
    {MUND_OBJECT_KA_LOCK, sizeof(uint32_t), "lock word of the keepalive sessions", DecodeNumber},
    {MUND_OBJECT_HANDED_OVER, kCounts, "packets handed over", DecodeByPacketType<uint32_t>},
    {MUND_OBJECT_HAND_OFF_FAILED, kCounts, "packets that a channel refused",
     DecodeByPacketType<uint32_t>},
    {MUND_OBJECT_WAPI_FRAMES, sizeof(uint32_t), "WAPI frames for an instance", DecodeNumber},
    {MUND_OBJECT_WAPI_FAILED, sizeof(uint32_t), "WAPI frames not handed over", DecodeNumber},
    {MUND_OBJECT_PACKET_COUNTERS, LYR_KES_PKT_STAT_ROW_NUM * sizeof(LyrKesPktStat),
     "packets by class and result", DecodePacketCounters},
    {MUND_OBJECT_DROP_WATCH, sizeof(MundDropWatch), "the watch over drops, and its alarm",
     DecodeDropWatch},
    {MUND_OBJECT_DROP_TIMER, sizeof(uint32_t), "the watch's timer", DecodeTimer},
    {MUND_OBJECT_PING, sizeof(MundPingStat), "pings to and from the peer", DecodePing},
    {MUND_OBJECT_MSG_TYPE, sizeof(MundMsgTypeStat), "hand-offs of the selected message type",
     DecodeMsgType},
    {MUND_OBJECT_PROBES, sizeof(MundProbeRing), "the ring of the probe trace", DecodeProbes},
};

}  // namespace

std::span<const KnownObject> KnownObjects() {
    return kObjects;
}

const KnownObject *FindObject(std::string_view name) {
    const auto *object = std::ranges::find(kObjects, name, &KnownObject::name);
    return object == std::end(kObjects) ? nullptr : object;
}

ordered_json Decode(const MundSourceRecord &source) {
    const bool free = source.srcType == MUND_SOURCE_FREE;
    return {{"type", source.srcType},
            {"knownBy", SourceTypeText(source.srcType)},
            {"address", AddressOf(source.address.ipVer, source.address.words)},
            {"interface", free ? ordered_json() : ordered_json(source.ifIndex)}};
}

ordered_json Decode(const MundTraceConfig &trace) {
    ordered_json levels = ordered_json::array();
    if ((trace.debugLevel & MUND_TRACE_FAILURES) != 0) {
        levels.push_back("failures");
    }
    if ((trace.debugLevel & MUND_TRACE_PACKETS) != 0) {
        levels.push_back("packets");
    }
    return {{"enabled", trace.enable != 0},
            {"level", trace.debugLevel},
            {"traced", std::move(levels)},
            {"source", AddressFilter(trace.srcIpFamily, trace.srcIp)},
            {"sourcePort", NullIf(0, trace.srcPort)},
            {"destination", AddressFilter(trace.dstIpFamily, trace.dstIp)},
            {"destinationPort", NullIf(0, trace.dstPort)},
            {"messageType", NullIf(0, trace.capwapMsgType)},
            {"messageTypeName", MessageTypeName(trace.capwapMsgType)},
            {"mac", control::MacText(trace.mac)}};
}

ordered_json DecodeStationService(uint64_t range) {
    return {{"firstInstance", static_cast<uint32_t>(range)},
            {"instanceCount", static_cast<uint32_t>(range >> 32)}};
}

std::string HexText(Bytes bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string HexDump(Bytes bytes) {
    constexpr size_t kRow = 16;
    std::string dump;
    for (size_t at = 0; at < bytes.size(); at += kRow) {
        const Bytes row = bytes.subspan(at, std::min(kRow, bytes.size() - at));
        char offset[24];
        std::snprintf(offset, sizeof offset, "%08zx ", at);
        dump += (at == 0 ? "" : "\n") + std::string(offset);
        for (size_t i = 0; i < kRow; ++i) {
            dump += i == kRow / 2 ? "  " : " ";
            dump += i < row.size() ? HexText(row.subspan(i, 1)) : "  ";
        }
        dump += "  |";
        for (const uint8_t byte : row) {
            dump += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
        }
        dump += "|";
    }
    return dump;
}

}  // namespace lyrctl
