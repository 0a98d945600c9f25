#include "address_resolution.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>

#include "standin/mbuf_pool.h"

namespace kes_dpdk {
namespace {

constexpr uint16_t kEtherTypeArp = 0x0806;
constexpr size_t kArpOperationAt = 7;  // its lower byte
constexpr uint8_t kArpReply = 2;
constexpr size_t kIpv6Header = 40;

// The byte at an offset behind the Ethernet header; 0 if the frame ends before.
uint8_t ByteAt(const HostMbuf *packet, size_t offset) {
    const auto frame = standin::FrameAsReceived(packet);
    const size_t at = standin::MetaOf(packet).l2Length + offset;
    return at < frame.size() ? frame[at] : 0;
}

uint8_t Icmpv6Type(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    const bool isIcmp = meta.protoType == HOST_PROTO_IPV6 && meta.ipProtocol == IPPROTO_ICMPV6;
    return isIcmp ? ByteAt(packet, kIpv6Header) : 0;
}

}  // namespace

bool ResolvesAddresses(const HostMbuf *packet) {
    const uint8_t type = Icmpv6Type(packet);
    return standin::MetaOf(packet).etherType == kEtherTypeArp ||
           (type >= ND_ROUTER_SOLICIT && type <= ND_REDIRECT);
}

bool AnswersResolution(const HostMbuf *packet) {
    return standin::MetaOf(packet).etherType == kEtherTypeArp
               ? ByteAt(packet, kArpOperationAt) == kArpReply
               : Icmpv6Type(packet) == ND_NEIGHBOR_ADVERT;
}

}  // namespace kes_dpdk
