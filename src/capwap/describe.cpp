#include "capwap/describe.h"

#include <algorithm>
#include <optional>

#include "capwap/message.h"
#include "capwap/message_type.h"
#include "capwap/packet_builder.h"
#include "capwap/wire.h"

namespace capwap {
namespace {

constexpr Content Words(std::string_view words) {
    return {words, std::nullopt};
}

constexpr Content kDamaged = Words("damaged"), kForeign = Words("not CAPWAP"),
                  kFragment = Words("IP fragment");

Content DescribeDtls(Reader in) {
    uint32_t contentType = in.U8();
    in.Take(10);  // version, epoch and sequence number
    in.Take(in.U16());
    if (in.Failed()) {
        return kDamaged;
    }
    switch (contentType) {
        case 20:
            return Words("DTLS change cipher spec");
        case 21:
            return Words("DTLS alert");
        case 22:
            return Words("DTLS handshake");
        case 23:
            return Words("DTLS application data");
        default:
            return {"DTLS content type ", contentType};
    }
}

Content DescribeControl(std::span<const uint8_t> rest) {
    const std::optional<Message> message = ReadMessage(rest);
    if (!message) {
        return kDamaged;
    }
    std::string_view name = MessageTypeName(message->type);
    return name.empty() ? Content{"message type ", message->type} : Words(name);
}

Content DescribeKeepalive(std::span<const uint8_t> rest) {
    return ReadKeepalive(rest) ? Words("Data keepalive") : kDamaged;
}

// The extension header: its length, which counts itself, and elements whose lengths do too.
bool StartsWithExtension(Reader in) {
    uint32_t total = in.U32();
    if (total < 4) {
        return false;
    }
    Reader elements(in.Take(total - 4));
    while (!elements.Left().empty() && !elements.Failed()) {
        elements.U16();
        uint32_t length = elements.U16();
        if (length < 4) {
            return false;
        }
        elements.Take(length - 4);
    }
    return !in.Failed() && !elements.Failed();
}

Content DescribeCapwap(std::span<const uint8_t> payload, bool control) {
    const std::optional<Unwrapped> packet = ReadHeader(payload);
    if (!packet) {
        return kDamaged;
    }
    if (packet->dtls) {
        return DescribeDtls(Reader(packet->rest));
    }
    if (packet->fragment) {
        return Words("CAPWAP fragment");
    }
    if (control) {
        return DescribeControl(packet->rest);
    }
    if (packet->keepalive) {
        return DescribeKeepalive(packet->rest);
    }
    const bool whole = !packet->extension || StartsWithExtension(Reader(packet->rest));
    return whole ? Words("Data") : kDamaged;
}

Content DescribeUdp(std::span<const uint8_t> datagram) {
    Reader in(datagram);
    uint32_t ports[] = {in.U16(), in.U16()};
    uint32_t length = in.U16();
    in.U16();  // checksum
    bool control = std::ranges::find(ports, kControlPort) != std::end(ports);
    bool data = std::ranges::find(ports, kDataPort) != std::end(ports);
    if (in.Failed() || length != datagram.size()) {
        return kDamaged;
    }
    return control || data ? DescribeCapwap(in.Left(), control) : kForeign;
}

Content DescribeIpv4(Reader in) {
    std::span<const uint8_t> packet = in.Left();
    uint32_t versionAndLength = in.U8();
    in.U8();
    uint32_t total = in.U16();
    in.U16();
    uint32_t fragment = in.U16() & 0x3FFF;  // MF and the offset
    in.U8();
    uint32_t protocol = in.U8();
    size_t header = size_t{4} * (versionAndLength & 0x0F);
    if (in.Failed() || versionAndLength >> 4 != 4 || header < 20 || total < header ||
        total > packet.size()) {
        return kDamaged;
    }
    if (fragment != 0) {
        return kFragment;
    }
    return protocol == 17 ? DescribeUdp(packet.first(total).subspan(header)) : kForeign;
}

Content DescribeIpv6(Reader in) {
    uint32_t version = in.U32() >> 28;
    uint32_t length = in.U16();
    uint32_t next = in.U8();
    in.U8();
    in.Take(32);
    Reader payload(in.Take(length));
    if (in.Failed() || version != 6) {
        return kDamaged;
    }
    constexpr uint32_t kHopByHop = 0, kRouting = 43, kFragmentHeader = 44, kDestination = 60;
    while (next == kHopByHop || next == kRouting || next == kDestination) {
        next = payload.U8();
        payload.Take(6 + size_t{8} * payload.U8());
        if (payload.Failed()) {
            return kDamaged;
        }
    }
    if (next == kFragmentHeader) {
        return kFragment;
    }
    return next == 17 ? DescribeUdp(payload.Left()) : kForeign;
}

}  // namespace

std::string Content::ToText() const {
    return std::string(words) + (number ? std::to_string(*number) : "");
}

std::string Describe(std::span<const uint8_t> frame) {
    return ContentOf(frame).ToText();
}

Content ContentOf(std::span<const uint8_t> frame) {
    Reader in(frame);
    in.Take(12);  // MAC addresses
    uint32_t etherType = in.U16();
    while (etherType == 0x8100 || etherType == 0x88A8) {
        in.U16();
        etherType = in.U16();
    }
    if (in.Failed()) {
        return kDamaged;
    }
    switch (etherType) {
        case 0x88B4:
            return Words("WAPI");
        case 0x0800:
            return DescribeIpv4(in);
        case 0x86DD:
            return DescribeIpv6(in);
        default:
            return kForeign;
    }
}

}  // namespace capwap
