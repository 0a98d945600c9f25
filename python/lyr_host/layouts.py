"""The layouts of messages, objects and frames, as the C headers have them: same names, same fields.

A test holds each against its C structure. Numbers are in host byte order; fields without a name in
C are called reserved or filler there as well.
"""
from ctypes import Structure, c_char, c_uint8, c_uint16, c_uint32, c_uint64, sizeof

U8, U16, U32, U64 = c_uint8, c_uint16, c_uint32, c_uint64


class MundWireHeader(Structure):
    _fields_ = [("version", U16), ("code", U16), ("length", U32), ("status", U32), ("result", U32)]


class MundWireObjectReq(Structure):
    _fields_ = [("name", c_char * 60), ("slot", U32)]


class MundWireLine(Structure):
    _fields_ = [("kind", U32), ("lost", U32), ("timeNs", U64)]


class MundWireExplainReq(Structure):
    _fields_ = [("rxPort", U32), ("vrf", U32), ("causeAction", U32), ("reserved", U32)]


class MundWireEntriesReq(Structure):
    _fields_ = [("table", U32), ("bucket", U32)]


class MundWireEntriesRsp(Structure):
    _fields_ = [("buckets", U32), ("nextBucket", U32), ("count", U32), ("entrySize", U32)]


class LyrKesRpcIpAddr(Structure):
    _fields_ = [("ipVer", U32), ("ipv4Addr", U32), ("ipv6Addr", U16 * 8)]


class LyrKesCwpTunnelReq(Structure):
    _fields_ = [("operation", U32), ("srcAddr", LyrKesRpcIpAddr), ("dstAddr", LyrKesRpcIpAddr),
                ("srcPort", U16), ("dstPort", U16), ("vpnId", U32), ("nodeId", U32)]


class LyrKesKaTunnelReq(Structure):
    _fields_ = [("operation", U32), ("sessionId", U32 * 4), ("nodeId", U32)]


class LyrKesWapiTunnelReq(Structure):
    _fields_ = [("startVcpuId", U32), ("instSpec", U32)]


class LyrKesWapiTunnelRsp(Structure):
    _fields_ = [("result", U32)]


class LyrKesCwpSrcEntry(Structure):
    _fields_ = [("cwpType", U32), ("srcAddr", LyrKesRpcIpAddr), ("srcIf", U32)]


class LyrKesCwpSrcReq(Structure):
    _fields_ = [("operation", U32), ("source", LyrKesCwpSrcEntry)]


class LyrKesCwpSrcReconReq(Structure):
    _fields_ = [("entries", LyrKesCwpSrcEntry * 8)]


class LyrKesDebugTraceReq(Structure):
    _fields_ = [("msgType", U32), ("debugLevel", U32), ("mac", U8 * 6), ("reserved", U8 * 2),
                ("srcAddr", LyrKesRpcIpAddr), ("dstAddr", LyrKesRpcIpAddr), ("srcPort", U32),
                ("dstPort", U32), ("capwapMsgType", U32)]


class LyrKesReconRecord(Structure):
    _fields_ = [("reconType", U32), ("srcAddr", LyrKesRpcIpAddr), ("dstAddr", LyrKesRpcIpAddr),
                ("srcPort", U16), ("dstPort", U16), ("vpnId", U32), ("sessionId", U32 * 4),
                ("nodeId", U32)]


class LyrKesVerifyTunnel(Structure):
    _fields_ = [("ipVer", U32), ("srcIpv4", U32), ("dstIpv4", U32), ("srcIpv6", U16 * 8),
                ("dstIpv6", U16 * 8), ("srcPort", U16), ("dstPort", U16)]


class LyrKesVerifyRcd(Structure):
    _fields_ = [("tunnel", LyrKesVerifyTunnel), ("time", U32), ("excptType", U8),
                ("reserved", U8 * 3)]


class LyrKesVerifyRcdGetReq(Structure):
    _fields_ = [("reserved", U8 * 2), ("listIndex", U8)]


class LyrKesVerifyRcdGetRsp(Structure):
    _fields_ = [("records", LyrKesVerifyRcd * 100), ("msgLen", U16), ("rcdNum", U16)]


class LyrKesPktStat(Structure):
    _fields_ = [("rxCnt", U32), ("sendOkCnt", U32), ("sendFailCnt", U32), ("procFailCnt", U32),
                ("srcMismatchCnt", U32), ("distFailCnt", U32), ("kaSessionFailCnt", U32)]


class LyrKesGetPktStatisticsRsp(Structure):
    _fields_ = [("rowNum", U32), ("counterNum", U32), ("rows", LyrKesPktStat * 3),
                ("reserved", U8 * 172)]


class LyrKesResetPktStatisticsRsp(Structure):
    _fields_ = [("result", U32)]


class LyrKesCwpPingStatReq(Structure):
    _fields_ = [("msgType", U32), ("peerAddr", LyrKesRpcIpAddr)]


class LyrKesCwpPingCount(Structure):
    _fields_ = [("pktCnt", U32), ("fragCnt", U32), ("byteCnt", U32)]


