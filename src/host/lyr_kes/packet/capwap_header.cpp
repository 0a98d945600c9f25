#include "packet/capwap_header.h"

#include "dfx/debug_trace.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "packet/capwap_fields.h"

namespace {

using lyr::kError;
using lyr::kOk;
using lyr::ReadBe16;
using lyr::ReadBe32;

constexpr uint32_t kIpv6HeaderLength = 40;
constexpr uint8_t kIpv6FragmentHeader = 44;
constexpr uint32_t kUdpHeaderLength = 8;
constexpr uint32_t kUdpLengthOffset = 4;

// CAPWAP header (RFC 5415, section 4.3).
constexpr uint8_t kPreambleTypeMask = 0x0F;
constexpr uint8_t kPreambleDtls = 1;

// DTLS record behind the CAPWAP DTLS header.
constexpr uint32_t kDtlsContentTypeOffset = 4;
constexpr uint32_t kDtlsRecordEnd = 4 + 13;
constexpr uint8_t kDtlsApplicationData = 23;

// Data-channel keepalive: message element length, then one Session ID element.
constexpr uint32_t kKeepaliveLength = 22;
constexpr uint32_t kSessionIdElement = 35;
constexpr uint32_t kSessionIdLength = 16;
constexpr uint32_t kSessionIdOffset = 6;

// Extension header: a total length, then elements of type, length (header included) and value.
constexpr uint32_t kExtensionLengthSize = 4;
constexpr uint32_t kElementHeaderLength = 4;
constexpr uint16_t kElementWlanId = 6;
constexpr uint16_t kElementWlanIdMinLength = 8;

enum class Reports { kNone, kTraced };

struct CapwapHeader {
    const uint8_t *start;
    uint16_t payloadLength;
    uint16_t present;
};

const uint8_t *SegmentStart(const HostMbuf *packet) {
    return static_cast<const uint8_t *>(packet->bufAddr) + packet->dataOff;
}

uint32_t L2Length(const HostMbuf *packet) {
    return HostMbufGetL2HeadLength(packet) & 0xFF;
}

// Bytes before the UDP header; false for a packet that is not IP.
bool UdpOffset(const HostMbuf *packet, uint32_t *offset) {
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            *offset = L2Length(packet) + (HostMbufGetIphdrHeadlen(packet) & 0xFF);
            return true;
        case HOST_PROTO_IPV6:
            *offset = L2Length(packet) + kIpv6HeaderLength;
            return true;
        default:
            return false;
    }
}

template <Reports kReports>
bool Locate(const HostMbuf *packet, CapwapHeader *found) {
    uint32_t udpOffset;
    if (!UdpOffset(packet, &udpOffset)) {
        return false;
    }
    const uint32_t segmentLength = packet->dataLen;
    const uint32_t parsed = udpOffset + kUdpHeaderLength;
    if (parsed > segmentLength) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                             "[LyrKesHost] parse udphdr err: total=%u, parsed=%u", segmentLength,
                             parsed);
        }
        return false;
    }
    const uint8_t *udp = SegmentStart(packet) + udpOffset;
    const uint32_t udpLength = ReadBe16(udp + kUdpLengthOffset);
    if (udpLength < kUdpHeaderLength) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                             "[LyrKesHost] udpHdr len err: len=%d, total=%u, parsedLen=%u",
                             static_cast<int>(udpLength), segmentLength, parsed);
        }
        return false;
    }
    const uint32_t payloadLength = udpLength - kUdpHeaderLength;
    const uint32_t present = segmentLength - parsed;
    if (present > payloadLength) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                             "[LyrKesHost] app len err: appLen=%u, parseLen=%u, totalLen=%u",
                             payloadLength, parsed, segmentLength);
        }
        return false;
    }
    *found = {udp + kUdpHeaderLength, static_cast<uint16_t>(payloadLength),
              static_cast<uint16_t>(present)};
    return true;
}

template <Reports kReports>
bool ReadMessageType(const CapwapHeader &header, uint32_t *messageType) {
    if (header.present < lyr::kCapwapFlagBytes) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(
                LYR_TRACE_FAILURE, false, nullptr,
                "LyrKes_GetCapwapMsgTypeFromCapwapHdr, check err: pktLen=%u, realLen=%u",
                header.payloadLength, header.present);
        }
        return false;
    }
    const uint32_t length = lyr::CapwapHeaderLength(header.start);
    if (length + lyr::kMessageTypeLength > header.present) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(
                LYR_TRACE_FAILURE, false, nullptr,
                "LyrKes_GetCapwapMsgTypeFromCapwapHdr, headlen not enough: pktLen=%u, realLen=%u",
                header.payloadLength, header.present);
        }
        return false;
    }
    *messageType = ReadBe32(header.start + length);
    return true;
}

