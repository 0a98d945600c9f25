// The exported objects are laid out as clients read them: each field of the module's own records
// against the client's. What the compiler accepts is the test.
#include "mund/module_objects.h"

#include <cstddef>

#include "dfx/debug_trace.h"
#include "dfx/drop_watch.h"
#include "dfx/message_type_stat.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "lb/dist_table.h"
#include "mund/module_tables.h"
#include "packet/cwp_source.h"

namespace {

#define SAME_FIELD(module, client, field)                               \
    static_assert(offsetof(module, field) == offsetof(client, field) && \
                  sizeof(module::field) == sizeof(client::field))

#define SAME_FIELDS(module, client, a, b, c) \
    SAME_FIELD(module, client, a);           \
    SAME_FIELD(module, client, b);           \
    SAME_FIELD(module, client, c)

static_assert(sizeof(HostIpAddr) == sizeof(MundModuleAddress));
static_assert(offsetof(HostIpAddr, ip) == offsetof(MundModuleAddress, words));

static_assert(int{CWP_SRC_ADDRESS} == MUND_SOURCE_ADDRESS && int{CWP_SRC_FREE} == MUND_SOURCE_FREE);
static_assert(int{CWP_SRC_ANY_IF} == MUND_SOURCE_ANY_INTERFACE);

SAME_FIELDS(CwpSrcRcd, MundSourceRecord, srcType, ifIndex, address);
SAME_FIELDS(LyrKesDebugTraceInfo, MundTraceConfig, enable, debugLevel, srcIpFamily);
SAME_FIELDS(LyrKesDebugTraceInfo, MundTraceConfig, srcIp, dstIpFamily, dstIp);
SAME_FIELDS(LyrKesDebugTraceInfo, MundTraceConfig, srcPort, dstPort, mac);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, capwapMsgType);
SAME_FIELDS(LyrKesMsgDropStat, MundDropWatch, dropNum, lastDropNum, totalNum);
SAME_FIELDS(LyrKesMsgDropStat, MundDropWatch, contDropPeriods, contNoDropPeriods, periodStart);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, alarmRaised);
SAME_FIELDS(LyrKesCwpPingStat, MundPingStat, pingEnable, pingAddr, counters);
SAME_FIELD(LyrKesCwpPingCounter, MundPingCounter, fragCnt);
SAME_FIELD(LyrKesCwpPingCounter, MundPingCounter, byteCnt);
SAME_FIELDS(LyrKesPktMsgTypeStat, MundMsgTypeStat, statMsgType, recvCnt, dropCnt);
SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, nextRecvCnt);
SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, nextDropCnt);
SAME_FIELDS(CwpTraceRcd, MundProbeRecord, peer, mac, name);
SAME_FIELDS(CwpTraceRcd, MundProbeRecord, hookKind, date, time);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, seconds);
SAME_FIELDS(LyrKesCwpTrace, MundProbeRing, records, tail, count);
SAME_FIELD(LyrKesDistBucket, MundTableLink, next);
SAME_FIELDS(LyrKesDistIpv4Key, MundIpv4TunnelKey, srcIp, dstIp, srcPort);
SAME_FIELDS(LyrKesDistIpv4Key, MundIpv4TunnelKey, srcIp, dstPort, vpnId);
SAME_FIELDS(LyrKesDistIpv6Key, MundIpv6TunnelKey, srcIpv6, dstIpv6, srcPort);
SAME_FIELDS(LyrKesDistIpv6Key, MundIpv6TunnelKey, srcIpv6, dstPort, vpnId);
SAME_FIELD(LyrKesDistKaKey, MundSessionKey, sessionId);
// The module's entries derive from their links; compilers place them as they do a first member.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
SAME_FIELDS(LyrKesDistIpv4Entry, MundIpv4TunnelEntry, key, nodeId, reconMark);
SAME_FIELDS(LyrKesDistIpv6Entry, MundIpv6TunnelEntry, key, nodeId, reconMark);
SAME_FIELDS(LyrKesDistKaEntry, MundSessionEntry, key, nodeId, reconMark);

}  // namespace
