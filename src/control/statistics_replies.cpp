#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <vector>

#include "control/counters.h"
#include "control/record_table.h"
#include "control/reply_format.h"
#include "control/values.h"
#include "mund/statistics_messages.h"

namespace control {
namespace {

using nlohmann::ordered_json;

// Some operations tell their outcome in the reply and return 0.
void CheckResult(uint32_t result) {
    if (result != MUND_RESULT_OK) {
        throw OperationFailed{result};
    }
}

template <typename Reply>
ordered_json ReadResult(const Bytes &request, const Ask &ask) {
    CheckResult(AskFor<Reply>(ask, request).result);
    return nullptr;
}

// The counters by class of packets.

ordered_json ReadPktStats(const Bytes &request, const Ask &ask) {
    const auto reply = AskFor<LyrKesGetPktStatisticsRsp>(ask, request);
    if (reply.rowNum != LYR_KES_PKT_STAT_ROW_NUM ||
        reply.counterNum != LYR_KES_PKT_STAT_COUNTER_NUM) {
        throw ReplyError("the reply has " + std::to_string(reply.rowNum) + " classes of " +
                         std::to_string(reply.counterNum) + " counters, not " +
                         std::to_string(LYR_KES_PKT_STAT_ROW_NUM) + " of " +
                         std::to_string(LYR_KES_PKT_STAT_COUNTER_NUM));
    }
    return {{"classes", PacketCountersToJson(reply.rows)}};
}

std::string RenderPktStats(const ordered_json &reply) {
    std::vector<std::string_view> headings = {"class"};
    for (const PacketCounter &counter : kPacketCounters) {
        headings.emplace_back(counter.words);
    }
    return RecordTable(headings, reply["classes"]);
}

// The counters by message type.

void CheckMsgTypeStats(const LyrKesCwpMsgTypeStatRsp &reply) {
    const bool fits = reply.entryNum <= LYR_KES_MSG_TYPE_STAT_NUM;
    if (reply.result == MUND_RESULT_FAILED || !fits) {
        throw OperationFailed{MUND_RESULT_FAILED,
                              fits ? "the module has no counters"
                                   : "the counters of more than " +
                                         std::to_string(LYR_KES_MSG_TYPE_STAT_NUM) +
                                         " service instances cannot be read, and there are " +
                                         std::to_string(reply.entryNum)};
    }
    CheckResult(reply.result);
}

ordered_json ReadMsgTypeStats(const Bytes &request, const Ask &ask) {
    const auto reply = AskFor<LyrKesCwpMsgTypeStatRsp>(ask, request);
    CheckMsgTypeStats(reply);
    uint64_t totals[std::size(kMsgTypeCounters)] = {};
    ordered_json instances = ordered_json::array();
    for (uint32_t instance = 0; instance < reply.entryNum; ++instance) {
        ordered_json counts = {{"instance", instance}};
        bool any = false;
        for (size_t i = 0; i < std::size(kMsgTypeCounters); ++i) {
            const uint32_t count = (reply.*kMsgTypeCounters[i].counts)[instance];
            counts[kMsgTypeCounters[i].name] = count;
            totals[i] += count;
            any |= count != 0;
        }
        if (any) {
            instances.push_back(std::move(counts));
        }
    }
    ordered_json total = {{"instanceCount", reply.entryNum}};
    for (size_t i = 0; i < std::size(kMsgTypeCounters); ++i) {
        total[kMsgTypeCounters[i].name] = totals[i];
    }
    return {{"instances", std::move(instances)}, {"total", std::move(total)}};
}

std::string RenderMsgTypeStats(const ordered_json &reply) {
    ordered_json rows = reply["instances"];
    ordered_json total = reply["total"];
    const std::string instances = total["instanceCount"].dump();
    if (rows.empty()) {
        return "nothing counted for any of " + instances + " instances";
    }
    total["instanceCount"] = "all " + instances;
    rows.push_back(std::move(total));
    std::vector<std::string_view> headings = {"instance"};
    for (const MsgTypeCounter &counter : kMsgTypeCounters) {
        headings.emplace_back(counter.words);
    }
    return RecordTable(headings, rows);
}

// The ping counters.

ordered_json ReadPingStats(const Bytes &request, const Ask &ask) {
    const auto reply = AskFor<LyrKesCwpPingStatRsp>(ask, request);
    CheckResult(reply.result);
    MundPingCounter points[KES_HOOK_NUM];
    std::ranges::transform(reply.counts, points, [](const LyrKesCwpPingCount &count) {
        return MundPingCounter{count.pktCnt, count.fragCnt, count.byteCnt};
    });
    return {{"points", PingCountersToJson(points)}};
}

std::string RenderPingStats(const ordered_json &reply) {
    std::vector<std::string_view> headings = {"point"};
    for (const PingCounter &counter : kPingCounters) {
        headings.emplace_back(counter.name);
    }
    return RecordTable(headings, reply["points"]);
}

// The probe trace.

// The engine's date and time, of no stated zone, as ISO 8601 writes them: 2024-05-17T09:30:00.
std::string MomentText(uint32_t date, uint32_t time) {
    char text[32];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u", date >> 16, date >> 8 & 255,
                  date & 255, time >> 16, time >> 8 & 255, time & 255);
    return text;
}

std::string PointText(uint32_t kind) {
    return kind < std::size(kHookPointWords) ? kHookPointWords[kind]
                                             : "point " + std::to_string(kind);
}

ordered_json DecodeProbe(uint32_t position, const LyrKesCwpTraceEntry &entry) {
    const auto *nameEnd = std::ranges::find(entry.name, '\0');
    const LyrKesRpcIpAddr &peer = entry.peerAddr;
    return {{"position", position},
            {"time", MomentText(entry.date, entry.time)},
            {"name", std::string(std::begin(entry.name), nameEnd)},
            {"point", PointText(entry.hookKind)},
            {"mac", MacText(entry.mac)},
            {"peer", peer.ipVer == 0 ? AddressText(peer.ipv4Addr) : AddressText(peer.ipv6Addr)}};
}

ordered_json ReadProbes(const Bytes &first, const Ask &ask) {
    ordered_json records = ordered_json::array();
    client::ForEachProbe(
        MessageOf<LyrKesCwpTraceRecordReq>(first),
        [&](const LyrKesCwpTraceRecordReq &asked) {
            return AskFor<LyrKesCwpTraceRecordRsp>(ask, BytesOf(asked));
        },
        [&](uint32_t position, const LyrKesCwpTraceEntry &entry) {
            records.push_back(DecodeProbe(position, entry));
            return true;
        });
    return {{"records", std::move(records)}};
}

std::string RenderProbes(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"position", "time", "name", "point", "MAC", "peer"};
    const ordered_json &records = reply["records"];
    return records.empty() ? "no probes" : RecordTable(kHeadings, records);
}

