// The classes of packets that the module keeps counters for, as the engine tells them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "kes/mbuf.h"
#include "mund/statistics_messages.h"

namespace kes_engine {

// CAPWAP header, and the DTLS record behind a CAPWAP DTLS header (RFC 5415, sections 4.1 to 4.3).
constexpr uint8_t kPreambleTypeMask = 0x0F;  // in the first byte
constexpr uint8_t kPreambleDtls = 1;
constexpr size_t kFlagsAt = 3;
constexpr uint8_t kFlagFragment = 0x80;
constexpr uint8_t kFlagKeepalive = 0x08;
constexpr size_t kContentTypeAt = 4;

// Packets by class, as wide as the module's counters, so that both wrap alike.
using ClassCounts = std::array<uint32_t, LYR_KES_PKT_STAT_ROW_NUM>;

// Whether a packet is CAPWAP control, as far as its ports say.
bool IsControl(const HostMbuf *packet);

// The class of a packet that the module wants for a service instance, by the frame alone; nothing
// for one that is of no class.
std::optional<size_t> ClassOf(const HostMbuf *packet);

// Counts a packet that the module wanted for a service instance, by the frame alone. One that is
// of no class, as a station's, is not counted.
void CountByClass(ClassCounts &counts, const HostMbuf *packet);

}  // namespace kes_engine
