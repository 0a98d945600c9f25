/* Layouts of the reconciliation's messages, and of the records of what it removed. */
#ifndef MUND_RECONCILIATION_MESSAGES_H
#define MUND_RECONCILIATION_MESSAGES_H

#include "mund/messages.h"

/* What a reconciliation record says. */
enum {
    LYR_KES_RECON_BEGIN = 0,   /* opens the audit of a node */
    LYR_KES_RECON_TUNNEL = 1,  /* confirms a CAPWAP tunnel of the node */
    LYR_KES_RECON_SESSION = 2, /* confirms a keepalive session of the node */
    LYR_KES_RECON_FINISH = 3,  /* closes the audit: what is not confirmed goes */
};

/* Reconciliation: one record. Bytes 4 to 59 are laid out as in LyrKesCwpTunnelReq. */
typedef struct LyrKesReconRecord {
    uint32_t reconType; /* LYR_KES_RECON_* */
    LyrKesRpcIpAddr srcAddr;
    LyrKesRpcIpAddr dstAddr; /* ipVer is not read */
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;
    uint32_t sessionId[4];
    uint32_t nodeId; /* the instance being audited, in every record */
} LyrKesReconRecord;

static_assert(offsetof(LyrKesReconRecord, srcAddr) == offsetof(LyrKesCwpTunnelReq, srcAddr),
              "source as in a tunnel request");
static_assert(offsetof(LyrKesReconRecord, vpnId) == offsetof(LyrKesCwpTunnelReq, vpnId),
              "VPN id as in a tunnel request");
static_assert(offsetof(LyrKesReconRecord, sessionId) == 60, "session id at 60");
static_assert(offsetof(LyrKesReconRecord, nodeId) == 76, "node id at 76");
static_assert(sizeof(LyrKesReconRecord) == 80, "reconciliation record of 80 bytes");

/* BatchReconciliation, as the operation reads it. On the wire the records follow the first eight
 * bytes. */
typedef struct LyrKesBatchReconReq {
    uint32_t count;
    uint32_t reserved;
    const LyrKesReconRecord *records;
} LyrKesBatchReconReq;

static_assert(offsetof(LyrKesBatchReconReq, records) == 8, "address of the records at 8");
static_assert(sizeof(LyrKesBatchReconReq) == 16, "batch request of 16 bytes");

/* A tunnel that is gone. Fields of the other family are 0. */
typedef struct LyrKesVerifyTunnel {
    uint32_t ipVer; /* 0 IPv4, 1 IPv6 */
    uint32_t srcIpv4;
    uint32_t dstIpv4;
    uint16_t srcIpv6[8];
    uint16_t dstIpv6[8];
    uint16_t srcPort;
    uint16_t dstPort;
} LyrKesVerifyTunnel;

static_assert(offsetof(LyrKesVerifyTunnel, srcIpv6) == 12, "IPv6 source at 12");
static_assert(offsetof(LyrKesVerifyTunnel, dstIpv6) == 28, "IPv6 destination at 28");
static_assert(offsetof(LyrKesVerifyTunnel, srcPort) == 44, "source port at 44");
static_assert(sizeof(LyrKesVerifyTunnel) == 48, "tunnel description of 48 bytes");

typedef struct LyrKesVerifyRcd {
    LyrKesVerifyTunnel tunnel;
    uint32_t time;     /* wall-clock second */
    uint8_t excptType; /* 1: not confirmed by a reconciliation */
    uint8_t reserved[3];
} LyrKesVerifyRcd;

static_assert(offsetof(LyrKesVerifyRcd, time) == 48, "time at 48");
static_assert(offsetof(LyrKesVerifyRcd, excptType) == 52, "type at 52");
static_assert(sizeof(LyrKesVerifyRcd) == 56, "verify record of 56 bytes");

/* VerifyRcdGet. */
typedef struct LyrKesVerifyRcdGetReq {
    uint8_t reserved[2];
    uint8_t listIndex;
} LyrKesVerifyRcdGetReq;

static_assert(offsetof(LyrKesVerifyRcdGetReq, listIndex) == 2, "list index at 2");

enum { LYR_KES_VERIFY_RCD_NUM = 100 };

typedef struct LyrKesVerifyRcdGetRsp {
    LyrKesVerifyRcd records[LYR_KES_VERIFY_RCD_NUM]; /* the newest first */
    uint16_t msgLen;                                 /* size of this reply */
    uint16_t rcdNum;
} LyrKesVerifyRcdGetRsp;

static_assert(offsetof(LyrKesVerifyRcdGetRsp, msgLen) == 5600, "length at 5600");
static_assert(offsetof(LyrKesVerifyRcdGetRsp, rcdNum) == 5602, "count at 5602");
static_assert(sizeof(LyrKesVerifyRcdGetRsp) == 5604, "verify reply of 5604 bytes");

#endif
