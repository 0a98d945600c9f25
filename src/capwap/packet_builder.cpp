#include "capwap/packet_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "capwap/wire.h"

namespace capwap {
namespace {

constexpr uint16_t kEtherTypeIpv4 = 0x0800, kEtherTypeIpv6 = 0x86DD;
constexpr uint16_t kTpidCustomer = 0x8100, kTpidService = 0x88A8;
constexpr uint8_t kProtocolIcmp = 1, kProtocolUdp = 17, kProtocolFragment = 44;
constexpr size_t kEthernetMinimum = 60, kUdpHeader = 8, kIpv4Header = 20, kIpv6Header = 40;
constexpr uint16_t kSessionIdElement = 35;

// Which part of a datagram an IP header is for.
struct Part {
    size_t offset = 0;  // in bytes
    bool more = false;
    bool Whole() const {
        return offset == 0 && !more;
    }
    // The offset as both families store it: in units of 8 bytes, in 13 bits.
    uint32_t Units() const {
        return static_cast<uint32_t>(offset / 8);
    }
};

uint32_t Sum16(std::span<const uint8_t> bytes, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    }
    if (bytes.size() % 2 != 0) {
        sum += static_cast<uint32_t>(bytes.back() << 8);
    }
    return sum;
}

// The ones' complement of a ones' complement sum (RFC 1071).
uint16_t Checksum(uint32_t sum) {
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

template <size_t size>
uint32_t SumWords(const std::array<uint32_t, size> &words) {
    uint32_t sum = 0;
    for (uint32_t word : words) {
        sum += (word >> 16) + (word & 0xFFFF);
    }
    return sum;
}

bool IsIpv6(const FrameSpec &spec) {
    return spec.ipv6 || spec.srcIp6 != Ipv6Words{} || spec.dstIp6 != Ipv6Words{};
}

bool IsRaw(const FrameSpec &spec) {
    return spec.etherType != 0 && !IsIpv6(spec) && spec.srcIp == 0 && spec.dstIp == 0;
}

uint32_t PseudoHeaderSum(const FrameSpec &spec, uint32_t length) {
    if (spec.ipProtocol == kProtocolIcmp) {
        return 0;
    }
    uint32_t addresses = IsIpv6(spec) ? SumWords(spec.srcIp6) + SumWords(spec.dstIp6)
                                      : SumWords(std::array{spec.srcIp, spec.dstIp});
    return addresses + spec.ipProtocol + length;
}

void PutUdp(Writer &out, const FrameSpec &spec) {
    size_t start = out.Size();
    size_t honest = kUdpHeader + spec.payload.size();
    if (honest > 0xFFFF) {
        throw std::length_error("no UDP datagram has " + std::to_string(spec.payload.size()) +
                                " bytes of payload");
    }
    auto length = static_cast<uint16_t>(static_cast<int>(honest) + spec.udpLengthError);
    out.U16(spec.srcPort).U16(spec.dstPort).U16(length).U16(0).Raw(spec.payload);
    if (!spec.udpChecksum) {
        return;
    }
    auto covered = out.From(start);
    covered = covered.first(std::min<size_t>(length, covered.size()));
    uint16_t checksum = Checksum(Sum16(covered, PseudoHeaderSum(spec, length)));
    out.Patch16(start + 6, checksum == 0 ? 0xFFFF : checksum);
}

void PutOther(Writer &out, const FrameSpec &spec) {
    size_t start = out.Size();
    out.Raw(spec.payload);
    if (!spec.checksumAt) {
        return;
    }
    auto length = static_cast<uint32_t>(spec.payload.size());
    out.Patch16(start + *spec.checksumAt, 0);
    out.Patch16(start + *spec.checksumAt,
                Checksum(Sum16(out.From(start), PseudoHeaderSum(spec, length))));
}

// What the IP header carries: all that can be cut into fragments.
Bytes IpPayload(const FrameSpec &spec) {
    Writer out;
    out.Reserve(spec.ipv6Extension.size() + kUdpHeader + spec.payload.size());
    if (IsIpv6(spec)) {
        out.Raw(spec.ipv6Extension);
    }
    if (spec.ipProtocol == kProtocolUdp) {
        PutUdp(out, spec);
    } else {
        PutOther(out, spec);
    }
    return out.Take();
}

void PutEthernet(Writer &out, const FrameSpec &spec, uint16_t etherType) {
    out.Raw(spec.dstMac).Raw(spec.srcMac);
    for (size_t i = 0; i < spec.vlans.size(); i++) {
        bool last = i + 1 == spec.vlans.size();
        out.U16(last ? kTpidCustomer : kTpidService).U16(spec.vlans[i]);
    }
    out.U16(etherType);
}

void PutIpv4(Writer &out, const FrameSpec &spec, size_t payloadLength, Part part) {
    size_t start = out.Size();
    size_t header = kIpv4Header + spec.ipv4Options.size();
    if (header > 60 || header % 4 != 0 || header + payloadLength > 0xFFFF) {
        throw std::length_error("no IPv4 packet has " + std::to_string(header) +
                                " bytes of header and " + std::to_string(payloadLength) +
                                " of payload");
    }
    out.U8(static_cast<uint32_t>(0x40 | header / 4)).U8(0);
    out.U16(static_cast<uint32_t>(header + payloadLength)).U16(spec.ipId);
    out.U16((part.more ? 0x2000 : 0) | part.Units());
    out.U8(spec.ttl).U8(spec.ipProtocol).U16(0).U32(spec.srcIp).U32(spec.dstIp);
    out.Raw(spec.ipv4Options);
    out.Patch16(start + 10, Checksum(Sum16(out.From(start))));
}

void PutIpv6(Writer &out, const FrameSpec &spec, size_t payloadLength, Part part) {
    size_t length = payloadLength + (part.Whole() ? 0 : 8);
    if (length > 0xFFFF) {
        throw std::length_error("no IPv6 packet has " + std::to_string(length) +
                                " bytes of payload");
    }
    uint8_t first = spec.ipv6Extension.empty() ? spec.ipProtocol : spec.ipv6ExtensionType;
    out.U32(0x60000000).U16(static_cast<uint32_t>(length));
    out.U8(part.Whole() ? first : kProtocolFragment).U8(spec.ttl);
    out.Words(spec.srcIp6).Words(spec.dstIp6);
    if (!part.Whole()) {
        out.U8(first).U8(0).U16(part.Units() << 3 | part.more).U32(spec.ipId);
    }
}

Bytes IpFrame(const FrameSpec &spec, std::span<const uint8_t> payload, Part part) {
    Writer out;
    out.Reserve(14 + 4 * spec.vlans.size() + kIpv6Header + 8 + spec.ipv4Options.size() +
                payload.size());
    if (IsIpv6(spec)) {
        PutEthernet(out, spec, kEtherTypeIpv6);
        PutIpv6(out, spec, payload.size(), part);
    } else {
        PutEthernet(out, spec, kEtherTypeIpv4);
        PutIpv4(out, spec, payload.size(), part);
    }
    out.Raw(payload);
    if (spec.padToMinimum) {
        out.PadTo(kEthernetMinimum);
    }
    return out.Take();
}

// An optional header: a length, its content, zeros to a multiple of 4 bytes.
void PutOptionalHeader(Writer &out, std::span<const uint8_t> content) {
    size_t start = out.Size();
    out.U8(static_cast<uint32_t>(content.size())).Raw(content);
    out.PadTo(start + (1 + content.size() + 3) / 4 * 4);
}

}  // namespace

uint32_t Ipv4(std::string_view text) {
    in_addr address;
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) {
        throw std::invalid_argument("not an IPv4 address: " + std::string(text));
    }
    return ntohl(address.s_addr);
}

