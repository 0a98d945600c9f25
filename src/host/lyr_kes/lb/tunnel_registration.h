// Registers tunnels, keepalive sessions and station instances, and resolves the channel and thread
// of an instance the first time that it is used. Callable from any RPC thread.
#pragma once

#include <cstdint>

#include "lb/dist_table.h"
#include "module/export.h"
#include "mund/messages.h"

// Build a table key from a request.
LYR_API void LyrKes_DistIPv4SetKey(LyrKesDistIpv4Key *key, const LyrKesCwpTunnelReq *request);
LYR_API void LyrKes_DistIPv6SetKey(LyrKesDistIpv6Key *key, const LyrKesCwpTunnelReq *request);

// Add an entry, or give the one that is there a new owner. Return 0; 1 when the node id is above
// the instances or there is no memory; 0xFFFFFFFF when the table is missing or its chain broken.
LYR_API uint32_t LyrKes_DistAddIPv4Tunnel(uint32_t nodeId, const LyrKesDistIpv4Key *key);
LYR_API uint32_t LyrKes_DistAddIPv6Tunnel(uint32_t nodeId, const LyrKesDistIpv6Key *key);
LYR_API uint32_t LyrKes_DistAddKaTunnel(uint32_t nodeId, const LyrKesDistKaKey *key);

// Delete the entry of a key, whoever owns it. Return 0, also when there is none; 0xFFFFFFFF when
// the table is missing or its chain broken.
LYR_API uint32_t LyrKes_DistDelIPv4Tunnel(uint32_t nodeId, const LyrKesDistIpv4Key *key);
LYR_API uint32_t LyrKes_DistDelIPv6Tunnel(uint32_t nodeId, const LyrKesDistIpv6Key *key);
LYR_API uint32_t LyrKes_DistDelKaTunnel(uint32_t nodeId, const LyrKesDistKaKey *key);

// Sets the range of instances that serve stations. Returns 0, or 1 when it exceeds the instances.
LYR_API uint32_t LyrKes_DistAddWapiTunnel(uint32_t startVcpuId, uint32_t instSpec);

// Resolves the channel and thread of an instance for a packet type, unless that is done already.
// Returns 0, or 0xFFFFFFFF with the slot unresolved.
LYR_API uint32_t LyrKes_DistAddChannel(uint32_t nodeId, uint32_t pktType);
