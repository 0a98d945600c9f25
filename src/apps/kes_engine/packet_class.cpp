#include "packet_class.h"

#include <netinet/in.h>

#include <optional>

#include "capwap/packet_builder.h"
#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

constexpr size_t kIpv6Header = 40;
constexpr size_t kUdpHeader = 8;
constexpr size_t kUdpLengthAt = 4;
constexpr size_t kDtlsRecordEnd = kContentTypeAt + 13;
constexpr uint8_t kApplicationData = 23;

// What follows the UDP header; nothing where it is cut off or goes on behind the UDP length.
std::span<const uint8_t> UdpPayload(const HostMbuf *packet, const standin::HostMbufMeta &meta) {
    const auto frame = standin::FrameAsReceived(packet).first(packet->dataLen);
    const size_t ipHeader = meta.protoType == HOST_PROTO_IPV6 ? kIpv6Header : meta.ipHeaderLength;
    const size_t udp = meta.l2Length + ipHeader;
    if (udp + kUdpHeader > frame.size()) {
        return {};
    }
    const size_t announced = size_t{frame[udp + kUdpLengthAt]} << 8 | frame[udp + kUdpLengthAt + 1];
    return frame.size() - udp <= announced ? frame.subspan(udp + kUdpHeader)
                                           : std::span<const uint8_t>();
}

// Of the data channel, the module wants keepalives, whose flags alone make them, and DTLS records
// other than data.
std::optional<size_t> ClassOnDataPort(std::span<const uint8_t> header) {
    if (header.size() <= kFlagsAt) {
        return std::nullopt;
    }
    if ((header[kFlagsAt] & (kFlagKeepalive | kFlagFragment)) == kFlagKeepalive) {
        return LYR_KES_PKT_STAT_KEEPALIVE;
    }
    const bool isHandshake = header.size() >= kDtlsRecordEnd &&
                             (header[0] & kPreambleTypeMask) == kPreambleDtls &&
                             header[kContentTypeAt] != kApplicationData;
    return isHandshake ? std::optional<size_t>(LYR_KES_PKT_STAT_DTLS_HANDSHAKE) : std::nullopt;
}

bool IsUdpOf(const standin::HostMbufMeta &meta, uint16_t port) {
    return meta.ipProtocol == IPPROTO_UDP && (meta.srcPort == port || meta.dstPort == port);
}

}  // namespace

bool IsControl(const HostMbuf *packet) {
    return IsUdpOf(standin::MetaOf(packet), capwap::kControlPort);
}

std::optional<size_t> ClassOf(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    if (IsUdpOf(meta, capwap::kControlPort)) {
        return LYR_KES_PKT_STAT_CONTROL;
    }
    return IsUdpOf(meta, capwap::kDataPort) ? ClassOnDataPort(UdpPayload(packet, meta))
                                            : std::nullopt;
}

void CountByClass(ClassCounts &counts, const HostMbuf *packet) {
    if (const std::optional<size_t> row = ClassOf(packet)) {
        ++counts[*row];
    }
}

}  // namespace kes_engine
