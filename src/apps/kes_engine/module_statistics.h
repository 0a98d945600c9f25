// What the module itself says of the packets that it saw.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "forwarding.h"
#include "mund/statistics_messages.h"
#include "packet_class.h"
#include "standin/module_loader.h"

namespace kes_engine {

// By class.
using PacketCounters = std::array<LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM>;

// The counters of a started module; nothing when it offers none. Throws Failure.
std::optional<PacketCounters> ReadPacketCounters();

// What was counted between two readings.
PacketCounters Between(const PacketCounters &earlier, const PacketCounters &later);

// Where the counters contradict what the engine saw, or themselves: one line each.
std::vector<std::string> ContradictionsIn(const PacketCounters &counters,
                                          const ClassCounts &receivedByInstances,
                                          const Fates &fates);

// The module's watch for messages that it could not hand over.
struct DropWatch {
    uint32_t dropped;           // since the watch opened
    uint32_t droppedBefore;     // of these, before the period that is running
    uint32_t messages;          // since the watch opened
    uint32_t periodsWithDrops;  // on end, while there is no alarm
    uint32_t quietPeriods;      // on end, while there is one
    uint32_t periodStart;       // second since the epoch
    bool open;                  // otherwise the numbers mean nothing
    bool alarmRaised;
};

// The watch of a loaded module; nothing when it has none.
std::optional<DropWatch> ReadDropWatch(const standin::Module &module);

}  // namespace kes_engine
