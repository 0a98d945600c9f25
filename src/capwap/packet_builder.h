// Builds frames of CAPWAP traffic (RFC 5415), well-formed ones and, on request, damaged ones.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace capwap {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;
using Ipv6Words = std::array<uint32_t, 4>;  // host order, the most significant first
using SessionId = std::array<uint32_t, 4>;  // host order, in the element's order

constexpr uint16_t kControlPort = 5246;
constexpr uint16_t kDataPort = 5247;

// Parses "10.0.0.1" or "2001:db8::1"; throws std::invalid_argument naming any other text.
uint32_t Ipv4(std::string_view text);
Ipv6Words Ipv6(std::string_view text);

// The CAPWAP header (RFC 5415, section 4.3).
struct Header {
    uint8_t preambleType = 0;   // 0 CAPWAP header, 1 CAPWAP DTLS header
    uint8_t hlenWords = 2;      // HLEN, grown as the optional headers below need; what it counts
                                // beyond them is zeros, and below 2 it lies about the fixed 8 bytes
    bool fragment = false;      // F
    bool lastFragment = false;  // L
    bool keepalive = false;     // K
    bool extension = false;     // the first of the reserved flags: an extension header follows
    bool nativeFrame = false;   // T
    uint8_t wbid = 1;           // IEEE 802.11
    uint16_t fragmentId = 0;
    uint16_t fragmentOffset = 0;       // in units of 8 bytes
    uint8_t radioId = 0;               // 0 where no radio is meant
    std::optional<Mac> radioMac = {};  // sets M
    Bytes wirelessInfo = {};           // sets W unless empty; at most 255 bytes
};

Bytes EncodeHeader(const Header &header);

// A message element (RFC 5415, section 4.6).
Bytes Element(uint16_t type, std::span<const uint8_t> value);

// UDP payloads.
Bytes ControlMessage(uint32_t messageType, uint8_t sequence, std::span<const uint8_t> elements,
                     const Header &header = {});
Bytes Keepalive(const SessionId &session, Header header = {.wbid = 0});  // sets K
// A record behind a CAPWAP DTLS header; the sequence number is led by its 16-bit epoch.
Bytes DtlsRecord(uint8_t contentType, std::span<const uint8_t> fragment, uint64_t sequence = 0);
Bytes DataFrame(std::span<const uint8_t> frame, const Header &header = {});
// A data packet with the extension header that carries the elements given (type, value).
struct ExtensionElement {
    uint16_t type;
    Bytes value;
};
Bytes ExtendedDataFrame(std::span<const ExtensionElement> elements, std::span<const uint8_t> frame,
                        Header header = {});

// One frame, from the outside in. Addresses decide the family; a UDP payload gets its UDP header
// with a right checksum, any other protocol's payload starts with its header. Fields left alone
// are sensible.
struct FrameSpec {
    Mac srcMac = {0x02, 0, 0, 0, 0, 0x01};
    Mac dstMac = {0x02, 0, 0, 0, 0, 0x02};
    std::vector<uint16_t> vlans = {};  // outermost first; all but the last use 802.1ad
    uint16_t etherType = 0;            // used when there are no addresses
    bool ipv6 = false;
    uint32_t srcIp = 0, dstIp = 0;  // IPv4, host order
    Ipv6Words srcIp6 = {}, dstIp6 = {};
    Bytes ipv4Options = {};    // a multiple of 4 bytes
    Bytes ipv6Extension = {};  // whole extension headers; the first one's type:
    uint8_t ipv6ExtensionType = 0;
    uint8_t ipProtocol = 17;
    uint8_t ttl = 64;
    uint16_t ipId = 0;
    uint16_t srcPort = kControlPort;
    uint16_t dstPort = kControlPort;
    Bytes payload = {};  // behind UDP or IP; behind Ethernet when there are no addresses
    std::optional<size_t> checksumAt = {};  // where the payload of TCP, ICMP or ICMPv6 has its
                                            // checksum, which is filled in
    bool padToMinimum = true;               // Ethernet's 60 bytes
    bool udpChecksum = true;                // CAPWAP over IPv4 goes without (RFC 5415, section 3.1)
    int udpLengthError = 0;  // added to the UDP length field: damage; the checksum covers what
                             // the field announces, as far as it is there
};

// A datagram between two addresses of one family, given as texts.
FrameSpec UdpFrame(std::string_view src, uint16_t srcPort, std::string_view dst, uint16_t dstPort,
                   Bytes payload);

// The frame's bytes. Without addresses (etherType set): Ethernet and payload alone. Throws
// std::length_error when a length does not fit its field.
Bytes BuildFrame(const FrameSpec &spec);

// The frame as IP fragments whose IP payloads are at most `fragmentPayload` bytes (a multiple of 8,
// or std::invalid_argument), IPv6 fragment headers not counted; whole when it fits. IPv6 extension
// headers travel inside the fragments.
std::vector<Bytes> BuildFragments(const FrameSpec &spec, uint16_t fragmentPayload);

}  // namespace capwap
