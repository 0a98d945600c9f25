/* Layouts of the messages that read the module's statistics and query its tables. */
#ifndef MUND_STATISTICS_MESSAGES_H
#define MUND_STATISTICS_MESSAGES_H

#include "mund/messages.h"

/* X(name, words): the classes of counted packets, in the order of their rows. */
#define LYR_KES_PKT_STAT_ROWS(X) \
    X(CONTROL, "control")        \
    X(KEEPALIVE, "keepalive")    \
    X(DTLS_HANDSHAKE, "DTLS handshake")

enum {
#define LYR_KES_PKT_STAT_ROW(name, words) LYR_KES_PKT_STAT_##name,
    LYR_KES_PKT_STAT_ROWS(LYR_KES_PKT_STAT_ROW) LYR_KES_PKT_STAT_ROW_NUM
#undef LYR_KES_PKT_STAT_ROW
};

/* The counters of one class of packets. */
typedef struct LyrKesPktStat {
    uint32_t rxCnt;            /* received */
    uint32_t sendOkCnt;        /* of these, handed over, */
    uint32_t sendFailCnt;      /* not handed over, */
    uint32_t procFailCnt;      /* and not for an instance */
    uint32_t srcMismatchCnt;   /* the reason: no source of the controller, */
    uint32_t distFailCnt;      /* no table to search, */
    uint32_t kaSessionFailCnt; /* no session id */
} LyrKesPktStat;

enum { LYR_KES_PKT_STAT_COUNTER_NUM = sizeof(LyrKesPktStat) / sizeof(uint32_t) };

static_assert(offsetof(LyrKesPktStat, sendOkCnt) == 4, "sent at 4");
static_assert(offsetof(LyrKesPktStat, procFailCnt) == 12, "processing failures at 12");
static_assert(sizeof(LyrKesPktStat) == 28, "row of 28 bytes");

/* GetPktStatistics: the request is not read. */
typedef struct LyrKesGetPktStatisticsRsp {
    uint32_t rowNum;     /* LYR_KES_PKT_STAT_ROW_NUM */
    uint32_t counterNum; /* LYR_KES_PKT_STAT_COUNTER_NUM: 32-bit counters in a row */
    LyrKesPktStat rows[LYR_KES_PKT_STAT_ROW_NUM];
    uint8_t reserved[172]; /* zero */
} LyrKesGetPktStatisticsRsp;

static_assert(offsetof(LyrKesGetPktStatisticsRsp, rows) == 8, "counters at 8");
static_assert(offsetof(LyrKesGetPktStatisticsRsp, reserved) == 92, "84 bytes of counters");
static_assert(sizeof(LyrKesGetPktStatisticsRsp) == 264, "counter reply of 264 bytes");

/* ResetPktStatistics: the request is not read. */
typedef struct LyrKesResetPktStatisticsRsp {
    uint32_t result; /* 0 */
} LyrKesResetPktStatisticsRsp;

static_assert(sizeof(LyrKesResetPktStatisticsRsp) == 4, "reset reply of 4 bytes");

/* Points of the packet's way at which pings are counted and probes are traced: X(name, words). */
#define LYR_KES_HOOK_KINDS(X) \
    X(TXIN, "tx in")          \
    X(TXOUT, "tx out")        \
    X(RXIN, "rx in")          \
    X(RXOUT, "rx out")

typedef enum LyrKesHookKind {
#define LYR_KES_HOOK_KIND(name, words) KES_HOOK_##name,
    LYR_KES_HOOK_KINDS(LYR_KES_HOOK_KIND) KES_HOOK_NUM
#undef LYR_KES_HOOK_KIND
} LyrKesHookKind;

/* CwpPingStat: reads or zeroes the ping counters, or sets the peer. */
enum { LYR_KES_PING_GET = 0, LYR_KES_PING_RESET = 1, LYR_KES_PING_SET = 2 };

typedef struct LyrKesCwpPingStatReq {
    uint32_t msgType;         /* LYR_KES_PING_* */
    LyrKesRpcIpAddr peerAddr; /* with SET; the zero address switches the counting off */
} LyrKesCwpPingStatReq;

static_assert(offsetof(LyrKesCwpPingStatReq, peerAddr) == 4, "peer at 4");
static_assert(sizeof(LyrKesCwpPingStatReq) == 28, "ping request of 28 bytes");

/* The low 32 bits of the counters of one point. */
typedef struct LyrKesCwpPingCount {
    uint32_t pktCnt;
    uint32_t fragCnt; /* of these, fragments */
    uint32_t byteCnt; /* ping payload */
} LyrKesCwpPingCount;

