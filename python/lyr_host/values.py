"""What a client takes and hands out, and its way into and out of the layouts."""
from dataclasses import dataclass
from ipaddress import IPv4Address, IPv6Address, ip_address
from typing import Optional, Union

from . import layouts

Address = Union[IPv4Address, IPv6Address]


@dataclass(frozen=True)
class Tunnel:
    """A CAPWAP tunnel as its access point sends, and the service instance that owns it."""
    source: Address
    source_port: int
    destination: Address
    destination_port: int
    instance: int
    vpn: int = 0


@dataclass(frozen=True)
class Session:
    """A keepalive session: its id, 32 hexadecimal digits, and the instance that owns it."""
    session_id: str
    instance: int


@dataclass(frozen=True)
class Source:
    """A CAPWAP source of the controller; of type 5, a free position without an address."""
    type: int
    address: Optional[Address]
    interface: int = 0


@dataclass(frozen=True)
class Removal:
    """A tunnel that an audit has removed; `time` in seconds since the epoch, type 1: not confirmed."""
    time: int
    type: int
    source: Address
    source_port: int
    destination: Address
    destination_port: int


@dataclass(frozen=True)
class Probe:
    position: int
    name: str
    point: int  # 0 tx in, 1 tx out, 2 rx in, 3 rx out
    mac: str
    peer: Address
    seconds: int


@dataclass(frozen=True)
class PacketCounters:
    """Of a class of packets."""
    received: int
    sent: int
    send_failed: int
    processing_failed: int
    source_mismatch: int
    not_distributed: int
    session_id_failed: int


@dataclass(frozen=True)
class PingCounters:
    packets: int
    fragments: int
    bytes: int


@dataclass(frozen=True)
class MessageTypeCounters:
    """Of a service instance: hand-offs of the selected type, and of the one above it."""
    handed_over: int
    failed: int
    next_handed_over: int
    next_failed: int


@dataclass(frozen=True)
class Trace:
    """The debug trace; a filter that lets everything pass is None."""
    enabled: bool
    level: int
    source: Optional[Address]
    source_port: Optional[int]
    destination: Optional[Address]
    destination_port: Optional[int]
    message_type: Optional[int]
    mac: str


@dataclass(frozen=True)
class DropWatch:
    alarm_raised: bool
    period_start: Optional[int]  # None while it is not open
    dropped: int
    dropped_before_period: int
    packets: int
    periods_with_drops: int
    quiet_periods: int


@dataclass(frozen=True)
class Line:
    """A line of the engine's; `lost` lines before it came too fast."""
    kind: str
    time_ns: int
    lost: int
    text: str


LINE_KINDS = ("report", "print", "log", "alarm", "assertion")
PACKET_CLASSES = ("control", "keepalive", "DTLS handshake")
HOOK_POINTS = ("tx in", "tx out", "rx in", "rx out")


def number(name, value, most=0xFFFFFFFF):
    """The value, which has to be a number from 0 to `most`: C would cut it short without a word."""
    if not isinstance(value, int) or not 0 <= value <= most:
        raise ValueError("%s %r is not a number from 0 to %d" % (name, value, most))
    return value


def port(name, value):
    return number(name, value, 0xFFFF)


def wire_address(value):
    address = ip_address(value)
    if address.version == 4:
        return layouts.LyrKesRpcIpAddr(ipVer=0, ipv4Addr=int(address))
    return layouts.LyrKesRpcIpAddr(ipVer=1, ipv6Addr=groups_of(address))


def groups_of(address):
    packed = address.packed
    return (layouts.U16 * 8)(*(packed[i] << 8 | packed[i + 1] for i in range(0, 16, 2)))


def ipv6_of(parts, bits):
    """Of groups or words in host order, the most significant first."""
    value = 0
    for part in parts:
        value = value << bits | part
    return IPv6Address(value)


def address_of(version, ipv4, groups):
    return ipv6_of(groups, 16) if version else IPv4Address(ipv4)


def module_address(version, words):
    if version == 4:
        return IPv4Address(words[0])
    return ipv6_of(words, 32) if version == 6 else None


def session_words(session_id):
    try:
        data = bytes.fromhex(session_id)
    except ValueError:
        data = b""
    if len(data) != 16:
        raise ValueError("session id %r is not 32 hexadecimal digits" % (session_id,))
    return (layouts.U32 * 4)(*(int.from_bytes(data[i:i + 4], "big") for i in range(0, 16, 4)))


def session_text(words):
    return "".join("%08x" % word for word in words)


def mac_text(mac):
    return ":".join("%02x" % byte for byte in mac)


def mac_bytes(text):
    parts = text.replace("-", ":").split(":")
    if len(parts) != 6 or any(len(part) != 2 for part in parts):
        raise ValueError("MAC %r is not like 02:00:5e:10:00:01" % (text,))
    return (layouts.U8 * 6)(*(int(part, 16) for part in parts))


def wire_source(source):
    return layouts.LyrKesCwpSrcEntry(cwpType=number("type", source.type),
                                     srcAddr=wire_address(source.address),
                                     srcIf=number("interface", source.interface))


def fill_tunnel(message, tunnel):
    """Into a tunnel request, or the reconciliation record of one."""
    source, destination = wire_address(tunnel.source), wire_address(tunnel.destination)
    if source.ipVer != destination.ipVer:
        raise ValueError("source %s and destination %s are not of one address family" %
                         (tunnel.source, tunnel.destination))
    message.srcAddr, message.dstAddr = source, destination
    message.srcPort = port("source port", tunnel.source_port)
    message.dstPort = port("destination port", tunnel.destination_port)
    message.vpnId = number("vpn", tunnel.vpn)
    message.nodeId = number("instance", tunnel.instance)
    return message


def packet_counters(row):
    return PacketCounters(*(getattr(row, name) for name, _ in row._fields_))


def ping_counters(counts):
    return {point: PingCounters(count.pktCnt, count.fragCnt, count.byteCnt)
            for point, count in zip(HOOK_POINTS, counts)}
