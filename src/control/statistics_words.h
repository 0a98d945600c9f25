// What the statistics speak of in words, by the place in messages and objects.
#pragma once

#include <nlohmann/json.hpp>
#include <span>

#include "mund/module_objects.h"
#include "mund/statistics_messages.h"

namespace control {

#define LYR_WORDS(name, words) words,
inline constexpr const char *kPacketTypeWords[] = {MUND_PACKET_TYPES(LYR_WORDS)};
inline constexpr const char *kPacketClassWords[] = {LYR_KES_PKT_STAT_ROWS(LYR_WORDS)};
inline constexpr const char *kHookPointWords[] = {LYR_KES_HOOK_KINDS(LYR_WORDS)};
#undef LYR_WORDS

struct PacketCounter {
    const char *field;
    const char *words;
    uint32_t LyrKesPktStat::*value;
};

#define LYR_COUNTER(field, words) {#field, words, &LyrKesPktStat::field},
inline constexpr PacketCounter kPacketCounters[] = {LYR_KES_PKT_STAT_COUNTERS(LYR_COUNTER)};
#undef LYR_COUNTER

// An object for each class: its words and its counters by field.
nlohmann::ordered_json PacketCountersToJson(
    std::span<const LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM> classes);

}  // namespace control
