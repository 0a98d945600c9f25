// Packets by which hosts find each other's hardware addresses: ARP and IPv6 neighbour discovery.
#pragma once

#include "kes/mbuf.h"

namespace kes_dpdk {

bool ResolvesAddresses(const HostMbuf *packet);

// Whether it answers somebody's question.
bool AnswersResolution(const HostMbuf *packet);

}  // namespace kes_dpdk
