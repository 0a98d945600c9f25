// Hands packets to service instances.
//
// A packet belongs to the receiver the moment the channel takes it: nothing here reads a packet
// after a successful send. A packet that could not be sent stays the engine's. All of this runs on
// the forwarding threads, takes no lock and allocates nothing.
#pragma once

#include <cstdint>

#include "channel/service_channel.h"
#include "kes/mbuf.h"
#include "module/export.h"

// What a hand-off answers.
enum LyrKesHandOffResult : uint32_t {
    LYR_HANDED_OVER = 0,
    LYR_NOT_HANDED_OVER = 4,
};

// Hand-offs by packet type, and what became of WAPI frames. Never reset.
LYR_API uint32_t g_lyrKesChnSendSucceedPktCnt[LYR_PKT_TYPE_NUM];
LYR_API uint32_t g_lyrKesChnSendFailPktCnt[LYR_PKT_TYPE_NUM];
LYR_API uint32_t g_lyrKesWapiPacket2Svc;
LYR_API uint32_t g_lyrKesWapiPacket2Fail;

// Sends a packet to the instance `lbKey` and wakes the instance's thread.
// Returns 0, or 0xFFFFFFFF when it was not handed over.
LYR_API uint32_t LyrKes_ChnSendPktToLyr(HostMbuf *packet, uint32_t lbKey, uint32_t pktType);

// Send a CAPWAP packet to the instance of its load-balance key, a WAPI frame to its station's.
LYR_API uint32_t LyrKes_SendPktToLyrSvcByChannel(HostMbuf *packet);
LYR_API uint32_t LyrKes_SendPktToLyrStaByChannel(HostMbuf *packet);

// Translates the packet's interface indexes to the control plane's.
LYR_API void LyrKes_ReFillMbufPara(HostMbuf *packet);