class LyrKesCwpPingStatRsp(Structure):
    _fields_ = [("counts", LyrKesCwpPingCount * 4), ("result", U32)]


class LyrKesCwpTraceRecordReq(Structure):
    _fields_ = [("startIdx", U32), ("msgType", U32)]


class LyrKesCwpTraceEntry(Structure):
    _fields_ = [("mac", U8 * 6), ("name", c_char * 16), ("reserved", U8 * 2), ("date", U32),
                ("time", U32), ("seconds", U32), ("peerAddr", LyrKesRpcIpAddr), ("hookKind", U32)]


class LyrKesCwpTraceRecordRsp(Structure):
    _fields_ = [("result", U32), ("entryNum", U32), ("entries", LyrKesCwpTraceEntry * 256)]


class LyrKesCwpMsgTypeStatReq(Structure):
    _fields_ = [("msgType", U32), ("cwpMsgType", U32)]


class LyrKesCwpMsgTypeStatRsp(Structure):
    _fields_ = [("result", U32), ("entryNum", U32), ("recvCnt", U32 * 32), ("dropCnt", U32 * 32),
                ("nextRecvCnt", U32 * 32), ("nextDropCnt", U32 * 32)]


class LyrKesLbDfxReq(Structure):
    _fields_ = [("ipVer", U32), ("index", U16), ("tunnelPort", U16), ("msgType", U8),
                ("reserved", U8 * 3)]


class LyrKesLbDfxEntry(Structure):
    _fields_ = [("ipVer", U32), ("srcIp", U32), ("dstIp", U32), ("srcIpv6", U16 * 8),
                ("dstIpv6", U16 * 8), ("srcPort", U16), ("dstPort", U16), ("vpnId", U32),
                ("nodeId", U32)]


class LyrKesLbDfxRsp(Structure):
    _fields_ = [("entries", LyrKesLbDfxEntry * 256), ("nextIndex", U16), ("entryNum", U16)]


class MundModuleAddress(Structure):
    _fields_ = [("ipVer", U8), ("filler", U8 * 3), ("words", U32 * 4)]


class MundSourceRecord(Structure):
    _fields_ = [("srcType", U32), ("ifIndex", U32), ("address", MundModuleAddress)]


class MundTraceConfig(Structure):
    _fields_ = [("enable", U8), ("filler0", U8 * 3), ("debugLevel", U32), ("srcIpFamily", U8),
                ("filler1", U8 * 3), ("srcIp", U32 * 4), ("dstIpFamily", U8), ("filler2", U8 * 3),
                ("dstIp", U32 * 4), ("srcPort", U32), ("dstPort", U32), ("mac", U8 * 6),
                ("filler3", U8 * 2), ("capwapMsgType", U32)]


class MundDropWatch(Structure):
    _fields_ = [("dropNum", U32), ("lastDropNum", U32), ("totalNum", U32), ("contDropPeriods", U32),
                ("contNoDropPeriods", U32), ("periodStart", U32), ("alarmRaised", U8),
                ("filler", U8 * 3)]


class MundPingCounter(Structure):
    _fields_ = [("pktCnt", U64), ("fragCnt", U64), ("byteCnt", U64)]


class MundPingStat(Structure):
    _fields_ = [("pingEnable", U8), ("filler", U8 * 3), ("pingAddr", MundModuleAddress),
                ("counters", MundPingCounter * 4)]


class MundMsgTypeStat(Structure):
    _fields_ = [("statMsgType", U32), ("filler", U32), ("recvCnt", U64), ("dropCnt", U64),
                ("nextRecvCnt", U64), ("nextDropCnt", U64)]


class MundIpv4TunnelKey(Structure):
    _fields_ = [("srcIp", U32), ("dstIp", U32), ("srcPort", U16), ("dstPort", U16), ("vpnId", U32)]


class MundIpv6TunnelKey(Structure):
    _fields_ = [("srcIpv6", U32 * 4), ("dstIpv6", U32 * 4), ("srcPort", U16), ("dstPort", U16),
                ("vpnId", U32)]


class MundSessionKey(Structure):
    _fields_ = [("sessionId", U32 * 4)]


class MundIpv4Tunnel(Structure):
    _fields_ = [("key", MundIpv4TunnelKey), ("nodeId", U32), ("reconMark", U32)]


class MundIpv6Tunnel(Structure):
    _fields_ = [("key", MundIpv6TunnelKey), ("nodeId", U32), ("reconMark", U32)]


class MundSession(Structure):
    _fields_ = [("key", MundSessionKey), ("nodeId", U32), ("reconMark", U32)]


