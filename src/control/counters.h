// The module's counters: how each is called, wherever it is shown. docs/vocabulary.md lists the
// names.
#pragma once

#include <array>
#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>
#include <span>

#include "mund/module_objects.h"
#include "mund/statistics_messages.h"

namespace control {

// What is counted by, by the place in messages and objects.
#define LYR_WORDS(name, words) words,
inline constexpr std::array kPacketTypeWords = {MUND_PACKET_TYPES(LYR_WORDS)};
inline constexpr std::array kPacketClassWords = {LYR_KES_PKT_STAT_ROWS(LYR_WORDS)};
inline constexpr std::array kHookPointWords = {LYR_KES_HOOK_KINDS(LYR_WORDS)};
#undef LYR_WORDS

struct MetricFamily {
    const char *name;
    const char *help;
    const char *label = nullptr;  // that tells the counters of the family apart
};

inline constexpr MetricFamily kPacketsReceived = {"lyr_host_packets_received_total",
                                                  "Packets that the module classified."};
inline constexpr MetricFamily kPacketResults = {
    "lyr_host_packets_total", "Classified packets by what became of them.", "result"};
inline constexpr MetricFamily kPacketFailures = {
    "lyr_host_processing_failures_total",
    "Packets whose processing failed, by the reasons that have a counter.", "reason"};

// The counters of a class of packets, in the order of their record.
struct PacketCounter {
    const char *name;   // in JSON
    const char *words;  // in tables; IdentifierOf(words) is the value of the metric's label
    const MetricFamily &metric;
    uint32_t LyrKesPktStat::*value;
};

inline constexpr PacketCounter kPacketCounters[] = {
    {"received", "received", kPacketsReceived, &LyrKesPktStat::rxCnt},
    {"sent", "sent", kPacketResults, &LyrKesPktStat::sendOkCnt},
    {"sendFailed", "send failed", kPacketResults, &LyrKesPktStat::sendFailCnt},
    {"processingFailed", "processing failed", kPacketResults, &LyrKesPktStat::procFailCnt},
    {"sourceMismatch", "source mismatch", kPacketFailures, &LyrKesPktStat::srcMismatchCnt},
    {"notDistributed", "not distributed", kPacketFailures, &LyrKesPktStat::distFailCnt},
    {"sessionIdFailed", "session id failed", kPacketFailures, &LyrKesPktStat::kaSessionFailCnt}};
static_assert(std::size(kPacketCounters) == LYR_KES_PKT_STAT_COUNTER_NUM);

// The numbers of the watch over drops.
struct DropNumber {
    const char *name;
    MetricFamily metric;
    uint32_t MundDropWatch::*value;
};

inline constexpr DropNumber kDropNumbers[] = {
    {"dropped",
     {"lyr_host_drop_watch_dropped_packets", "Packets dropped since the watch opened."},
     &MundDropWatch::dropNum},
    {"droppedBeforePeriod",
     {"lyr_host_drop_watch_dropped_before_period_packets",
      "Of these, packets dropped before the period that is running."},
     &MundDropWatch::lastDropNum},
    {"packets",
     {"lyr_host_drop_watch_packets", "Packets counted since the watch opened."},
     &MundDropWatch::totalNum},
    {"periodsWithDrops",
     {"lyr_host_drop_watch_periods_with_drops",
      "Periods with drops on end while the alarm is not raised."},
     &MundDropWatch::contDropPeriods},
    {"quietPeriods",
     {"lyr_host_drop_watch_quiet_periods",
      "Periods without drops on end while the alarm is raised."},
     &MundDropWatch::contNoDropPeriods}};

// The counters of pings at a point of the packet path.
struct PingCounter {
    const char *name;  // in tables too
    MetricFamily metric;
    uint64_t MundPingCounter::*value;
};

inline constexpr PingCounter kPingCounters[] = {
    {"packets",
     {"lyr_host_ping_packets_total", "Pings to and from the peer."},
     &MundPingCounter::pktCnt},
    {"fragments",
     {"lyr_host_ping_fragments_total", "Pings that are CAPWAP fragments."},
     &MundPingCounter::fragCnt},
    {"bytes", {"lyr_host_ping_bytes_total", "Payload of the pings."}, &MundPingCounter::byteCnt}};

inline constexpr MetricFamily kMsgTypeHandOffs = {
    "lyr_host_message_type_handoffs_total",
    "Hand-offs of the selected CAPWAP message type and the one above it.", "result"};

// The counters of the selected message type and of the one above it, by service instance.
struct MsgTypeCounter {
    const char *name;
    const char *words;
    const char *result;  // the value of the metric's label
    uint32_t above;      // the selected type
    uint32_t (LyrKesCwpMsgTypeStatRsp::*counts)[LYR_KES_MSG_TYPE_STAT_NUM];
    uint64_t MundMsgTypeStat::*array;  // the object's pointer to all of them
    size_t offset;                     // of that pointer
};

inline constexpr MsgTypeCounter kMsgTypeCounters[] = {
    {"sent", "sent", "sent", 0, &LyrKesCwpMsgTypeStatRsp::recvCnt, &MundMsgTypeStat::recvCnt,
     offsetof(MundMsgTypeStat, recvCnt)},
    {"sendFailed", "send failed", "send_failed", 0, &LyrKesCwpMsgTypeStatRsp::dropCnt,
     &MundMsgTypeStat::dropCnt, offsetof(MundMsgTypeStat, dropCnt)},
    {"nextSent", "next type sent", "sent", 1, &LyrKesCwpMsgTypeStatRsp::nextRecvCnt,
     &MundMsgTypeStat::nextRecvCnt, offsetof(MundMsgTypeStat, nextRecvCnt)},
    {"nextSendFailed", "next type send failed", "send_failed", 1,
     &LyrKesCwpMsgTypeStatRsp::nextDropCnt, &MundMsgTypeStat::nextDropCnt,
     offsetof(MundMsgTypeStat, nextDropCnt)}};

// An object for each class: {"class": its words, and its counters}.
nlohmann::ordered_json PacketCountersToJson(
    std::span<const LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM> classes);

// The counters alone.
nlohmann::ordered_json PacketCountersToJson(const LyrKesPktStat &counters);

// {"alarmRaised", "open", "periodStart" (null while it is not open), and its numbers}.
nlohmann::ordered_json DropWatchToJson(const MundDropWatch &watch);

// An object for each point of the packet path: {"point": its words, and its counters}.
nlohmann::ordered_json PingCountersToJson(std::span<const MundPingCounter, KES_HOOK_NUM> points);

}  // namespace control
