#include "control/counters.h"

#include "control/values.h"

namespace control {

using nlohmann::ordered_json;

ordered_json PacketCountersToJson(const LyrKesPktStat &counters) {
    ordered_json json;
    for (const PacketCounter &counter : kPacketCounters) {
        json[counter.name] = counters.*counter.value;
    }
    return json;
}

ordered_json PacketCountersToJson(
    std::span<const LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM> classes) {
    ordered_json list = ordered_json::array();
    for (size_t i = 0; i < classes.size(); ++i) {
        list.push_back({{"class", kPacketClassWords[i]}});
        list.back().update(PacketCountersToJson(classes[i]));
    }
    return list;
}

ordered_json DropWatchToJson(const MundDropWatch &watch) {
    const bool open = watch.periodStart != MUND_DROP_WATCH_CLOSED;
    ordered_json json = {
        {"alarmRaised", watch.alarmRaised != 0},
        {"open", open},
        {"periodStart", open ? ordered_json(TimeText(watch.periodStart)) : ordered_json()}};
    for (const DropNumber &number : kDropNumbers) {
        json[number.name] = watch.*number.value;
    }
    return json;
}

ordered_json PingCountersToJson(std::span<const MundPingCounter, KES_HOOK_NUM> points) {
    ordered_json list = ordered_json::array();
    for (size_t i = 0; i < points.size(); ++i) {
        ordered_json &counts = list.emplace_back();
        counts["point"] = kHookPointWords[i];
        for (const PingCounter &counter : kPingCounters) {
            counts[counter.name] = points[i].*counter.value;
        }
    }
    return list;
}

}  // namespace control
