// The packet's way through the engine.
#pragma once

#include "kes/hook.h"

#pragma GCC visibility push(default)
namespace standin {

enum class Fate {
    kReturned,     // no hook took it; it is the caller's
    kTaken,        // it has a new owner
    kUndelivered,  // a hook wanted it handed over and could not; it is the caller's
};

// Runs the hooks of one point until one of them answers other than HOST_HOOK_CONTINUE, and returns
// the last answer. Callable from any thread.
uint64_t RunHooks(uint32_t point, HostMbuf *packet);

// A received frame's way: receive in, receive out, host path.
Fate RunReceivePath(HostMbuf *packet);

// A transmitted frame's way: transmit in, transmit out.
Fate RunTransmitPath(HostMbuf *packet);

// The reader that a module gave to HostAcGetWlanIdRegFunc, or null.
HostWlanIdFunc WlanIdReader();

}  // namespace standin
#pragma GCC visibility pop
