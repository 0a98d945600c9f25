// Finds the service instance that owns a packet's tunnel or session and writes its number into the
// packet as load-balance key.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"

// What a lookup answers.
enum LyrKesDistResult : uint32_t {
    LYR_DIST_OK = 0,               // the packet carries the key to send it by
    LYR_DIST_SOURCE_MISMATCH = 2,  // it is not addressed to a CAPWAP source
    LYR_DIST_NO_TABLE = 3,         // no table, a broken chain, or neither IPv4 nor IPv6
    LYR_DIST_BAD_SESSION = 5,      // the keepalive's session id cannot be read
};

// All of these run on the forwarding threads, allocate nothing and hold one table's read locker
// for one bucket walk.

// For control packets and DTLS handshakes: by addresses, ports and VPN id.
LYR_API uint32_t LyrKes_DistCwp_PktProc(HostMbuf *packet);
LYR_API uint32_t LyrKes_DistIpv4_PktProc(HostMbuf *packet);
LYR_API uint32_t LyrKes_DistIpv6_PktProc(HostMbuf *packet);

// For tunnels that are not registered: gives the packet the default entry's key, if there is one.
LYR_API void LyrKes_DistIpv4_UseDefaultLbTable(HostMbuf *packet);
LYR_API void LyrKes_DistIpv6_UseDefaultLbTable(HostMbuf *packet);

// For keepalives: by session id. An unknown session leaves the packet's key as it is.
LYR_API uint32_t LyrKes_DistKa_PktProc(HostMbuf *packet);
