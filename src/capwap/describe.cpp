#include "capwap/describe.h"

#include <algorithm>
#include <optional>

#include "capwap/message_type.h"
#include "capwap/packet_builder.h"

namespace capwap {
namespace {

constexpr Content Words(std::string_view words) {
    return {words, std::nullopt};
}

constexpr Content kDamaged = Words("damaged"), kForeign = Words("not CAPWAP"),
                  kFragment = Words("IP fragment");

// Reads fields in network order. Reading past the end gives zeros and is remembered.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> bytes) : left_(bytes) {}

    uint32_t U8() {
        auto byte = Take(1);
        return byte.empty() ? 0 : byte[0];
    }
    uint32_t U16() {
        uint32_t high = U8();
        return high << 8 | U8();
    }
    uint32_t U32() {
        uint32_t high = U16();
        return high << 16 | U16();
    }
    // The next `size` bytes, or none when there are fewer.
    std::span<const uint8_t> Take(size_t size) {
        if (size > left_.size()) {
            failed_ = true;
            left_ = {};
            return {};
        }
        auto taken = left_.first(size);
        left_ = left_.subspan(size);
        return taken;
    }
    std::span<const uint8_t> Left() const {
        return left_;
    }
    bool Failed() const {
        return failed_;
    }

  private:
    std::span<const uint8_t> left_;
    bool failed_ = false;
};

// A run of message elements (RFC 5415, section 4.6), to its last byte.
bool AreElements(std::span<const uint8_t> run) {
    Reader in(run);
    while (!in.Left().empty() && !in.Failed()) {
        in.U16();
        in.Take(in.U16());
    }
    return !in.Failed();
}

Content DescribeDtls(Reader in) {
    in.Take(3);  // the rest of the CAPWAP DTLS header
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

Content DescribeControl(Reader in) {
    uint32_t type = in.U32();
    in.U8();  // sequence number
    uint32_t length = in.U16();
    in.U8();  // flags
    // The length counts itself and the flags.
    if (in.Failed() || in.Left().size() + 3 != length || !AreElements(in.Left())) {
        return kDamaged;
    }
    std::string_view name = MessageTypeName(type);
    return name.empty() ? Content{"message type ", type} : Words(name);
}

Content DescribeKeepalive(Reader in) {
    constexpr uint32_t kLength = 22, kSessionId = 35, kSessionIdLength = 16;
    bool right = in.U16() == kLength && in.U16() == kSessionId && in.U16() == kSessionIdLength &&
                 in.Left().size() == kSessionIdLength;
    return right ? Words("Data keepalive") : kDamaged;
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
    Reader in(payload);
    uint32_t preamble = in.U8();
    if (in.Failed() || preamble > 1) {
        return kDamaged;
    }
    if (preamble == 1) {
        return DescribeDtls(in);
    }

    uint32_t hlen = in.U8() >> 3;
    in.U8();
    uint32_t flags = in.U8();
    bool fragment = (flags & 0x80) != 0, keepalive = (flags & 0x08) != 0,
         extension = (flags & 0x04) != 0;
    in.U16();
    in.U16();
    if (hlen < 2) {
        return kDamaged;
    }
    in.Take(4 * hlen - 8);
    if (in.Failed()) {
        return kDamaged;
    }
    if (fragment) {
        return Words("CAPWAP fragment");
    }
    if (control) {
        return DescribeControl(in);
    }
    if (keepalive) {
        return DescribeKeepalive(in);
    }
    return !extension || StartsWithExtension(in) ? Words("Data") : kDamaged;
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
