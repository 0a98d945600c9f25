// Whether a packet is addressed to the controller.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"
#include "packet/host_ip_addr.h"

// True if the packet may be distributed: a unicast packet to the address of a CAPWAP source, a
// broadcast or multicast packet that arrived on the interface of one. Reports a refusal. Runs on
// the forwarding threads while operations may change the sources.
LYR_API bool LyrHost_IsPktMatchCwpSrc(const HostMbuf *packet);

// True if a source admits broadcast and multicast from this control-plane interface.
LYR_API bool LyrHost_IsRecvIfMatchCwpSrcRecord(uint32_t ifIndex);

// True if a source has this address.
LYR_API bool LyrHost_IsDstIpMatchCwpSrcRecord(const HostIpAddr *address);
