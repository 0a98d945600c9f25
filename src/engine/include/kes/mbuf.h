/*
 * The packet buffer and its accessors.
 *
 * The first 128 bytes are laid out as a DPDK rte_mbuf. What the engine knows of the packet
 * follows in the buffer's private area, which is reached through the accessors only, so the
 * same accessors serve any allocator that leaves a private area behind the record.
 *
 * Values are in host byte order. An accessor of a field that the packet does not have answers 0
 * (or zeros). A buffer belongs to one thread at a time; the accessors do no locking.
 */
#ifndef KES_MBUF_H
#define KES_MBUF_H

#include <assert.h>

#include "kes/api.h"

KES_BEGIN_DECLS

typedef struct HostMbuf {
    void *bufAddr;         /* start of the data buffer */
    uint64_t bufIova;      /* its I/O address */
    uint16_t dataOff;      /* bytes from bufAddr to the first byte of the packet */
    uint16_t refCnt;       /* references held */
    uint16_t nbSegs;       /* segments of the packet */
    uint16_t port;         /* receive device */
    uint64_t olFlags;      /* offload flags */
    uint32_t packetType;   /* parsed layers, as the device reports them */
    uint32_t pktLen;       /* bytes of the packet, all segments together */
    uint16_t dataLen;      /* bytes of the packet in this segment */
    uint16_t vlanTci;      /* stripped VLAN tag */
    uint8_t hash[8];       /* device hash */
    uint16_t vlanTciOuter; /* stripped outer VLAN tag */
    uint16_t bufLen;       /* bytes of the data buffer */
    void *pool;            /* owner of the buffer */
    struct HostMbuf *next; /* next segment, null in the last */
    uint64_t txOffload;    /* transmit offload lengths */
    void *shInfo;          /* shared external data */
    uint16_t privSize;     /* bytes of the private area */
    uint16_t timeSync;     /* time synchronisation flags */
    uint32_t dynField[9];  /* fields that drivers place at run time */
} HostMbuf;

static_assert(offsetof(HostMbuf, bufAddr) == 0, "data address as in rte_mbuf");
static_assert(offsetof(HostMbuf, dataOff) == 16, "data offset as in rte_mbuf");
static_assert(offsetof(HostMbuf, nbSegs) == 20, "segment count as in rte_mbuf");
static_assert(offsetof(HostMbuf, pktLen) == 36, "packet length as in rte_mbuf");
static_assert(offsetof(HostMbuf, dataLen) == 40, "segment length as in rte_mbuf");
static_assert(offsetof(HostMbuf, bufLen) == 54, "buffer length as in rte_mbuf");
static_assert(offsetof(HostMbuf, pool) == 56, "pool as in rte_mbuf");
static_assert(offsetof(HostMbuf, next) == 64, "next segment as in rte_mbuf");
static_assert(offsetof(HostMbuf, privSize) == 88, "private area size as in rte_mbuf");
static_assert(sizeof(HostMbuf) == 128, "private area at byte 128");

/* Network protocol of a packet, as HostMbufGetProtoType answers it. */
enum { HOST_PROTO_IPV4 = 0, HOST_PROTO_IPV6 = 1, HOST_PROTO_OTHER = 2 };

/* Load-balance key of a packet that no one has given a key yet. */
#define HOST_LB_KEY_NONE 0xFFFFFFFFu

/* Network protocol: one of HOST_PROTO_*. */
KES_API uint8_t HostMbufGetProtoType(const HostMbuf *mbuf);
/* Bytes before the IP header: Ethernet header and VLAN tags. The low 8 bits count. */
KES_API uint32_t HostMbufGetL2HeadLength(const HostMbuf *mbuf);
/* IPv4 header length in bytes, options included. The low 8 bits count. */
KES_API uint32_t HostMbufGetIphdrHeadlen(const HostMbuf *mbuf);
/* IP protocol, or IPv6 next header of the base header. The low 8 bits count. */
KES_API uint32_t HostMbufGetIphdrProtocol(const HostMbuf *mbuf);
/* IPv4 source and destination address. */
KES_API uint32_t HostMbufGetIphdrSrcIp(const HostMbuf *mbuf);
KES_API uint32_t HostMbufGetIphdrDstIp(const HostMbuf *mbuf);
/* IPv6 source and destination address: four host-order words, the most significant first.
 * Never null; the words live as long as the buffer. */
KES_API const uint32_t *HostMbufGetIp6hdrSrcip(const HostMbuf *mbuf);
KES_API const uint32_t *HostMbufGetIp6hdrDstip(const HostMbuf *mbuf);
/* UDP or TCP ports; 0 in a later IP fragment. The low 16 bits count. */
KES_API uint32_t HostMbufGetL4SrcPort(const HostMbuf *mbuf);
KES_API uint32_t HostMbufGetL4DstPort(const HostMbuf *mbuf);
/* Six bytes of the source and destination MAC address; null if the frame is too short for them. */
KES_API const uint8_t *HostMbufGetSrcMac(const HostMbuf *mbuf);
KES_API const uint8_t *HostMbufGetDstMac(const HostMbuf *mbuf);
/* Ethernet type (or length) behind any VLAN tags. The low 16 bits count. */
KES_API uint32_t HostMbufGetEthhdrTypeorlen(const HostMbuf *mbuf);

/* Why the packet came to the host path: action and id. The low 16 bits count. */
KES_API uint32_t HostMbufGetCauseAction(const HostMbuf *mbuf);
KES_API uint32_t HostMbufGetCauseId(const HostMbuf *mbuf);
/* VRF in which the packet arrived. */
KES_API uint32_t HostMbufGetReceiveVrfIndex(const HostMbuf *mbuf);
/* Forwarding-plane index of the port on which the packet arrived. */
KES_API uint32_t HostMbufGetReceivePortIndex(const HostMbuf *mbuf);
KES_API void HostMbufSetReceivePortIndex(HostMbuf *mbuf, uint32_t index);
/* Forwarding-plane index of the outgoing interface. */
KES_API uint32_t HostMbufGetOeIfIndex(const HostMbuf *mbuf);
KES_API void HostMbufSetOeIfIndex(HostMbuf *mbuf, uint32_t index);

/* Load-balance key: HOST_LB_KEY_NONE until someone sets one. */
KES_API uint32_t HostMbufGetLbKey(const HostMbuf *mbuf);
KES_API void HostMbufSetLbKey(HostMbuf *mbuf, uint32_t key);
/* Non-zero when the packet is marked for the diagnostic print. */
KES_API uint8_t HostMbufGetHostDiagSwitch(const HostMbuf *mbuf);
/* Mark for the engine's packet trace. */
KES_API uint32_t HostMbufGetNeedTrace(const HostMbuf *mbuf);
KES_API void HostMbufSetNeedTrace(HostMbuf *mbuf, uint32_t mark);
/* Mark for the engine's packet statistics. */
KES_API void HostMbufSetNeedStat(HostMbuf *mbuf, uint32_t mark);

KES_END_DECLS

#endif
