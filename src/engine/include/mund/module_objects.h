/*
 * Objects that the module exports, for clients that read them: names and layouts. All fields are in
 * host byte order. A pointer travels as a number that means something in the module's process only.
 */
#ifndef MUND_MODULE_OBJECTS_H
#define MUND_MODULE_OBJECTS_H

#include "mund/statistics_messages.h"

/* An IP address inside the module; an IPv6 address is four words, the most significant first. */
typedef struct MundModuleAddress {
    uint8_t ipVer; /* 4 or 6; 0 in an unused record */
    uint8_t filler[3];
    uint32_t words[4]; /* IPv4: the first */
} MundModuleAddress;

static_assert(offsetof(MundModuleAddress, words) == 4, "address words at 4");
static_assert(sizeof(MundModuleAddress) == 20, "address of 20 bytes");

/* The CAPWAP sources of the controller: LYR_KES_CWP_SRC_NUM records. */
#define MUND_OBJECT_SOURCES "g_LyrHostCwpSrcRcd"

/* X(name, code, words): what source types a source is known by. */
#define MUND_SOURCE_TYPES(X)                       \
    X(NONE, 0, "nothing")                          \
    X(ADDRESS, 1, "address")                       \
    X(INTERFACE_A, 2, "interface and IP version")  \
    X(INTERFACE_B, 3, "interface and IP version")  \
    X(ANY_INTERFACE, 4, "address, all interfaces") \
    X(FREE, 5, "free")

enum {
#define MUND_SOURCE_TYPE(name, code, words) MUND_SOURCE_##name = (code),
    MUND_SOURCE_TYPES(MUND_SOURCE_TYPE)
#undef MUND_SOURCE_TYPE
};

typedef struct MundSourceRecord {
    uint32_t srcType; /* MUND_SOURCE_*, or another code of the management plane */
    uint32_t ifIndex; /* control-plane interface index */
    MundModuleAddress address;
} MundSourceRecord;

static_assert(offsetof(MundSourceRecord, address) == 8, "source address at 8");
static_assert(sizeof(MundSourceRecord) == 28, "source record of 28 bytes");

/* The debug trace's configuration. */
#define MUND_OBJECT_TRACE "g_lyrKesDebugTrace"

enum { MUND_TRACE_FAILURES = 1, MUND_TRACE_PACKETS = 2 };

typedef struct MundTraceConfig {
    uint8_t enable; /* 1 while the trace is on */
    uint8_t filler0[3];
    uint32_t debugLevel; /* mask of MUND_TRACE_* */
    uint8_t srcIpFamily; /* 4, 6, or 0 when never set */
    uint8_t filler1[3];
    uint32_t srcIp[4]; /* as in MundModuleAddress; all zero: any */
    uint8_t dstIpFamily;
    uint8_t filler2[3];
    uint32_t dstIp[4];
    uint32_t srcPort; /* 0: any */
    uint32_t dstPort; /* 0: any */
    uint8_t mac[6];   /* kept, not a filter */
    uint8_t filler3[2];
    uint32_t capwapMsgType; /* 0: any */
} MundTraceConfig;

static_assert(offsetof(MundTraceConfig, debugLevel) == 4, "level at 4");
static_assert(offsetof(MundTraceConfig, srcIp) == 12, "source filter at 12");
static_assert(offsetof(MundTraceConfig, dstIp) == 32, "destination filter at 32");
static_assert(offsetof(MundTraceConfig, srcPort) == 48, "source port at 48");
static_assert(offsetof(MundTraceConfig, mac) == 56, "MAC at 56");
static_assert(offsetof(MundTraceConfig, capwapMsgType) == 64, "message type at 64");
static_assert(sizeof(MundTraceConfig) == 68, "trace configuration of 68 bytes");

/* Packet types, which index channels, threads and hand-off counters: X(name, words). */
#define MUND_PACKET_TYPES(X) \
    X(CAPWAP, "cwp")         \
    X(WAPI, "wapi")

enum {
#define MUND_PACKET_TYPE(name, words) MUND_PACKET_##name,
    MUND_PACKET_TYPES(MUND_PACKET_TYPE) MUND_PACKET_TYPE_NUM
#undef MUND_PACKET_TYPE
};

/* A pointer for each packet type, to an array with an element for each service instance: channel
 * ids (u32), and handles of threads (u64, 0: none). */
#define MUND_OBJECT_CHANNELS "g_kes2lyrHostChnMap"
#define MUND_OBJECT_THREADS "g_lyrHostThreadInfoId"
#define MUND_NO_CHANNEL 0xFFFFFFFFu

/* The instances that serve stations: the first in the low half of a u64, their number in the
 * high half. */
#define MUND_OBJECT_STATION_SERVICE "g_lyrKesStaSvcInfo"

/* u32: the highest number of a service instance. */
#define MUND_OBJECT_LAST_INSTANCE "g_lyrHostsvcNum"

/* u32 each: the bucket counts of the distribution tables, and what their locks hold. */
#define MUND_OBJECT_IPV4_BUCKETS "g_LyrKes_DistIpv4Cap"
#define MUND_OBJECT_IPV6_BUCKETS "g_LyrKes_DistIpv6Cap"
#define MUND_OBJECT_KA_BUCKETS "g_LyrKes_DistKaCap"
#define MUND_OBJECT_IPV4_LOCK "g_LyrKes_DistIpv4RwLocker"
#define MUND_OBJECT_IPV6_LOCK "g_LyrKes_DistIpv6RwLocker"
#define MUND_OBJECT_KA_LOCK "g_LyrKes_DistKaRwLocker"

