// The packet's way through the engine.
#pragma once

#include <cstddef>
#include <span>

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

// The packets that pass the points of a path together. A longer row passes as several bursts.
constexpr size_t kMaxBurst = 32;

// A received frame's way: receive in, receive out, host path. A burst passes stage by stage: all
// packets the first point, then those that no hook has stopped the next one. Answers the fate of
// each packet, of which there are as many; a packet that is taken is not looked at again.
void RunReceivePath(std::span<HostMbuf *const> packets, std::span<Fate> fates);
Fate RunReceivePath(HostMbuf *packet);

// A transmitted frame's way, likewise: transmit in, transmit out.
void RunTransmitPath(std::span<HostMbuf *const> packets, std::span<Fate> fates);
Fate RunTransmitPath(HostMbuf *packet);

// The reader that a module gave to HostAcGetWlanIdRegFunc, or null.
HostWlanIdFunc WlanIdReader();

}  // namespace standin
#pragma GCC visibility pop