Ipv6Words Ipv6(std::string_view text) {
    Ipv6Words words;
    if (inet_pton(AF_INET6, std::string(text).c_str(), words.data()) != 1) {
        throw std::invalid_argument("not an IPv6 address: " + std::string(text));
    }
    for (uint32_t &word : words) {
        word = ntohl(word);
    }
    return words;
}

Bytes EncodeHeader(const Header &header) {
    Writer optional;
    if (header.radioMac) {
        PutOptionalHeader(optional, *header.radioMac);
    }
    if (!header.wirelessInfo.empty()) {
        PutOptionalHeader(optional, header.wirelessInfo);
    }
    size_t needed = optional.Size() == 0 ? 0 : 2 + optional.Size() / 4;
    uint32_t words = std::max(static_cast<uint32_t>(needed), header.hlenWords & 0x1Fu);

    Writer out;
    out.U8(header.preambleType & 0x0Fu);
    out.U8(words << 3 | (header.radioId & 0x1Fu) >> 2);
    out.U8((header.radioId & 3u) << 6 | (header.wbid & 0x1Fu) << 1 | header.nativeFrame);
    const std::pair<bool, uint32_t> flagBits[] = {{header.fragment, 0x80},
                                                  {header.lastFragment, 0x40},
                                                  {!header.wirelessInfo.empty(), 0x20},
                                                  {header.radioMac.has_value(), 0x10},
                                                  {header.keepalive, 0x08},
                                                  {header.extension, 0x04}};
    uint32_t flags = 0;
    for (auto [set, bit] : flagBits) {
        flags |= set ? bit : 0;
    }
    out.U8(flags);
    out.U16(header.fragmentId).U16(static_cast<uint32_t>(header.fragmentOffset << 3));
    out.Raw(optional.From(0)).PadTo(size_t{4} * words);
    return out.Take();
}