/* u32 for each packet type: hand-offs that succeeded, and that failed. */
#define MUND_OBJECT_HANDED_OVER "g_lyrKesChnSendSucceedPktCnt"
#define MUND_OBJECT_HAND_OFF_FAILED "g_lyrKesChnSendFailPktCnt"
/* u32: WAPI frames for an instance, and of these, those that were not handed over. */
#define MUND_OBJECT_WAPI_FRAMES "g_lyrKesWapiPacket2Svc"
#define MUND_OBJECT_WAPI_FAILED "g_lyrKesWapiPacket2Fail"

/* LyrKesPktStat for each class of packets. */
#define MUND_OBJECT_PACKET_COUNTERS "g_cwpPktStats"

/* The watch over packets that could not be handed over. */
#define MUND_OBJECT_DROP_WATCH "g_lyrKesMsgDropStat"
#define MUND_DROP_WATCH_CLOSED 0xFFFFFFFFu
/* u32: its timer's id, 0xFFFFFFFF without one. */
#define MUND_OBJECT_DROP_TIMER "g_lyrKesMsgDropStatTimer"

/* Periods on end with drops that raise the alarm, and without that restore it. */
enum { MUND_DROP_ALARM_PERIODS = 5 };

typedef struct MundDropWatch {
    uint32_t dropNum;           /* packets dropped since the watch opened */
    uint32_t lastDropNum;       /* the same at the end of the previous period */
    uint32_t totalNum;          /* packets counted since the watch opened, drops included */
    uint32_t contDropPeriods;   /* periods with drops on end while the alarm is not raised */
    uint32_t contNoDropPeriods; /* periods without while it is */
    uint32_t periodStart;       /* wall-clock second, or MUND_DROP_WATCH_CLOSED */
    uint8_t alarmRaised;
    uint8_t filler[3];
} MundDropWatch;

static_assert(offsetof(MundDropWatch, periodStart) == 20, "period start at 20");
static_assert(offsetof(MundDropWatch, alarmRaised) == 24, "alarm at 24");
static_assert(sizeof(MundDropWatch) == 28, "drop watch of 28 bytes");

/* The CAPWAP pings to and from one peer. */
#define MUND_OBJECT_PING "g_LyrHostCwpPingStat"

typedef struct MundPingCounter {
    uint64_t pktCnt;
    uint64_t fragCnt; /* of these, fragments */
    uint64_t byteCnt; /* ping payload */
} MundPingCounter;

typedef struct MundPingStat {
    uint8_t pingEnable; /* 1 while there is a peer */
    uint8_t filler[3];
    MundModuleAddress pingAddr;
    MundPingCounter counters[KES_HOOK_NUM]; /* by LyrKesHookKind */
} MundPingStat;

static_assert(offsetof(MundPingStat, pingAddr) == 4, "peer at 4");
static_assert(offsetof(MundPingStat, counters) == 24, "ping counters at 24");
static_assert(sizeof(MundPingStat) == 120, "ping statistics of 120 bytes");

/* Hand-offs of one message type and the next one. Each pointer is to an array of u32 with an
 * element for each service instance. */
#define MUND_OBJECT_MSG_TYPE "g_LyrHostPktMsgTypeStat"

typedef struct MundMsgTypeStat {
    uint32_t statMsgType; /* the selected type, or LYR_KES_MSG_TYPE_OFF */
    uint32_t filler;
    uint64_t recvCnt;
    uint64_t dropCnt;
    uint64_t nextRecvCnt;
    uint64_t nextDropCnt;
} MundMsgTypeStat;

static_assert(offsetof(MundMsgTypeStat, recvCnt) == 8, "first array at 8");
static_assert(sizeof(MundMsgTypeStat) == 40, "message type statistics of 40 bytes");

/* The probe trace: a ring of records. */
#define MUND_OBJECT_PROBES "g_LyrHostCwpTrace"

enum { MUND_PROBE_NUM = 2048 };

typedef struct MundProbeRecord {
    MundModuleAddress peer;
    uint8_t mac[6];
    char name[LYR_KES_PROBE_NAME_LEN];
    uint8_t reserved[2];
    uint32_t hookKind; /* LyrKesHookKind */
    uint32_t date;     /* as in LyrKesCwpTraceEntry, the next two as well */
    uint32_t time;
    uint32_t seconds;
} MundProbeRecord;

static_assert(offsetof(MundProbeRecord, mac) == 20, "MAC at 20");
static_assert(offsetof(MundProbeRecord, hookKind) == 44, "hook kind at 44");
static_assert(sizeof(MundProbeRecord) == 60, "probe record of 60 bytes");

typedef struct MundProbeRing {
    MundProbeRecord records[MUND_PROBE_NUM];
    uint32_t head;  /* the oldest record */
    uint32_t tail;  /* where the next one goes */
    uint32_t count; /* records held */
} MundProbeRing;

static_assert(offsetof(MundProbeRing, head) == 122880, "head at 122880");
static_assert(sizeof(MundProbeRing) == 122892, "probe ring of 122892 bytes");

#endif
