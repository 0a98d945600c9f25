#include "standin/frame_parser.h"

#include <cstring>
#include <optional>
#include <span>

#include "host/meta.h"

namespace standin {
namespace {

constexpr size_t kMacsLength = 12;
constexpr size_t kTagLength = 4;
constexpr size_t kIpv4MinimumHeader = 20;
constexpr size_t kIpv6Header = 40;
constexpr size_t kPortsLength = 4;
// The layer-2 length is answered in 8 bits.
constexpr size_t kMaxL2Length = 255;

constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kTypeIpv6 = 0x86DD;
constexpr uint16_t kTypeCustomerTag = 0x8100;
constexpr uint16_t kTypeServiceTag = 0x88A8;

constexpr uint8_t kProtocolHopByHop = 0;
constexpr uint8_t kProtocolTcp = 6;
constexpr uint8_t kProtocolUdp = 17;

using Bytes = std::span<const uint8_t>;

uint16_t Read16(Bytes bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

uint32_t Read32(Bytes bytes, size_t offset) {
    return static_cast<uint32_t>(Read16(bytes, offset)) << 16 | Read16(bytes, offset + 2);
}

bool IsVlanTag(uint16_t type) {
    return type == kTypeCustomerTag || type == kTypeServiceTag;
}

// Reads MAC addresses, tags and Ethernet type. Returns what follows them, or nothing if they are
// cut off or more than can be counted.
std::optional<Bytes> ReadEthernet(Bytes frame, HostMbufMeta &meta) {
    if (frame.size() < kMacsLength) {
        return std::nullopt;
    }
    meta.hasMacs = true;
    std::memcpy(meta.dstMac, frame.data(), sizeof(meta.dstMac));
    std::memcpy(meta.srcMac, frame.data() + sizeof(meta.dstMac), sizeof(meta.srcMac));

    for (size_t length = kMacsLength + 2; length <= frame.size() && length <= kMaxL2Length;
         length += kTagLength) {
        const uint16_t type = Read16(frame, length - 2);
        if (!IsVlanTag(type)) {
            meta.etherType = type;
            meta.l2Length = static_cast<uint16_t>(length);
            return frame.subspan(length);
        }
    }
    return std::nullopt;
}

void ReadPorts(Bytes segment, HostMbufMeta &meta) {
    if ((meta.ipProtocol != kProtocolUdp && meta.ipProtocol != kProtocolTcp) ||
        segment.size() < kPortsLength) {
        return;
    }
    meta.srcPort = Read16(segment, 0);
    meta.dstPort = Read16(segment, 2);
}

// The packet without what lies behind its end; all of it when it is cut off before.
Bytes Trim(Bytes packet, size_t totalLength) {
    return totalLength < packet.size() ? packet.first(totalLength) : packet;
}

// Reads IP header and ports. Returns the packet without padding, or nothing if there is no
// acceptable header.
std::optional<Bytes> ReadIpv4(Bytes packet, HostMbufMeta &meta) {
    if (packet.size() < kIpv4MinimumHeader || packet[0] >> 4 != 4) {
        return std::nullopt;
    }
    const size_t headerLength = size_t{packet[0] & 0x0Fu} * 4;
    const size_t totalLength = Read16(packet, 2);
    if (headerLength < kIpv4MinimumHeader || headerLength > packet.size() ||
        totalLength < headerLength) {
        return std::nullopt;
    }
    meta.protoType = HOST_PROTO_IPV4;
    meta.ipHeaderLength = static_cast<uint16_t>(headerLength);
    meta.ipProtocol = packet[9];
    meta.srcIp = Read32(packet, 12);
    meta.dstIp = Read32(packet, 16);

    packet = Trim(packet, totalLength);
    const bool laterFragment = (Read16(packet, 6) & 0x1FFF) != 0;
    if (!laterFragment) {
        ReadPorts(packet.subspan(headerLength), meta);
    }
    return packet;
}

// The same for IPv6, whose extension headers are not followed.
std::optional<Bytes> ReadIpv6(Bytes packet, HostMbufMeta &meta) {
    if (packet.size() < kIpv6Header || packet[0] >> 4 != 6) {
        return std::nullopt;
    }
    meta.protoType = HOST_PROTO_IPV6;
    meta.ipProtocol = packet[6];
    for (size_t word = 0; word < 4; ++word) {
        meta.srcIp6[word] = Read32(packet, 8 + 4 * word);
        meta.dstIp6[word] = Read32(packet, 24 + 4 * word);
    }

    const size_t payloadLength = Read16(packet, 4);
    // A jumbogram gives its length in a hop-by-hop option (RFC 2675).
    const bool jumbogram = payloadLength == 0 && meta.ipProtocol == kProtocolHopByHop;
    if (!jumbogram) {
        packet = Trim(packet, kIpv6Header + payloadLength);
    }
    ReadPorts(packet.subspan(kIpv6Header), meta);
    return packet;
}

std::optional<Bytes> ReadIp(Bytes packet, HostMbufMeta &meta) {
    switch (meta.etherType) {
        case kTypeIpv4:
            return ReadIpv4(packet, meta);
        case kTypeIpv6:
            return ReadIpv6(packet, meta);
        default:
            return std::nullopt;
    }
}

}  // namespace

void ParseFrame(HostMbuf *mbuf) {
    HostMbufMeta &meta = Meta(mbuf);
    meta.frameLength = mbuf->pktLen;
    const std::optional<Bytes> payload = ReadEthernet({FirstByte(mbuf), mbuf->dataLen}, meta);
    if (!payload) {
        return;
    }
    const std::optional<Bytes> packet = ReadIp(*payload, meta);
    if (packet && mbuf->nbSegs == 1) {
        mbuf->dataLen = static_cast<uint16_t>(meta.l2Length + packet->size());
        mbuf->pktLen = mbuf->dataLen;
    }
}

}  // namespace standin
