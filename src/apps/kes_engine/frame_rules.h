// What the command line says of frames by where they come from.
#pragma once

#include <array>
#include <cstdint>
#include <variant>
#include <vector>

#include "mund/messages.h"
#include "standin/mbuf_pool.h"

namespace kes_engine {

using Mac = std::array<uint8_t, 6>;

// The cause id of UDP packets from an address, or of all frames from a MAC address.
struct CauseRule {
    std::variant<LyrKesRpcIpAddr, Mac> source;
    uint16_t causeId;
};

struct FrameRules {
    std::vector<LyrKesRpcIpAddr> local;  // IP packets from these are transmitted
    std::vector<CauseRule> causes;       // of received frames; the first that covers one counts

    // Notes in a frame that has just come in what the rules say of it.
    void Apply(standin::HostMbufMeta &frame) const;
};

}  // namespace kes_engine