# Numbers of the C headers, under their names there.
CONSTANTS = {
    "MUND_WIRE_VERSION": 1,
    "MUND_WIRE_STATE": 0x100, "MUND_WIRE_OBJECT": 0x101, "MUND_WIRE_FOLLOW": 0x102,
    "MUND_WIRE_EXPLAIN": 0x103, "MUND_WIRE_ENTRIES": 0x104, "MUND_WIRE_SETTLE": 0x105,
    "MUND_WIRE_RELOAD": 0x106,
    "MUND_WIRE_OK": 0, "MUND_WIRE_REFUSED": 6, "MUND_WIRE_BUSY": 7,
    "MUND_WIRE_MAX_PAYLOAD": 8 << 20, "MUND_WIRE_NO_SLOT": 0xFFFFFFFF,
    "MUND_TABLE_IPV4_TUNNELS": 0, "MUND_TABLE_IPV6_TUNNELS": 1, "MUND_TABLE_SESSIONS": 2,
    "LYR_KES_OPERATION_ADD": 0, "LYR_KES_OPERATION_DELETE": 1,
    "LYR_KES_TRACE_SET": 0, "LYR_KES_TRACE_CLEAR": 1,
    "LYR_KES_RECON_BEGIN": 0, "LYR_KES_RECON_TUNNEL": 1, "LYR_KES_RECON_SESSION": 2,
    "LYR_KES_RECON_FINISH": 3,
    "LYR_KES_PING_GET": 0, "LYR_KES_PING_RESET": 1, "LYR_KES_PING_SET": 2,
    "LYR_KES_PROBE_GET": 0, "LYR_KES_PROBE_CLEAR": 1, "LYR_KES_PROBE_MORE": 2,
    "LYR_KES_PROBE_LAST": 3,
    "LYR_KES_MSG_TYPE_GET": 0, "LYR_KES_MSG_TYPE_SELECT": 1, "LYR_KES_MSG_TYPE_RESET": 2,
    "LYR_KES_MSG_TYPE_OFF": 0xFFFFFFFF,
    "LYR_KES_LB_COUNT": 0, "LYR_KES_LB_LIST": 1, "LYR_KES_LB_END": 65535,
    "MUND_SOURCE_ADDRESS": 1, "MUND_SOURCE_INTERFACE_A": 2, "MUND_SOURCE_INTERFACE_B": 3,
    "MUND_SOURCE_ANY_INTERFACE": 4, "MUND_SOURCE_FREE": 5,
    "MUND_NO_CHANNEL": 0xFFFFFFFF, "MUND_DROP_WATCH_CLOSED": 0xFFFFFFFF,
}
globals().update(CONSTANTS)

# The operations by their codes.
OPERATIONS = ("CwpTunnel", "KaTunnel", "WapiTunnel", "LoadBalanceDfx", "CwpSrc",
              "CwpSrcReconciliation", "DebugTraceSet", "Reconciliation", "BatchReconciliation",
              "VerifyRcdGet", "VerifyRcdReset", "CwpPingStat", "CwpTraceRecord", "CwpMsgTypeStat",
              "GetPktStatistics", "ResetPktStatistics")

# Exported objects: name, layout, how many.
OBJECTS = {
    "MUND_OBJECT_SOURCES": ("g_LyrHostCwpSrcRcd", MundSourceRecord, 8),
    "MUND_OBJECT_TRACE": ("g_lyrKesDebugTrace", MundTraceConfig, 1),
    "MUND_OBJECT_STATION_SERVICE": ("g_lyrKesStaSvcInfo", U64, 1),
    "MUND_OBJECT_LAST_INSTANCE": ("g_lyrHostsvcNum", U32, 1),
    "MUND_OBJECT_IPV4_BUCKETS": ("g_LyrKes_DistIpv4Cap", U32, 1),
    "MUND_OBJECT_IPV6_BUCKETS": ("g_LyrKes_DistIpv6Cap", U32, 1),
    "MUND_OBJECT_KA_BUCKETS": ("g_LyrKes_DistKaCap", U32, 1),
    "MUND_OBJECT_HANDED_OVER": ("g_lyrKesChnSendSucceedPktCnt", U32, 2),
    "MUND_OBJECT_HAND_OFF_FAILED": ("g_lyrKesChnSendFailPktCnt", U32, 2),
    "MUND_OBJECT_WAPI_FRAMES": ("g_lyrKesWapiPacket2Svc", U32, 1),
    "MUND_OBJECT_WAPI_FAILED": ("g_lyrKesWapiPacket2Fail", U32, 1),
    "MUND_OBJECT_PACKET_COUNTERS": ("g_cwpPktStats", LyrKesPktStat, 3),
    "MUND_OBJECT_DROP_WATCH": ("g_lyrKesMsgDropStat", MundDropWatch, 1),
    "MUND_OBJECT_PING": ("g_LyrHostCwpPingStat", MundPingStat, 1),
    "MUND_OBJECT_MSG_TYPE": ("g_LyrHostPktMsgTypeStat", MundMsgTypeStat, 1),
}
CHANNELS = "g_kes2lyrHostChnMap"
THREADS = "g_lyrHostThreadInfoId"


def structures():
    """Every structure of this module by its name."""
    return {name: value for name, value in globals().items()
            if isinstance(value, type) and issubclass(value, Structure) and value is not Structure}


def array(layout, data):
    """The elements of a layout that bytes hold; bytes behind the last whole one are left out."""
    count = len(data) // sizeof(layout)
    return (layout * count).from_buffer_copy(data)
