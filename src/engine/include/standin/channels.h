// The receivers' side of channels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "kes/channel.h"

#pragma GCC visibility push(default)
namespace standin {

// Opens a channel that holds up to `capacity` packets. Returns its id, or TOV_CHANNEL_ID_NONE if
// the name is taken or there is no memory. Callable from any thread, as all of these; one thread at
// a time receives from a channel.
uint32_t OpenChannel(const std::string &name, uint32_t capacity);

// The oldest packet of the channel, now the caller's, or null when it is empty.
HostMbuf *ReceiveFromChannel(uint32_t channelId);
// The oldest packets, as many as there are and fit, in order. Returns how many.
size_t ReceiveFromChannel(uint32_t channelId, std::span<HostMbuf *> packets);

// How many packets wait in the channel.
size_t PacketsInChannel(uint32_t channelId);

// Closes a channel: sends to it fail from now on. Its name is free again, its id is not used again.
// What is still in it can be received.
void CloseChannel(uint32_t channelId);

}  // namespace standin
#pragma GCC visibility pop
