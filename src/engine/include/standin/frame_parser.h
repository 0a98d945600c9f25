// The engine's one look at a frame on entry.
#pragma once

#include "kes/mbuf.h"

#pragma GCC visibility push(default)
namespace standin {

// Reads Ethernet, any number of VLAN tags (802.1Q, 802.1ad), IPv4 with options or IPv6, and the UDP
// or TCP ports into the buffer's private area, and trims Ethernet padding behind the IP length.
// A later IP fragment has no ports. What a truncated or malformed frame lacks stays 0; an IP
// header that is cut off or contradicts itself makes the frame HOST_PROTO_OTHER, as do more VLAN
// tags than a header length of 8 bits can count. Expects a private area in its initial state.
void ParseFrame(HostMbuf *mbuf);

}  // namespace standin
#pragma GCC visibility pop
