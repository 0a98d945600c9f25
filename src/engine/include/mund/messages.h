/*
 * Layouts of the service's messages, shared by the module and its clients. All fields are in host
 * byte order. An IPv6 address travels as eight 16-bit groups, group 0 the most significant.
 */
#ifndef MUND_MESSAGES_H
#define MUND_MESSAGES_H

#include <assert.h>

#include "kes/api.h"

/* What an operation answers, as a rule. */
enum { MUND_RESULT_OK = 0, MUND_RESULT_FAILED = 1, MUND_RESULT_REFUSED = 2 };

/* An address: IPv4 when ipVer is 0, IPv6 otherwise (1 when written). */
typedef struct LyrKesRpcIpAddr {
    uint32_t ipVer;
    uint32_t ipv4Addr;
    uint16_t ipv6Addr[8];
} LyrKesRpcIpAddr;

static_assert(offsetof(LyrKesRpcIpAddr, ipv4Addr) == 4, "IPv4 address at 4");
static_assert(offsetof(LyrKesRpcIpAddr, ipv6Addr) == 8, "IPv6 groups at 8");
static_assert(sizeof(LyrKesRpcIpAddr) == 24, "address record of 24 bytes");

enum { LYR_KES_OPERATION_ADD = 0, LYR_KES_OPERATION_DELETE = 1 };

/* CwpTunnel: adds or deletes a CAPWAP tunnel. srcAddr.ipVer selects the table. */
typedef struct LyrKesCwpTunnelReq {
    uint32_t operation; /* LYR_KES_OPERATION_* */
    LyrKesRpcIpAddr srcAddr;
    LyrKesRpcIpAddr dstAddr; /* ipVer is not read */
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;
    uint32_t nodeId; /* owning service instance */
} LyrKesCwpTunnelReq;

static_assert(offsetof(LyrKesCwpTunnelReq, srcAddr) == 4, "source at 4");
static_assert(offsetof(LyrKesCwpTunnelReq, dstAddr) == 28, "destination at 28");
static_assert(offsetof(LyrKesCwpTunnelReq, srcPort) == 52, "source port at 52");
static_assert(offsetof(LyrKesCwpTunnelReq, dstPort) == 54, "destination port at 54");
static_assert(offsetof(LyrKesCwpTunnelReq, vpnId) == 56, "VPN id at 56");
static_assert(offsetof(LyrKesCwpTunnelReq, nodeId) == 60, "node id at 60");
static_assert(sizeof(LyrKesCwpTunnelReq) == 64, "tunnel request of 64 bytes");

/* KaTunnel: adds or deletes a keepalive session. */
typedef struct LyrKesKaTunnelReq {
    uint32_t operation;    /* LYR_KES_OPERATION_* */
    uint32_t sessionId[4]; /* the session id's 32-bit words, in its own order */
    uint32_t nodeId;
} LyrKesKaTunnelReq;

static_assert(offsetof(LyrKesKaTunnelReq, sessionId) == 4, "session id at 4");
static_assert(offsetof(LyrKesKaTunnelReq, nodeId) == 20, "node id at 20");
static_assert(sizeof(LyrKesKaTunnelReq) == 24, "session request of 24 bytes");

/* WapiTunnel: sets the range of instances that serve stations. */
typedef struct LyrKesWapiTunnelReq {
    uint32_t startVcpuId; /* first instance */
    uint32_t instSpec;    /* number of instances */
} LyrKesWapiTunnelReq;

static_assert(sizeof(LyrKesWapiTunnelReq) == 8, "station request of 8 bytes");

typedef struct LyrKesWapiTunnelRsp {
    uint32_t result; /* 0 accepted, 1 rejected */
} LyrKesWapiTunnelRsp;

static_assert(sizeof(LyrKesWapiTunnelRsp) == 4, "station reply of 4 bytes");

/* One CAPWAP source of the controller. */
typedef struct LyrKesCwpSrcEntry {
    uint32_t cwpType; /* source type; 0 in a reconciliation: no source at this position */
    LyrKesRpcIpAddr srcAddr;
    uint32_t srcIf; /* control-plane interface index */
} LyrKesCwpSrcEntry;

static_assert(offsetof(LyrKesCwpSrcEntry, srcAddr) == 4, "address at 4");
static_assert(offsetof(LyrKesCwpSrcEntry, srcIf) == 28, "interface at 28");
static_assert(sizeof(LyrKesCwpSrcEntry) == 32, "source entry of 32 bytes");

/* CwpSrc: adds or deletes one source. */
typedef struct LyrKesCwpSrcReq {
    uint32_t operation; /* LYR_KES_OPERATION_* */
    LyrKesCwpSrcEntry source;
} LyrKesCwpSrcReq;

static_assert(offsetof(LyrKesCwpSrcReq, source) == 4, "source at 4");
static_assert(sizeof(LyrKesCwpSrcReq) == 36, "source request of 36 bytes");

enum { LYR_KES_CWP_SRC_NUM = 8 };

/* CwpSrcReconciliation: replaces the whole source table, positions included. */
typedef struct LyrKesCwpSrcReconReq {
    LyrKesCwpSrcEntry entries[LYR_KES_CWP_SRC_NUM];
} LyrKesCwpSrcReconReq;

static_assert(sizeof(LyrKesCwpSrcReconReq) == 256, "source table request of 256 bytes");

enum { LYR_KES_TRACE_SET = 0, LYR_KES_TRACE_CLEAR = 1 };

/* DebugTraceSet: switches the debug trace on with a filter, or off. */
typedef struct LyrKesDebugTraceReq {
    uint32_t msgType;    /* LYR_KES_TRACE_* */
    uint32_t debugLevel; /* mask of trace levels */
    uint8_t mac[6];      /* stored, not a filter */
    uint8_t reserved[2];
    LyrKesRpcIpAddr srcAddr; /* ipVer above 1: the source filter stays as it is */
    LyrKesRpcIpAddr dstAddr; /* likewise */
    uint32_t srcPort;        /* 0 = any */
    uint32_t dstPort;        /* 0 = any */
    uint32_t capwapMsgType;  /* 0 = any */
} LyrKesDebugTraceReq;

static_assert(offsetof(LyrKesDebugTraceReq, debugLevel) == 4, "level at 4");
static_assert(offsetof(LyrKesDebugTraceReq, mac) == 8, "MAC at 8");
static_assert(offsetof(LyrKesDebugTraceReq, srcAddr) == 16, "source at 16");
static_assert(offsetof(LyrKesDebugTraceReq, dstAddr) == 40, "destination at 40");
static_assert(offsetof(LyrKesDebugTraceReq, srcPort) == 64, "source port at 64");
static_assert(offsetof(LyrKesDebugTraceReq, dstPort) == 68, "destination port at 68");
static_assert(offsetof(LyrKesDebugTraceReq, capwapMsgType) == 72, "message type at 72");
static_assert(sizeof(LyrKesDebugTraceReq) == 76, "trace request of 76 bytes");

#endif