typedef struct LyrKesCwpPingStatRsp {
    LyrKesCwpPingCount counts[KES_HOOK_NUM]; /* with GET, by LyrKesHookKind */
    uint32_t result;                         /* 0 success, 2 unknown msgType */
} LyrKesCwpPingStatRsp;

static_assert(offsetof(LyrKesCwpPingStatRsp, result) == 48, "result at 48");
static_assert(sizeof(LyrKesCwpPingStatRsp) == 52, "ping reply of 52 bytes");

/* CwpTraceRecord: reads a page of the probe trace, or clears it. */
enum { LYR_KES_PROBE_GET = 0, LYR_KES_PROBE_CLEAR = 1 };
enum { LYR_KES_PROBE_MORE = 2, LYR_KES_PROBE_LAST = 3 };
enum { LYR_KES_PROBE_PAGE_NUM = 256, LYR_KES_PROBE_NAME_LEN = 16 };

typedef struct LyrKesCwpTraceRecordReq {
    uint32_t startIdx; /* first record wanted; 0 is the oldest that is held */
    uint32_t msgType;  /* LYR_KES_PROBE_GET or LYR_KES_PROBE_CLEAR */
} LyrKesCwpTraceRecordReq;

static_assert(offsetof(LyrKesCwpTraceRecordReq, msgType) == 4, "message type at 4");
static_assert(sizeof(LyrKesCwpTraceRecordReq) == 8, "probe request of 8 bytes");

/* One sighting of a probe. */
typedef struct LyrKesCwpTraceEntry {
    uint8_t mac[6];                    /* of the peer; zero if it was not to be had */
    char name[LYR_KES_PROBE_NAME_LEN]; /* "ServerReq" or "ServerResp" */
    uint8_t reserved[2];
    uint32_t date;    /* year in bits 31-16, month in 15-8, day in 7-0 */
    uint32_t time;    /* hour in bits 31-16, minute in 15-8, second in 7-0 */
    uint32_t seconds; /* wall-clock second */
    LyrKesRpcIpAddr peerAddr;
    uint32_t hookKind; /* LyrKesHookKind */
} LyrKesCwpTraceEntry;

static_assert(offsetof(LyrKesCwpTraceEntry, name) == 6, "name at 6");
static_assert(offsetof(LyrKesCwpTraceEntry, date) == 24, "date at 24");
static_assert(offsetof(LyrKesCwpTraceEntry, seconds) == 32, "seconds at 32");
static_assert(offsetof(LyrKesCwpTraceEntry, peerAddr) == 36, "peer at 36");
static_assert(offsetof(LyrKesCwpTraceEntry, hookKind) == 60, "hook kind at 60");
static_assert(sizeof(LyrKesCwpTraceEntry) == 64, "probe entry of 64 bytes");

typedef struct LyrKesCwpTraceRecordRsp {
    uint32_t result; /* LYR_KES_PROBE_MORE or LYR_KES_PROBE_LAST */
    uint32_t entryNum;
    LyrKesCwpTraceEntry entries[LYR_KES_PROBE_PAGE_NUM]; /* the oldest first */
} LyrKesCwpTraceRecordRsp;

static_assert(offsetof(LyrKesCwpTraceRecordRsp, entries) == 8, "entries at 8");
static_assert(sizeof(LyrKesCwpTraceRecordRsp) == 16392, "probe reply of 16392 bytes");

/* CwpMsgTypeStat: reads or zeroes the counters by message type, or selects the type. */
enum { LYR_KES_MSG_TYPE_GET = 0, LYR_KES_MSG_TYPE_SELECT = 1, LYR_KES_MSG_TYPE_RESET = 2 };

#define LYR_KES_MSG_TYPE_OFF 0xFFFFFFFFu /* as selected type: counts nothing */

typedef struct LyrKesCwpMsgTypeStatReq {
    uint32_t msgType;    /* LYR_KES_MSG_TYPE_GET, _SELECT or _RESET */
    uint32_t cwpMsgType; /* with SELECT: the CAPWAP message type, or LYR_KES_MSG_TYPE_OFF */
} LyrKesCwpMsgTypeStatReq;

static_assert(offsetof(LyrKesCwpMsgTypeStatReq, cwpMsgType) == 4, "CAPWAP message type at 4");
static_assert(sizeof(LyrKesCwpMsgTypeStatReq) == 8, "message type request of 8 bytes");

