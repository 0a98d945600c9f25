// The classes of packets that the module keeps counters for, as the engine tells them.
#pragma once

#include <array>
#include <cstdint>

#include "kes/mbuf.h"
#include "mund/statistics_messages.h"

namespace kes_engine {

// The classes in words, in the order of the module's rows.
#define KES_ENGINE_CLASS(name, words) words,
inline constexpr const char *kClassWords[] = {LYR_KES_PKT_STAT_ROWS(KES_ENGINE_CLASS)};
#undef KES_ENGINE_CLASS

// Packets by class, as wide as the module's counters, so that both wrap alike.
using ClassCounts = std::array<uint32_t, LYR_KES_PKT_STAT_ROW_NUM>;

// Whether a packet is CAPWAP control, as far as its ports say.
bool IsControl(const HostMbuf *packet);

// Counts a packet that the module wanted for a service instance, by the frame alone. One that is
// of no class, as a station's, is not counted.
void CountByClass(ClassCounts &counts, const HostMbuf *packet);

}  // namespace kes_engine
