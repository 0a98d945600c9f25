#include "address_resolution.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>

#include <algorithm>
#include <span>

#include "control/values.h"
#include "standin/mbuf_pool.h"

namespace kes_dpdk {
namespace {

constexpr uint16_t kEtherTypeArp = 0x0806;
constexpr size_t kArpOperationAt = 7;  // its lower byte
constexpr uint8_t kArpRequest = 1;
constexpr uint8_t kArpReply = 2;
constexpr size_t kArpSenderAt = 14;
constexpr size_t kArpTargetAt = 24;
constexpr size_t kIpv6Header = 40;
constexpr size_t kNeighbourTargetAt = kIpv6Header + 8;

// The byte at an offset behind the Ethernet header; 0 if the frame ends before.
uint8_t ByteAt(const HostMbuf *packet, size_t offset) {
    const auto frame = standin::FrameAsReceived(packet);
    const size_t at = standin::MetaOf(packet).l2Length + offset;
    return at < frame.size() ? frame[at] : 0;
}

// So many bytes there; none if the frame ends before.
std::span<const uint8_t> BytesAt(const HostMbuf *packet, size_t offset, size_t count) {
    const auto frame = standin::FrameAsReceived(packet);
    const size_t at = standin::MetaOf(packet).l2Length + offset;
    return at + count <= frame.size() ? frame.subspan(at, count) : frame.first(0);
}

uint8_t Icmpv6Type(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    const bool isIcmp = meta.protoType == HOST_PROTO_IPV6 && meta.ipProtocol == IPPROTO_ICMPV6;
    return isIcmp ? ByteAt(packet, kIpv6Header) : 0;
}

// The address that it asks for; none if it is no question. Who asks for its own address tells it.
std::span<const uint8_t> AddressAskedFor(const HostMbuf *packet) {
    if (standin::MetaOf(packet).etherType != kEtherTypeArp) {
        return Icmpv6Type(packet) == ND_NEIGHBOR_SOLICIT ? BytesAt(packet, kNeighbourTargetAt, 16)
                                                         : std::span<const uint8_t>();
    }
    const auto target = BytesAt(packet, kArpTargetAt, 4);
    const bool isQuestion = ByteAt(packet, kArpOperationAt) == kArpRequest &&
                            !std::ranges::equal(BytesAt(packet, kArpSenderAt, 4), target);
    return isQuestion ? target : std::span<const uint8_t>();
}

}  // namespace

AddressBytes ParseAddress(const std::string &name, const std::string &text) {
    const LyrKesRpcIpAddr address = control::ParseAddress(name, text);
    AddressBytes bytes;
    if (address.ipVer == 0) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<uint8_t>(address.ipv4Addr >> shift));
        }
        return bytes;
    }
    for (const uint16_t group : address.ipv6Addr) {
        bytes.push_back(static_cast<uint8_t>(group >> 8));
        bytes.push_back(static_cast<uint8_t>(group));
    }
    return bytes;
}

bool AsksForAnother(const HostMbuf *packet, const std::vector<AddressBytes> &addresses) {
    const auto asked = AddressAskedFor(packet);
    return !addresses.empty() && !asked.empty() &&
           std::ranges::none_of(addresses, [&](const AddressBytes &address) {
               return std::ranges::equal(address, asked);
           });
}

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
