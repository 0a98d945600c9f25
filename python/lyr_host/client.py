"""The client: the operations of the module, its objects, and what the engine adds."""
import json
from ctypes import sizeof

from . import layouts as c
from . import values as v
from .connection import BadReply, Connection, NoEngine, OperationFailed, Refused, default_path


class Client:
    """A connection to one engine, for one thread at a time.

    Every method raises NoEngine, Refused, OperationFailed or BadReply, all of them Error; ValueError
    is raised for values that no request can carry, before anything is sent. Addresses are taken as
    text or as those of the module ipaddress. Time limits are seconds; None: no limit.
    """

    def __init__(self, path=None, connect_timeout=30.0, timeout=30.0):
        self._engine = Connection(path or default_path(), connect_timeout, timeout)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._engine.close()

    def fileno(self):
        """The connection, for select and the like."""
        return self._engine.fileno()

    def call(self, operation, request=None, reply=None, payload=b""):
        """Runs an operation by its name; its reply has the layout `reply`, or there is none."""
        result, data = self._engine.ask(c.OPERATIONS.index(operation),
                                        bytes(request) if request is not None else payload)
        if result != 0:
            raise OperationFailed(result)
        size = sizeof(reply) if reply else 0
        if len(data) != size:
            raise BadReply("the reply has %d bytes, not %d" % (len(data), size))
        return reply.from_buffer_copy(data) if reply else None

    # Tunnels, sessions, stations.

    def add_tunnel(self, tunnel):
        self.call("CwpTunnel", v.fill_tunnel(c.LyrKesCwpTunnelReq(), tunnel))

    def delete_tunnel(self, tunnel):
        """Whatever instance it belongs to; one that there is not is no error."""
        request = c.LyrKesCwpTunnelReq(operation=c.LYR_KES_OPERATION_DELETE)
        self.call("CwpTunnel", v.fill_tunnel(request, tunnel))

    def add_session(self, session):
        self._session(c.LYR_KES_OPERATION_ADD, session)

    def delete_session(self, session):
        self._session(c.LYR_KES_OPERATION_DELETE, session)

    def _session(self, operation, session):
        self.call("KaTunnel", c.LyrKesKaTunnelReq(
            operation=operation, sessionId=v.session_words(session.session_id),
            nodeId=v.number("instance", session.instance)))

    def set_stations(self, first, count):
        """Lets `count` instances from `first` on serve stations."""
        request = c.LyrKesWapiTunnelReq(startVcpuId=v.number("first", first),
                                        instSpec=v.number("count", count))
        self.call("WapiTunnel", request, c.LyrKesWapiTunnelRsp)

    def count_tunnels(self, port, ipv6=False):
        """Tunnels that have the port at either end, modulo 65536."""
        return self._tunnel_page(c.LYR_KES_LB_COUNT, port, ipv6, 0).entryNum

    def tunnels_with_port(self, port, ipv6=False):
        """Those tunnels, page by page."""
        index = 0
        while True:
            page = self._tunnel_page(c.LYR_KES_LB_LIST, port, ipv6, index)
            used = [entry for entry in page.entries if any(bytes(entry))]
            for entry in used:
                yield v.Tunnel(v.address_of(entry.ipVer, entry.srcIp, entry.srcIpv6), entry.srcPort,
                               v.address_of(entry.ipVer, entry.dstIp, entry.dstIpv6), entry.dstPort,
                               entry.nodeId, entry.vpnId)
            if page.nextIndex == c.LYR_KES_LB_END:
                return
            if page.nextIndex <= index + 1:
                raise BadReply("the listing does not move on from index %d" % index)
            index = page.nextIndex - 1

    def _tunnel_page(self, kind, port, ipv6, index):
        request = c.LyrKesLbDfxReq(ipVer=1 if ipv6 else 0, index=index,
                                   tunnelPort=v.port("port", port), msgType=kind)
        return self.call("LoadBalanceDfx", request, c.LyrKesLbDfxRsp)

    # Sources and trace.

    def add_source(self, source):
        self.call("CwpSrc", c.LyrKesCwpSrcReq(operation=c.LYR_KES_OPERATION_ADD,
                                              source=v.wire_source(source)))

    def delete_source(self, source):
        self.call("CwpSrc", c.LyrKesCwpSrcReq(operation=c.LYR_KES_OPERATION_DELETE,
                                              source=v.wire_source(source)))

    def set_sources(self, sources):
        """Replaces all sources by those of a dict of positions, 0 to 7; the others become free."""
        request = c.LyrKesCwpSrcReconReq()
        for position, source in sources.items():
            request.entries[v.number("position", position, 7)] = v.wire_source(source)
        self.call("CwpSrcReconciliation", request)

    def set_trace(self, level, source=None, destination=None, source_port=0, destination_port=0,
                  message_type=0, mac="00:00:00:00:00:00"):
        """Traces failures (1), packets (2) or both (3) that pass the filters given."""
        # The IPv6 address of all zeros clears a filter whole; the IPv4 one leaves a part of it.
        self.call("DebugTraceSet", c.LyrKesDebugTraceReq(
            msgType=c.LYR_KES_TRACE_SET, debugLevel=v.number("level", level, 3),
            mac=v.mac_bytes(mac), srcAddr=v.wire_address(source or "::"),
            dstAddr=v.wire_address(destination or "::"),
            srcPort=v.port("source port", source_port),
            dstPort=v.port("destination port", destination_port),
            capwapMsgType=v.number("message type", message_type)))

    def clear_trace(self):
        self.call("DebugTraceSet", c.LyrKesDebugTraceReq(msgType=c.LYR_KES_TRACE_CLEAR))

    # Audits.

    def begin_audit(self, instance):
        self.call("Reconciliation", self._record(c.LYR_KES_RECON_BEGIN, instance))

    def confirm_tunnel(self, tunnel):
        self.call("Reconciliation", self._confirmation(tunnel))

    def confirm_session(self, session):
        self.call("Reconciliation", self._confirmation(session))

    def finish_audit(self, instance):
        """What has not been confirmed since the audit began goes."""
        self.call("Reconciliation", self._record(c.LYR_KES_RECON_FINISH, instance))

    def audit(self, instance, entries):
        """A whole audit as one batch: the tunnels and sessions given are what the instance keeps."""
        records = [self._record(c.LYR_KES_RECON_BEGIN, instance)]
        for entry in entries:
            if entry.instance != instance:
                raise ValueError("%r does not belong to instance %d" % (entry, instance))
            records.append(self._confirmation(entry))
        records.append(self._record(c.LYR_KES_RECON_FINISH, instance))
        head = len(records).to_bytes(4, "little" if bytes(c.U16(1))[0] else "big") + bytes(4)
        self.call("BatchReconciliation", payload=head + b"".join(map(bytes, records)))

    @staticmethod
    def _record(kind, instance):
        return c.LyrKesReconRecord(reconType=kind, nodeId=v.number("instance", instance))

    @staticmethod
    def _confirmation(entry):
        if isinstance(entry, v.Tunnel):
            return v.fill_tunnel(c.LyrKesReconRecord(reconType=c.LYR_KES_RECON_TUNNEL), entry)
        return c.LyrKesReconRecord(reconType=c.LYR_KES_RECON_SESSION,
                                   sessionId=v.session_words(entry.session_id),
                                   nodeId=v.number("instance", entry.instance))

    def removals(self, index=0):
        """What audits have removed, the newest first; list 0 or 1."""
        reply = self.call("VerifyRcdGet",
                          c.LyrKesVerifyRcdGetReq(listIndex=v.number("list", index, 1)),
                          c.LyrKesVerifyRcdGetRsp)
        return [v.Removal(record.time, record.excptType,
                          v.address_of(record.tunnel.ipVer, record.tunnel.srcIpv4,
                                       record.tunnel.srcIpv6), record.tunnel.srcPort,
                          v.address_of(record.tunnel.ipVer, record.tunnel.dstIpv4,
                                       record.tunnel.dstIpv6), record.tunnel.dstPort)
                for record in reply.records[:reply.rcdNum]]

    def clear_removals(self):
        self.call("VerifyRcdReset")

    # Counters.

    def packet_counters(self):
        """By class of packets."""
        reply = self.call("GetPktStatistics", reply=c.LyrKesGetPktStatisticsRsp)
        return dict(zip(v.PACKET_CLASSES, map(v.packet_counters, reply.rows)))

    def reset_packet_counters(self):
        self.call("ResetPktStatistics", reply=c.LyrKesResetPktStatisticsRsp)

    def message_type_counters(self):
        """By service instance."""
        reply = self._message_type(c.LYR_KES_MSG_TYPE_GET)
        return [v.MessageTypeCounters(*counts) for counts in
                list(zip(reply.recvCnt, reply.dropCnt, reply.nextRecvCnt,
                         reply.nextDropCnt))[:reply.entryNum]]

    def select_message_type(self, message_type):
        """Counts this type and the one above it; None: nothing."""
        self._message_type(c.LYR_KES_MSG_TYPE_SELECT, c.LYR_KES_MSG_TYPE_OFF
                           if message_type is None else v.number("message type", message_type))

    def reset_message_type_counters(self):
        self._message_type(c.LYR_KES_MSG_TYPE_RESET)

    def _message_type(self, kind, message_type=0):
        return self._checked(self.call(
            "CwpMsgTypeStat", c.LyrKesCwpMsgTypeStatReq(msgType=kind, cwpMsgType=message_type),
            c.LyrKesCwpMsgTypeStatRsp))

    def ping_counters(self):
        """The low 32 bits, by point of the packet's way; `ping` has the whole."""
        return v.ping_counters(self._ping(c.LYR_KES_PING_GET).counts)

    def set_ping_peer(self, address):
        """Counts the pings to and from this address; None: nobody's."""
        self._ping(c.LYR_KES_PING_SET, address or "0.0.0.0")

    def reset_ping_counters(self):
        self._ping(c.LYR_KES_PING_RESET)

    def _ping(self, kind, address="0.0.0.0"):
        return self._checked(self.call(
            "CwpPingStat", c.LyrKesCwpPingStatReq(msgType=kind, peerAddr=v.wire_address(address)),
            c.LyrKesCwpPingStatRsp))

    @staticmethod
    def _checked(reply):
        # Some operations tell their outcome in the reply, and return 0.
        if reply.result != 0:
            raise OperationFailed(reply.result)
        return reply

    def probes(self, start=0):
        """The sightings of probes from a position on, the oldest first, page by page."""
        while True:
            page = self.call("CwpTraceRecord", c.LyrKesCwpTraceRecordReq(
                startIdx=v.number("start", start), msgType=c.LYR_KES_PROBE_GET),
                c.LyrKesCwpTraceRecordRsp)
            for entry in page.entries[:page.entryNum]:
                yield v.Probe(start, entry.name.decode(errors="replace"), entry.hookKind,
                              v.mac_text(entry.mac),
                              v.address_of(entry.peerAddr.ipVer, entry.peerAddr.ipv4Addr,
                                           entry.peerAddr.ipv6Addr), entry.seconds)
                start += 1
            if page.result == c.LYR_KES_PROBE_LAST:
                return
            if page.result != c.LYR_KES_PROBE_MORE or page.entryNum == 0:
                raise BadReply("the trace of probes does not end")

    def clear_probes(self):
        self.call("CwpTraceRecord", c.LyrKesCwpTraceRecordReq(msgType=c.LYR_KES_PROBE_CLEAR),
                  c.LyrKesCwpTraceRecordRsp)

    # Objects.

    def object(self, name, slot=None):
        """The bytes of an exported object, or of the memory that its pointer in a slot points at."""
        encoded = name.encode()
        if len(encoded) >= 60:
            raise ValueError("the name %r has %d bytes, and an object's at most 59" %
                             (name, len(encoded)))
        return self._engine.ask(c.MUND_WIRE_OBJECT, bytes(c.MundWireObjectReq(
            name=encoded, slot=c.MUND_WIRE_NO_SLOT if slot is None else slot)))[1]

    def read(self, key):
        """An object of a known layout, by its key in layouts.OBJECTS: a structure, a number, or an
        array of them."""
        name, layout, count = c.OBJECTS[key]
        data = self.object(name)
        if len(data) != count * sizeof(layout):
            raise BadReply("%s has %d bytes, not %d" % (name, len(data), count * sizeof(layout)))
        elements = c.array(layout, data)
        return elements[0] if count == 1 else elements

    def sources(self):
        """The eight positions."""
        return [v.Source(record.srcType,
                         v.module_address(record.address.ipVer, record.address.words),
                         record.ifIndex)
                for record in self.read("MUND_OBJECT_SOURCES")]

    def trace(self):
        trace = self.read("MUND_OBJECT_TRACE")

        def address(family, words):
            return v.module_address(family, words) if any(words) else None
        return v.Trace(trace.enable != 0, trace.debugLevel,
                       address(trace.srcIpFamily, trace.srcIp), trace.srcPort or None,
                       address(trace.dstIpFamily, trace.dstIp), trace.dstPort or None,
                       trace.capwapMsgType or None, v.mac_text(trace.mac))

    def stations(self):
        """The first instance that serves stations, and how many do."""
        value = self.read("MUND_OBJECT_STATION_SERVICE")
        return value & 0xFFFFFFFF, value >> 32

    def last_instance(self):
        return self.read("MUND_OBJECT_LAST_INSTANCE")

    def drop_watch(self):
        watch = self.read("MUND_OBJECT_DROP_WATCH")
        is_open = watch.periodStart != c.MUND_DROP_WATCH_CLOSED
        return v.DropWatch(watch.alarmRaised != 0, watch.periodStart if is_open else None,
                           watch.dropNum, watch.lastDropNum, watch.totalNum,
                           watch.contDropPeriods, watch.contNoDropPeriods)

    def ping(self):
        """The peer, None without one, and its counters."""
        ping = self.read("MUND_OBJECT_PING")
        peer = v.module_address(ping.pingAddr.ipVer, ping.pingAddr.words)
        return peer if ping.pingEnable else None, v.ping_counters(ping.counters)

    def channels(self, packet_type=0):
        """Channel ids by instance, None where there is none yet; of packet type 0, CAPWAP, or 1."""
        return [None if channel == c.MUND_NO_CHANNEL else channel
                for channel in c.array(c.U32, self.object(c.CHANNELS, packet_type))]

    # What the engine adds.

    def tunnels(self):
        """All tunnels, of both families, in no order; they may change meanwhile."""
        for entry in self._entries(c.MUND_TABLE_IPV4_TUNNELS, c.MundIpv4Tunnel):
            key = entry.key
            yield v.Tunnel(v.IPv4Address(key.srcIp), key.srcPort, v.IPv4Address(key.dstIp),
                           key.dstPort, entry.nodeId, key.vpnId)
        for entry in self._entries(c.MUND_TABLE_IPV6_TUNNELS, c.MundIpv6Tunnel):
            key = entry.key
            yield v.Tunnel(v.ipv6_of(key.srcIpv6, 32), key.srcPort, v.ipv6_of(key.dstIpv6, 32),
                           key.dstPort, entry.nodeId, key.vpnId)

    def sessions(self):
        """All keepalive sessions, likewise."""
        for entry in self._entries(c.MUND_TABLE_SESSIONS, c.MundSession):
            yield v.Session(v.session_text(entry.key.sessionId), entry.nodeId)

    def _entries(self, table, layout):
        bucket = 0
        while True:
            _, data = self._engine.ask(c.MUND_WIRE_ENTRIES,
                                       bytes(c.MundWireEntriesReq(table=table, bucket=bucket)))
            size = sizeof(c.MundWireEntriesRsp)
            head = c.MundWireEntriesRsp.from_buffer_copy(data)
            if head.entrySize != sizeof(layout) or len(data) != size + head.count * head.entrySize:
                raise BadReply("a page of %d bytes has %d entries of %d bytes" %
                               (len(data), head.count, head.entrySize))
            yield from c.array(layout, data[size:])
            if head.nextBucket >= head.buckets:
                return
            if head.nextBucket <= bucket:
                raise BadReply("the listing does not move on from bucket %d" % bucket)
            bucket = head.nextBucket

    def settle(self):
        """Waits, a second at most, for the module's threads to do what they have been asked, as
        audits are; whether they have."""
        return any(self._engine.ask(c.MUND_WIRE_SETTLE)[1])

    def state(self):
        """The state of the engine, a dict."""
        return json.loads(self._engine.ask(c.MUND_WIRE_STATE)[1])

    def explain(self, frame, rx_port=0, vrf=0, cause=0):
        """What the module would do with a frame, a dict."""
        arrival = c.MundWireExplainReq(rxPort=v.number("rx_port", rx_port),
                                       vrf=v.number("vrf", vrf), causeAction=v.number("cause", cause))
        return json.loads(self._engine.ask(c.MUND_WIRE_EXPLAIN, bytes(arrival) + bytes(frame))[1])

    def follow(self):
        """The engine's lines as they come, without an end. The client serves for nothing else."""
        self._engine.follow()
        return self._lines()

    def _lines(self):
        size = sizeof(c.MundWireLine)
        while True:
            _, data = self._engine.receive(c.MUND_WIRE_FOLLOW)
            line = c.MundWireLine.from_buffer_copy(data)
            kind = v.LINE_KINDS[line.kind] if line.kind < len(v.LINE_KINDS) else "line"
            yield v.Line(kind, line.timeNs, line.lost, data[size:].decode(errors="replace"))


__all__ = ["Client", "BadReply", "NoEngine", "OperationFailed", "Refused"]
