// The points of the packet's way at which the statistics hooks look at packets (LyrKesHookKind).
#pragma once

#include "mund/statistics_messages.h"
#include "packet/packet_address.h"

namespace lyr {

constexpr bool IsTransmit(uint32_t hookKind) {
    return hookKind == KES_HOOK_TXIN || hookKind == KES_HOOK_TXOUT;
}

// The end of the packet at which the peer is.
constexpr PacketEnd PeerEnd(uint32_t hookKind) {
    return IsTransmit(hookKind) ? PacketEnd::kDestination : PacketEnd::kSource;
}

}  // namespace lyr
