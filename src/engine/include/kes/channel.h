/* Channels: named one-way queues that hand packets to a service. */
#ifndef KES_CHANNEL_H
#define KES_CHANNEL_H

#include "kes/mbuf.h"

KES_BEGIN_DECLS

#define TOV_CHANNEL_ID_NONE 0xFFFFFFFFu

/* The id of the channel with this name, or TOV_CHANNEL_ID_NONE. */
KES_API uint32_t TOV_ChannelGetIdByName(const char *name);

/*
 * Hands a packet to the channel's receiver, at once: after a success the receiver may already have
 * read, changed or released it, and the sender must not touch it. A failure leaves the packet with
 * the sender. `option` is passed through to the channel. Callable from any thread.
 * Returns 0, or an error code: 1 no such channel, 2 channel full.
 */
KES_API uint32_t TOV_ChannelDcSend(uint32_t channelId, HostMbuf *packet, uint32_t option);

KES_END_DECLS

#endif
