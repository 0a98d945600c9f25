// The module's packet hook: which packets the management service must see, and where they go.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"

// The hook: the result tells the engine the packet's fate (HOST_HOOK_*). Runs on every forwarding
// thread at once. A packet that the hook answers HOST_HOOK_TAKEN has a new owner already.
LYR_API uint64_t LyrKes_PktProc(HostMbuf *packet);

// False for packets that reached the host path for a cause that the module leaves alone.
LYR_API bool LyrKes_IsLocalPkt(const HostMbuf *packet);

// A WAPI frame goes to its station's instance; 0 for any other frame.
LYR_API uint64_t LyrKes_WapiPktProc(HostMbuf *packet);

// A CAPWAP control packet, keepalive or DTLS handshake goes to the instance that owns its tunnel
// or session; 0 for any other packet and for one that cannot be distributed.
LYR_API uint64_t LyrKes_CapwapPktProc(HostMbuf *packet);
