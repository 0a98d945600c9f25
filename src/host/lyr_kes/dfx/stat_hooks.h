// The four statistics hooks: where packets enter and leave the engine's transmit and receive path,
// they count the vendor's ping messages and trace its probes.
//
// A hook takes no packet and changes nothing of it but its trace and statistics marks. It runs on
// every forwarding thread at once, takes no lock and allocates nothing.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"

// Register and unregister the hooks. What fails is logged, and the others go on.
LYR_API void LyrKes_RegCwpStatTrace();
LYR_API void LyrKes_UnRegCwpStatTrace();

// The hooks: HOST_HOOK_CONTINUE, or HOST_HOOK_DISCARD for a null packet.
LYR_API uint64_t LyrKes_CwpStatTxInProc(HostMbuf *packet);
LYR_API uint64_t LyrKes_CwpStatTxOutProc(HostMbuf *packet);
LYR_API uint64_t LyrKes_CwpStatRxInProc(HostMbuf *packet);
LYR_API uint64_t LyrKes_CwpStatRxOutProc(HostMbuf *packet);

// Counts the packet if it is one of the peer's pings, and traces it if it is a probe or marked for
// tracing. HOST_HOOK_CONTINUE, or HOST_HOOK_DISCARD for a CAPWAP packet that is too short.
LYR_API uint64_t LyrKes_ParseCheckCwpType(HostMbuf *packet, uint32_t hookKind);
