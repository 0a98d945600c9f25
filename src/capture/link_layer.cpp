#include "capture/link_layer.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <optional>

#include "capture/error.h"

namespace capture {
namespace {

using Bytes = std::span<const uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kTypeIpv6 = 0x86DD;
// Below this an Ethernet type is a length.
constexpr uint16_t kFirstType = 0x0600;
constexpr uint16_t kLongestLength = 1500;

// What the header of another link layer says.
struct Header {
    size_t length;  // bytes
    uint16_t etherType = kNoEtherType;
    Mac source = {};
    Mac destination = {};
};

uint16_t Read16(Bytes bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

// Of a frame of Linux, whose "protocol" is an Ethernet type as a rule.
uint16_t CookedType(uint16_t hardware, uint16_t protocol, size_t payload) {
    // Kinds of hardware whose frames follow whatever the protocol says: 802.11, Frame Relay,
    // Netlink.
    constexpr uint16_t kOwnFormat[] = {770, 801, 802, 803, 824};
    // IEEE 802.3 with its own length, and with IEEE 802.2 behind it.
    constexpr uint16_t kRaw8023 = 1, kLlc = 4;
    if (std::ranges::find(kOwnFormat, hardware) != std::end(kOwnFormat)) {
        return kNoEtherType;
    }
    if (protocol >= kFirstType) {
        return protocol;
    }
    const bool hasLength = (protocol == kRaw8023 || protocol == kLlc) && payload <= kLongestLength;
    return hasLength ? static_cast<uint16_t>(payload) : kNoEtherType;
}

// Where the two versions of Linux cooked frames have what.
struct CookedLayout {
    size_t length, protocol, hardware, packetType, packetTypeSize, addressSize, address;
};
constexpr CookedLayout kCooked = {16, 14, 2, 0, 2, 5, 6};
constexpr CookedLayout kCooked2 = {20, 0, 8, 10, 1, 11, 12};

Header ReadCooked(Bytes frame, const CookedLayout &layout, size_t wireLength) {
    constexpr uint8_t kBroadcast = 1;
    Header header = {.length = layout.length};
    header.etherType = CookedType(Read16(frame, layout.hardware), Read16(frame, layout.protocol),
                                  std::max(wireLength, frame.size()) - layout.length);
    if (frame[layout.addressSize] == header.source.size()) {
        std::copy_n(&frame[layout.address], header.source.size(), header.source.begin());
    }
    if (frame[layout.packetType + layout.packetTypeSize - 1] == kBroadcast) {
        header.destination.fill(0xFF);
    }
    return header;
}

Header ReadRawIp(Bytes frame) {
    const int version = frame.empty() ? 0 : frame[0] >> 4;
    return {.length = 0,
            .etherType = version == 4   ? kTypeIpv4
                         : version == 6 ? kTypeIpv6
                                        : kNoEtherType};
}

// The address family is a number of the system that captured, in its order of bytes.
Header ReadLoopback(Bytes frame) {
    constexpr size_t kFamilySize = 4;
    Header header = {.length = kFamilySize};
    const bool bigEndian = frame[0] == 0 && frame[1] == 0;
    switch (bigEndian ? Read16(frame, 2) : uint32_t{frame[1]} << 8 | frame[0]) {
        case 2:
            header.etherType = kTypeIpv4;
            break;
        case 10:  // of Linux; the others of systems named after BSD
        case 24:
        case 28:
        case 30:
            header.etherType = kTypeIpv6;
            break;
        default:
            break;
    }
    return header;
}

// The bytes that the header of a link type has; nothing for one that is not known.
std::optional<size_t> HeaderLength(int linkType) {
    switch (linkType) {
        case DLT_LINUX_SLL:
            return kCooked.length;
        case DLT_LINUX_SLL2:
            return kCooked2.length;
        case DLT_RAW:
        case DLT_IPV4:
        case DLT_IPV6:
            return 0;
        case DLT_NULL:
        case DLT_LOOP:
            return 4;
        default:
            return std::nullopt;
    }
}

Header ReadHeader(const Frame &frame, int linkType) {
    const size_t length = *HeaderLength(linkType);
    if (frame.bytes.size() < length) {
        return {.length = frame.bytes.size()};
    }
    switch (linkType) {
        case DLT_LINUX_SLL:
            return ReadCooked(frame.bytes, kCooked, frame.wireLength);
        case DLT_LINUX_SLL2:
            return ReadCooked(frame.bytes, kCooked2, frame.wireLength);
        case DLT_NULL:
        case DLT_LOOP:
            return ReadLoopback(frame.bytes);
        default:
            return ReadRawIp(frame.bytes);
    }
}

}  // namespace

std::string LinkTypeName(int linkType) {
    const char *name = pcap_datalink_val_to_description(linkType);
    return name != nullptr ? name : "link type " + std::to_string(linkType);
}

int LinkTypeOfFile(uint16_t number) {
    constexpr uint16_t kRawIpOfFiles = 101;  // systems do not agree on the other
    return number == kRawIpOfFiles ? DLT_RAW : number;
}

bool HasEthernetForm(int linkType) {
    return linkType == DLT_EN10MB || HeaderLength(linkType).has_value();
}

void RequireEthernetForm(int linkType) {
    if (!HasEthernetForm(linkType)) {
        throw Error("its frames are not Ethernet but " + LinkTypeName(linkType) +
                    "; Linux cooked, raw IP and BSD loopback are read besides");
    }
}

Frame AsEthernet(const Frame &frame, int linkType, std::vector<uint8_t> &room) {
    const Header header = ReadHeader(frame, linkType);
    room.clear();
    room.insert(room.end(), header.destination.begin(), header.destination.end());
    room.insert(room.end(), header.source.begin(), header.source.end());
    room.push_back(static_cast<uint8_t>(header.etherType >> 8));
    room.push_back(static_cast<uint8_t>(header.etherType));
    const Bytes payload = frame.bytes.subspan(header.length);
    room.insert(room.end(), payload.begin(), payload.end());
    const size_t missing = frame.MissingBytes();
    Frame ethernet = frame;
    ethernet.bytes = room;
    ethernet.wireLength =
        static_cast<uint32_t>(std::min<size_t>(room.size() + missing, UINT32_MAX));
    return ethernet;
}

}  // namespace capture
