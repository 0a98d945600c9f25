// What the module itself says of the packets that it saw.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fates.h"
#include "mund/module_objects.h"
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
PacketCounters Sum(const PacketCounters &one, const PacketCounters &other);

// Where the counters contradict what the engine saw, or themselves: one line each.
std::vector<std::string> ContradictionsIn(const PacketCounters &counters,
                                          const ClassCounts &receivedByInstances,
                                          const Fates &fates);

// The watch for packets that could not be handed over, of a loaded module; nothing when it has
// none.
std::optional<MundDropWatch> ReadDropWatch(const standin::Module &module);

}  // namespace kes_engine
