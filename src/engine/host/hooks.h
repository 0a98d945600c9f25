// What the packet path and the accounting see of the registered hooks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kes/hook.h"
#include "standin/packet_path.h"

namespace standin {

// Takes a burst through one point after the other, and answers the fate of each packet. The thread
// is inside all of these points until it returns.
void RunPoints(std::span<const uint32_t> points, std::span<HostMbuf *const> packets,
               std::span<Fate> fates);

size_t HookCount();

// Withdraws the WLAN-id reader if it lies in the shared object that contains `address`.
void ForgetWlanIdReaderOf(const void *address);

}  // namespace standin