ordered_json ReadProbesCleared(const Bytes &request, const Ask &ask) {
    const uint32_t result = AskFor<LyrKesCwpTraceRecordRsp>(ask, request).result;
    if (result != LYR_KES_PROBE_LAST) {
        throw ReplyError("the reply's result is " + std::to_string(result) + ", not " +
                         std::to_string(LYR_KES_PROBE_LAST));
    }
    return nullptr;
}

}  // namespace

const ReplyFormat kPktStatsReply = {sizeof(LyrKesGetPktStatisticsRsp), ReadPktStats,
                                    RenderPktStats};
const ReplyFormat kPktStatsResetReply = {sizeof(LyrKesResetPktStatisticsRsp),
                                         ReadResult<LyrKesResetPktStatisticsRsp>, nullptr};
const ReplyFormat kMsgTypeStatsReply = {sizeof(LyrKesCwpMsgTypeStatRsp), ReadMsgTypeStats,
                                        RenderMsgTypeStats};
const ReplyFormat kMsgTypeDoneReply = {sizeof(LyrKesCwpMsgTypeStatRsp),
                                       ReadResult<LyrKesCwpMsgTypeStatRsp>, nullptr};
const ReplyFormat kPingStatsReply = {sizeof(LyrKesCwpPingStatRsp), ReadPingStats, RenderPingStats};
const ReplyFormat kPingDoneReply = {sizeof(LyrKesCwpPingStatRsp), ReadResult<LyrKesCwpPingStatRsp>,
                                    nullptr};
const ReplyFormat kProbesReply = {sizeof(LyrKesCwpTraceRecordRsp), ReadProbes, RenderProbes};
const ReplyFormat kProbesClearedReply = {sizeof(LyrKesCwpTraceRecordRsp), ReadProbesCleared,
                                         nullptr};

}  // namespace control