enum { LYR_KES_MSG_TYPE_STAT_NUM = 32 };

typedef struct LyrKesCwpMsgTypeStatRsp {
    uint32_t result;   /* 0 success, 1 failure, 2 unknown msgType */
    uint32_t entryNum; /* with GET: service instances, counts of each array */
    /* By service instance: packets of the selected type handed over, and not handed over; then
     * those of the type above it, the response to a request (RFC 5415, section 4.5.1.1). */
    uint32_t recvCnt[LYR_KES_MSG_TYPE_STAT_NUM];
    uint32_t dropCnt[LYR_KES_MSG_TYPE_STAT_NUM];
    uint32_t nextRecvCnt[LYR_KES_MSG_TYPE_STAT_NUM];
    uint32_t nextDropCnt[LYR_KES_MSG_TYPE_STAT_NUM];
} LyrKesCwpMsgTypeStatRsp;

static_assert(offsetof(LyrKesCwpMsgTypeStatRsp, recvCnt) == 8, "received at 8");
static_assert(offsetof(LyrKesCwpMsgTypeStatRsp, dropCnt) == 136, "dropped at 136");
static_assert(offsetof(LyrKesCwpMsgTypeStatRsp, nextRecvCnt) == 264, "next received at 264");
static_assert(offsetof(LyrKesCwpMsgTypeStatRsp, nextDropCnt) == 392, "next dropped at 392");
static_assert(sizeof(LyrKesCwpMsgTypeStatRsp) == 520, "message type reply of 520 bytes");

/* LoadBalanceDfx: counts or lists the tunnels that have a port at either end. */
enum { LYR_KES_LB_COUNT = 0, LYR_KES_LB_LIST = 1 };

typedef struct LyrKesLbDfxReq {
    uint32_t ipVer;      /* 0 IPv4 table, otherwise the IPv6 table */
    uint16_t index;      /* listing: first bucket to examine */
    uint16_t tunnelPort; /* the entry's source or destination port */
    uint8_t msgType;     /* LYR_KES_LB_COUNT or LYR_KES_LB_LIST */
    uint8_t reserved[3];
} LyrKesLbDfxReq;

static_assert(offsetof(LyrKesLbDfxReq, index) == 4, "index at 4");
static_assert(offsetof(LyrKesLbDfxReq, tunnelPort) == 6, "port at 6");
static_assert(offsetof(LyrKesLbDfxReq, msgType) == 8, "message type at 8");
static_assert(sizeof(LyrKesLbDfxReq) == 12, "table query of 12 bytes");

/* A tunnel. Addresses of the other family are 0. */
typedef struct LyrKesLbDfxEntry {
    uint32_t ipVer; /* as requested */
    uint32_t srcIp;
    uint32_t dstIp;
    uint16_t srcIpv6[8];
    uint16_t dstIpv6[8];
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;
    uint32_t nodeId; /* owning service instance */
} LyrKesLbDfxEntry;

static_assert(offsetof(LyrKesLbDfxEntry, srcIpv6) == 12, "IPv6 source at 12");
static_assert(offsetof(LyrKesLbDfxEntry, dstIpv6) == 28, "IPv6 destination at 28");
static_assert(offsetof(LyrKesLbDfxEntry, srcPort) == 44, "source port at 44");
static_assert(offsetof(LyrKesLbDfxEntry, vpnId) == 48, "VPN id at 48");
static_assert(offsetof(LyrKesLbDfxEntry, nodeId) == 52, "node id at 52");
static_assert(sizeof(LyrKesLbDfxEntry) == 56, "tunnel entry of 56 bytes");

enum { LYR_KES_LB_PAGE_NUM = 256 };
#define LYR_KES_LB_END 65535u /* as next index: the table has been listed to its end */

typedef struct LyrKesLbDfxRsp {
    LyrKesLbDfxEntry entries[LYR_KES_LB_PAGE_NUM]; /* listing; the rest of a page is zero */
    uint16_t
        nextIndex;     /* listing: one more than the first bucket not examined, or LYR_KES_LB_END */
    uint16_t entryNum; /* count: the low 16 bits */
} LyrKesLbDfxRsp;

static_assert(offsetof(LyrKesLbDfxRsp, nextIndex) == 14336, "next index at 14336");
static_assert(offsetof(LyrKesLbDfxRsp, entryNum) == 14338, "count at 14338");
static_assert(sizeof(LyrKesLbDfxRsp) == 14340, "table query reply of 14340 bytes");

#endif