Bytes Element(uint16_t type, std::span<const uint8_t> value) {
    return Writer().U16(type).U16(static_cast<uint32_t>(value.size())).Raw(value).Take();
}

Bytes ControlMessage(uint32_t messageType, uint8_t sequence, std::span<const uint8_t> elements,
                     const Header &header) {
    // The length counts itself and the flags behind it (RFC 5415, section 4.5.1.3).
    auto length = static_cast<uint32_t>(3 + elements.size());
    return Writer()
        .Raw(EncodeHeader(header))
        .U32(messageType)
        .U8(sequence)
        .U16(length)
        .U8(0)
        .Raw(elements)
        .Take();
}

Bytes Keepalive(const SessionId &session, Header header) {
    header.keepalive = true;
    Bytes element = Element(kSessionIdElement, Writer().Words(session).Take());
    // The length counts itself (RFC 5415, section 4.4.1).
    auto length = static_cast<uint32_t>(2 + element.size());
    return Writer().Raw(EncodeHeader(header)).U16(length).Raw(element).Take();
}

Bytes DtlsRecord(uint8_t contentType, std::span<const uint8_t> fragment, uint64_t sequence) {
    constexpr uint32_t kDtlsHeader = 0x01000000, kDtls12 = 0xFEFD;
    return Writer()
        .U32(kDtlsHeader)
        .U8(contentType)
        .U16(kDtls12)
        .U64(sequence)
        .U16(static_cast<uint32_t>(fragment.size()))
        .Raw(fragment)
        .Take();
}

Bytes DataFrame(std::span<const uint8_t> frame, const Header &header) {
    return Writer().Raw(EncodeHeader(header)).Raw(frame).Take();
}

Bytes ExtendedDataFrame(std::span<const ExtensionElement> elements, std::span<const uint8_t> frame,
                        Header header) {
    header.extension = true;
    Writer run;
    for (const ExtensionElement &element : elements) {
        run.U16(element.type)
            .U16(static_cast<uint32_t>(4 + element.value.size()))
            .Raw(element.value);
    }
    return Writer()
        .Raw(EncodeHeader(header))
        .U32(static_cast<uint32_t>(4 + run.Size()))
        .Raw(run.From(0))
        .Raw(frame)
        .Take();
}

FrameSpec UdpFrame(std::string_view src, uint16_t srcPort, std::string_view dst, uint16_t dstPort,
                   Bytes payload) {
    FrameSpec spec = {.srcPort = srcPort, .dstPort = dstPort, .payload = std::move(payload)};
    spec.ipv6 = src.find(':') != std::string_view::npos;
    if (spec.ipv6) {
        spec.srcIp6 = Ipv6(src);
        spec.dstIp6 = Ipv6(dst);
    } else {
        spec.srcIp = Ipv4(src);
        spec.dstIp = Ipv4(dst);
    }
    return spec;
}

Bytes BuildFrame(const FrameSpec &spec) {
    if (!IsRaw(spec)) {
        return IpFrame(spec, IpPayload(spec), {});
    }
    Writer out;
    PutEthernet(out, spec, spec.etherType);
    out.Raw(spec.payload);
    if (spec.padToMinimum) {
        out.PadTo(kEthernetMinimum);
    }
    return out.Take();
}

std::vector<Bytes> BuildFragments(const FrameSpec &spec, uint16_t fragmentPayload) {
    if (fragmentPayload == 0 || fragmentPayload % 8 != 0) {
        throw std::invalid_argument("not a multiple of 8 for fragments: " +
                                    std::to_string(fragmentPayload));
    }
    Bytes payload = IpPayload(spec);
    std::vector<Bytes> frames;
    std::span<const uint8_t> rest = payload;
    do {
        size_t size = std::min<size_t>(rest.size(), fragmentPayload);
        Part part = {.offset = payload.size() - rest.size(), .more = size < rest.size()};
        frames.push_back(IpFrame(spec, rest.first(size), part));
        rest = rest.subspan(size);
    } while (!rest.empty());
    return frames;
}

}  // namespace capwap
