// The exported objects are laid out as clients read them: each field of the module's own records
// against the client's. What the compiler accepts is the test.
#include "mund/module_objects.h"

#include <cstddef>

#include "dfx/debug_trace.h"
#include "dfx/drop_watch.h"
#include "dfx/message_type_stat.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "packet/cwp_source.h"

namespace {

#define SAME_FIELD(module, client, field)                               \
    static_assert(offsetof(module, field) == offsetof(client, field) && \
                  sizeof(module::field) == sizeof(client::field))

static_assert(sizeof(HostIpAddr) == sizeof(MundModuleAddress));
static_assert(offsetof(HostIpAddr, ip) == offsetof(MundModuleAddress, words));

SAME_FIELD(CwpSrcRcd, MundSourceRecord, srcType);
SAME_FIELD(CwpSrcRcd, MundSourceRecord, ifIndex);
SAME_FIELD(CwpSrcRcd, MundSourceRecord, address);
static_assert(int{CWP_SRC_ADDRESS} == MUND_SOURCE_ADDRESS && int{CWP_SRC_FREE} == MUND_SOURCE_FREE);
static_assert(int{CWP_SRC_ANY_IF} == MUND_SOURCE_ANY_INTERFACE);

SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, enable);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, debugLevel);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, srcIpFamily);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, srcIp);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, dstIpFamily);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, dstIp);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, srcPort);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, dstPort);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, mac);
SAME_FIELD(LyrKesDebugTraceInfo, MundTraceConfig, capwapMsgType);

SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, dropNum);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, lastDropNum);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, totalNum);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, contDropPeriods);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, contNoDropPeriods);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, periodStart);
SAME_FIELD(LyrKesMsgDropStat, MundDropWatch, alarmRaised);

SAME_FIELD(LyrKesCwpPingStat, MundPingStat, pingEnable);
SAME_FIELD(LyrKesCwpPingStat, MundPingStat, pingAddr);
SAME_FIELD(LyrKesCwpPingStat, MundPingStat, counters);
SAME_FIELD(LyrKesCwpPingCounter, MundPingCounter, fragCnt);
SAME_FIELD(LyrKesCwpPingCounter, MundPingCounter, byteCnt);

SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, statMsgType);
SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, recvCnt);
SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, dropCnt);
SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, nextRecvCnt);
SAME_FIELD(LyrKesPktMsgTypeStat, MundMsgTypeStat, nextDropCnt);

SAME_FIELD(CwpTraceRcd, MundProbeRecord, peer);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, mac);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, name);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, hookKind);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, date);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, time);
SAME_FIELD(CwpTraceRcd, MundProbeRecord, seconds);
SAME_FIELD(LyrKesCwpTrace, MundProbeRing, records);
SAME_FIELD(LyrKesCwpTrace, MundProbeRing, tail);
SAME_FIELD(LyrKesCwpTrace, MundProbeRing, count);

}  // namespace
