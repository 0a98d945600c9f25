// Checksums that a sender has left to its network card.
#pragma once

#include "kes/mbuf.h"

namespace dpdk {

// Completes the UDP or TCP checksum of a packet in which the sender has only put the sum over its
// addresses, protocol and length, as on a pair of virtual interfaces. Any other packet stays as it
// is, and so does a fragment.
void CompleteChecksum(HostMbuf *packet);

}  // namespace dpdk
