/* Hooks: functions of a module that the engine calls at fixed points of a packet's way. */
#ifndef KES_HOOK_H
#define KES_HOOK_H

#include "kes/mbuf.h"

KES_BEGIN_DECLS

/* Points of the packet's way at which hooks run. */
enum {
    HOST_HOOK_RX_IN = 0,    /* a received frame enters the receive path */
    HOST_HOOK_RX_OUT = 11,  /* it leaves the receive path */
    HOST_HOOK_TX_OUT = 16,  /* a transmitted frame leaves the transmit path */
    HOST_HOOK_HOST_RX = 18, /* a received packet reaches the host path */
    HOST_HOOK_TX_IN = 21,   /* a transmitted frame enters the transmit path */
    HOST_HOOK_POINTS = 32
};

/* What a hook says of a packet. Any result but CONTINUE ends the packet's way. */
#define HOST_HOOK_CONTINUE 0ull         /* not taken; the engine carries on */
#define HOST_HOOK_TAKEN 0x1000000ull    /* the packet has a new owner */
#define HOST_HOOK_DISCARD 0x10000000ull /* meant for someone who did not take it; the engine's */

typedef uint64_t (*HostHookFunc)(HostMbuf *packet);

/*
 * Adds a hook to a point. Hooks of a point run in ascending priority, those of one priority in the
 * order of their registration. Every forwarding thread may be inside the hook at once.
 * Returns 0, or an error code: 1 invalid argument, 2 already registered, 3 no room.
 */
KES_API uint64_t HostHookRegister(uint32_t point, uint32_t priority, HostHookFunc hook,
                                  const char *owner);

/*
 * Removes a hook from a point and waits until no thread is inside it any more. Not to be called
 * from within a hook. Returns 0, or an error code: 1 invalid argument, 4 not registered.
 */
KES_API uint64_t HostHookUnregister(uint32_t point, HostHookFunc hook);

/* Reads the WLAN id of a tunnelled packet: 0 and the id, or an error code. */
typedef uint32_t (*HostWlanIdFunc)(HostMbuf *packet, uint16_t *wlanId);

/* Gives the engine the reader of a tunnelled packet's WLAN id. Returns 0. */
KES_API uint32_t HostAcGetWlanIdRegFunc(HostWlanIdFunc reader);

KES_END_DECLS

#endif
