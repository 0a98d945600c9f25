// Which packets have to stay in order.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"

namespace kes_engine {

// A number that both directions of a conversation and all fragments of a packet share, and that
// other conversations hardly do.
uint64_t FlowOf(const HostMbuf *packet);

}  // namespace kes_engine
