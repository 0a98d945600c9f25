#include "packet_class.h"

#include <netinet/in.h>

#include <optional>

#include "capwap/packet_builder.h"
#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

constexpr size_t kIpv6Header = 40;
constexpr size_t kUdpHeader = 8;

// Of the data channel, the module wants handshakes and keepalives; their preambles differ.
std::optional<size_t> ClassOnDataPort(const HostMbuf *packet, const standin::HostMbufMeta &meta) {
    const std::span<const uint8_t> frame = standin::FrameAsReceived(packet);
    const size_t ipHeader = meta.protoType == HOST_PROTO_IPV6 ? kIpv6Header : meta.ipHeaderLength;
    const size_t preamble = meta.l2Length + ipHeader + kUdpHeader;
    if (preamble >= frame.size()) {
        return std::nullopt;
    }
    return (frame[preamble] & kPreambleTypeMask) == kPreambleDtls ? LYR_KES_PKT_STAT_DTLS_HANDSHAKE
                                                                  : LYR_KES_PKT_STAT_KEEPALIVE;
}

bool IsUdpOf(const standin::HostMbufMeta &meta, uint16_t port) {
    return meta.ipProtocol == IPPROTO_UDP && (meta.srcPort == port || meta.dstPort == port);
}

std::optional<size_t> ClassOf(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    if (IsUdpOf(meta, capwap::kControlPort)) {
        return LYR_KES_PKT_STAT_CONTROL;
    }
    return IsUdpOf(meta, capwap::kDataPort) ? ClassOnDataPort(packet, meta) : std::nullopt;
}

}  // namespace

bool IsControl(const HostMbuf *packet) {
    return IsUdpOf(standin::MetaOf(packet), capwap::kControlPort);
}

void CountByClass(ClassCounts &counts, const HostMbuf *packet) {
    if (const std::optional<size_t> row = ClassOf(packet)) {
        ++counts[*row];
    }
}

}  // namespace kes_engine