template <Reports kReports>
uint32_t GetHeader(const HostMbuf *packet, const uint8_t **header, uint16_t *payloadLength,
                   uint16_t *present) {
    CapwapHeader found;
    if (!Locate<kReports>(packet, &found)) {
        return kError;
    }
    *header = found.start;
    *payloadLength = found.payloadLength;
    *present = found.present;
    return kOk;
}

template <Reports kReports>
uint32_t GetMessageType(const HostMbuf *packet) {
    CapwapHeader header;
    uint32_t messageType;
    return Locate<kReports>(packet, &header) && ReadMessageType<kReports>(header, &messageType)
               ? messageType
               : kError;
}

// K set, F clear.
bool IsKeepalive(const CapwapHeader &header) {
    return header.present >= lyr::kCapwapFlagBytes &&
           (header.start[3] & (lyr::kCapwapFlagKeepalive | lyr::kCapwapFlagFragment)) ==
               lyr::kCapwapFlagKeepalive;
}

template <Reports kReports>
bool ReadSessionId(const HostMbuf *packet, const CapwapHeader &header, uint32_t *sessionId) {
    if (header.present < lyr::kCapwapFlagBytes) {
        return false;
    }
    const uint32_t headerLength = lyr::CapwapHeaderLength(header.start);
    if (headerLength + kKeepaliveLength > header.present) {
        return false;
    }
    const uint8_t *keepalive = header.start + headerLength;
    const uint32_t messageLength = ReadBe16(keepalive);
    if (messageLength != kKeepaliveLength) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                             "Get KA session id error, ElementLen:%u", messageLength);
        }
        return false;
    }
    const uint32_t elementType = ReadBe16(keepalive + 2);
    const uint32_t elementLength = ReadBe16(keepalive + 4);
    if (elementType != kSessionIdElement || elementLength != kSessionIdLength) {
        if constexpr (kReports == Reports::kTraced) {
            LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                             "Get KA session id error, Type:%u, Len:%u", elementType,
                             elementLength);
        }
        return false;
    }
    for (size_t i = 0; i < 4; ++i) {
        sessionId[i] = ReadBe32(keepalive + kSessionIdOffset + 4 * i);
    }
    return true;
}

// Walks the elements of an extension header, `length` bytes in all, to the WLAN id.
bool FindWlanId(const uint8_t *elements, uint32_t length, uint16_t *wlanId) {
    for (uint32_t offset = 0; offset + kElementHeaderLength < length;) {
        const uint8_t *element = elements + offset;
        const uint16_t elementLength = ReadBe16(element + 2);
        if (elementLength == 0 || elementLength > length - offset) {
            return false;
        }
        if (ReadBe16(element) == kElementWlanId) {
            if (elementLength < kElementWlanIdMinLength) {
                return false;
            }
            *wlanId = ReadBe16(element + kElementHeaderLength);
            return true;
        }
        offset += elementLength;
    }
    return false;
}

}  // namespace

uint32_t LyrKes_GetCapwapHdr(const HostMbuf *packet, const uint8_t **header,
                             uint16_t *payloadLength, uint16_t *present) {
    return GetHeader<Reports::kTraced>(packet, header, payloadLength, present);
}

uint32_t LyrKes_GetCapwapHeader(const HostMbuf *packet, const uint8_t **header,
                                uint16_t *payloadLength, uint16_t *present) {
    return GetHeader<Reports::kNone>(packet, header, payloadLength, present);
}

uint32_t LyrKes_GetCapwapMsgTypeFromCapwapHdr(const uint8_t *header, uint16_t payloadLength,
                                              uint16_t present, uint32_t *messageType) {
    return ReadMessageType<Reports::kTraced>({header, payloadLength, present}, messageType)
               ? kOk
               : kError;
}

uint32_t LyrKes_GetCapwapMsgTypeFromCapwapHeader(const uint8_t *header, uint16_t present,
                                                 uint32_t *messageType) {
    return ReadMessageType<Reports::kNone>({header, present, present}, messageType) ? kOk : kError;
}

uint32_t LyrKes_GetCapwapMsgType(const HostMbuf *packet) {
    return GetMessageType<Reports::kTraced>(packet);
}

uint32_t LyrKes_GetCapwapPktMsgType(const HostMbuf *packet) {
    return GetMessageType<Reports::kNone>(packet);
}

uint32_t LyrKes_CheckIsDtlsHandShakePkt(const HostMbuf *packet) {
    CapwapHeader header;
    if (!Locate<Reports::kTraced>(packet, &header) || header.present < kDtlsRecordEnd) {
        return 0;
    }
    return (header.start[0] & kPreambleTypeMask) == kPreambleDtls &&
           header.start[kDtlsContentTypeOffset] != kDtlsApplicationData;
}

uint32_t LyrKes_CheckIsKaPkt(const HostMbuf *packet) {
    CapwapHeader header;
    if (!Locate<Reports::kTraced>(packet, &header)) {
        return 0;
    }
    if (header.present < lyr::kCapwapFlagBytes) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                         "[LyrKesHost] LyrKes_CheckIsKaPkt, check err: pktLen=%u, realLen=%u",
                         header.payloadLength, header.present);
        return 0;
    }
    return IsKeepalive(header);
}

uint32_t LyrKes_GetKaSessionid(const HostMbuf *packet, uint32_t *sessionId) {
    CapwapHeader header;
    return Locate<Reports::kTraced>(packet, &header) &&
                   ReadSessionId<Reports::kTraced>(packet, header, sessionId)
               ? kOk
               : kError;
}

bool lyr::PeekSessionId(const HostMbuf *packet, uint32_t *sessionId) {
    CapwapHeader header;
    return Locate<Reports::kNone>(packet, &header) && IsKeepalive(header) &&
           ReadSessionId<Reports::kNone>(packet, header, sessionId);
}

uint32_t LyrKes_GetWlanIdFromCapwapHeader(const uint8_t *header, uint16_t present,
                                          uint16_t *wlanId) {
    if (present < lyr::kCapwapFlagBytes || (header[3] & lyr::kCapwapFlagExtension) == 0) {
        return kError;
    }
    const uint32_t headerLength = lyr::CapwapHeaderLength(header);
    if (headerLength + kExtensionLengthSize > present) {
        return kError;
    }
    const uint8_t *extension = header + headerLength;
    const uint32_t total = ReadBe32(extension);
    if (total > present - headerLength || total < kExtensionLengthSize) {
        return kError;
    }
    return FindWlanId(extension + kExtensionLengthSize, total - kExtensionLengthSize, wlanId)
               ? kOk
               : kError;
}

uint32_t LyrKes_GetVadoAcTunnelWlanId(HostMbuf *packet, uint16_t *wlanId) {
    if (packet == nullptr || wlanId == nullptr) {
        return kError;
    }
    CapwapHeader header;
    if (!Locate<Reports::kNone>(packet, &header)) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet,
                         "[LyrKesHost] get capwap header failed:ret=%u.", kError);
        return kError;
    }
    const uint32_t result = LyrKes_GetWlanIdFromCapwapHeader(header.start, header.present, wlanId);
    if (HostMbufGetHostDiagSwitch(packet) != 0) {
        LYR_KES_DiagPrintf("[LyrKesHost] get capwap ext header wlanid:ret=%u, wlanid=%u.", result,
                           *wlanId);
    }
    return result;
}

uint32_t LyrKes_CheckIfFirstIpFrag(const HostMbuf *packet) {
    constexpr uint32_t kIpv4FragmentOffset = 6;
    constexpr uint32_t kIpv6NextHeader = 6;
    constexpr uint32_t kIpv6FragmentOffset = kIpv6HeaderLength + 2;

    const uint32_t ipOffset = L2Length(packet);
    const uint8_t *ip = SegmentStart(packet) + ipOffset;
    const auto hasBytes = [&](uint32_t count) { return ipOffset + count <= packet->dataLen; };
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            return hasBytes(kIpv4FragmentOffset + 2) &&
                   (ReadBe16(ip + kIpv4FragmentOffset) & 0x1FFF) == 0;
        case HOST_PROTO_IPV6:
            if (!hasBytes(kIpv6NextHeader + 1)) {
                return 0;
            }
            return ip[kIpv6NextHeader] != kIpv6FragmentHeader ||
                   (hasBytes(kIpv6FragmentOffset + 2) &&
                    (ReadBe16(ip + kIpv6FragmentOffset) >> 3) == 0);
        default:
            return 0;
    }
}
