// What an engine reads from a frame, and the buffers that frames arrive in.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engine_under_test.h"
#include "standin/channels.h"
#include "standin/engine_parts.h"
#include "standin/frame_parser.h"
#include "standin/mbuf_pool.h"

namespace standin {
namespace {

using Frame = std::vector<uint8_t>;

Frame FromHex(std::string_view hex) {
    std::string digits;
    std::ranges::copy_if(hex, std::back_inserter(digits), [](char c) { return c != ' '; });
    Frame frame;
    for (size_t i = 0; i < digits.size(); i += 2) {
        frame.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return frame;
}

#define MACS "020000000002 020000000001 "
#define IPV4_ADDRESSES "0A000001 C0A80102 "
#define UDP_HEADER "147E C001 000C0000 "
#define PAYLOAD "DEADBEEF "
#define IPV6_ADDRESSES "20010DB8000000000000000000000001 FE800000000000000000000A0B0C0D0E "
// Packets with a UDP header, by the first words of their own headers.
#define IPV4(start, fragment) \
    "0800 " start " " fragment " 40110000 " IPV4_ADDRESSES UDP_HEADER PAYLOAD
#define IPV6(start, next) "86DD " start " " next " " IPV6_ADDRESSES

constexpr uint8_t kIpv4 = HOST_PROTO_IPV4, kIpv6 = HOST_PROTO_IPV6, kOther = HOST_PROTO_OTHER;

struct Case {
    const char *name;
    const char *hex;  // behind the MAC addresses
    uint8_t proto;
    uint16_t etherType;
    uint32_t l2Length;
    uint32_t ipHeader;
    uint32_t ipProtocol;
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t padding;  // bytes trimmed
};

const Case kCases[] = {
    {"UDP over IPv4", IPV4("45000020", "00010000"), kIpv4, 0x0800, 14, 20, 17, 5246, 49153, 0},
    {"TCP over IPv4 with options, padded",
     "0800 47000020 00014000 40060000 " IPV4_ADDRESSES "94040000 01010101 14500050 " PAYLOAD, kIpv4,
     0x0800, 14, 28, 6, 5200, 80, 4},
    {"customer tag", "8100 0064" IPV4("45000020", "00010000"), kIpv4, 0x0800, 18, 20, 17, 5246,
     49153, 0},
    {"service and customer tag, padded",
     "88A8 0001 8100 0064" IPV4("45000020", "00010000") "000000", kIpv4, 0x0800, 22, 20, 17, 5246,
     49153, 3},
    {"first fragment", IPV4("45000020", "00012000"), kIpv4, 0x0800, 14, 20, 17, 5246, 49153, 0},
    {"later fragment", IPV4("45000020", "00010001"), kIpv4, 0x0800, 14, 20, 17, 0, 0, 0},
    {"IPv4 without ports", "0800 45000020 00010000 402F0000 " IPV4_ADDRESSES UDP_HEADER PAYLOAD,
     kIpv4, 0x0800, 14, 20, 47, 0, 0, 0},
    {"ports in the padding", "0800 45000017 00010000 40110000 " IPV4_ADDRESSES UDP_HEADER, kIpv4,
     0x0800, 14, 20, 17, 0, 0, 5},
    {"total below header", IPV4("45000013", "00010000"), kOther, 0x0800, 14, 0, 0, 0, 0, 0},
    {"header below minimum", IPV4("44000020", "00010000"), kOther, 0x0800, 14, 0, 0, 0, 0, 0},
    {"IPv4 type, version 6", IPV4("65000020", "00010000"), kOther, 0x0800, 14, 0, 0, 0, 0, 0},
    {"UDP over IPv6, padded", IPV6("60000000", "000C1140") UDP_HEADER PAYLOAD "0000", kIpv6, 0x86DD,
     14, 0, 17, 5246, 49153, 2},
    {"tagged TCP over IPv6", "8100 0FFF" IPV6("60000000", "00080640") "1450 0050 DEADBEEF", kIpv6,
     0x86DD, 18, 0, 6, 5200, 80, 0},
    {"IPv6 fragment header", IPV6("60000000", "00142C40") "11000001 00000001" UDP_HEADER PAYLOAD,
     kIpv6, 0x86DD, 14, 0, 44, 0, 0, 0},
    {"IPv6 jumbogram", IPV6("60000000", "00000040") "1100C204 00010008" UDP_HEADER PAYLOAD, kIpv6,
     0x86DD, 14, 0, 0, 0, 0, 0},
    {"IPv6 type, version 4", IPV6("40000000", "000C1140") UDP_HEADER PAYLOAD, kOther, 0x86DD, 14, 0,
     0, 0, 0, 0},
    {"WAI", "88B4 0001010000000000000C0000 DEADBEEF", kOther, 0x88B4, 14, 0, 0, 0, 0, 0},
    {"length instead of a type", "0026 424203000000", kOther, 0x0026, 14, 0, 0, 0, 0, 0},
};

Frame FrameOf(const Case &packet) {
    return FromHex(std::string(MACS) + packet.hex);
}

bool Equals(const uint8_t *mac, std::string_view hex) {
    return mac != nullptr && std::ranges::equal(std::span(mac, 6), FromHex(hex));
}

void ExpectParsed(const HostMbuf *mbuf, const Case &expected) {
    EXPECT_EQ(HostMbufGetProtoType(mbuf), expected.proto);
    EXPECT_EQ(HostMbufGetEthhdrTypeorlen(mbuf), expected.etherType);
    EXPECT_EQ(HostMbufGetL2HeadLength(mbuf), expected.l2Length);
    EXPECT_EQ(HostMbufGetIphdrHeadlen(mbuf), expected.ipHeader);
    EXPECT_EQ(HostMbufGetIphdrProtocol(mbuf), expected.ipProtocol);
    EXPECT_EQ(HostMbufGetL4SrcPort(mbuf), expected.srcPort);
    EXPECT_EQ(HostMbufGetL4DstPort(mbuf), expected.dstPort);
}

void ExpectAddresses(const HostMbuf *mbuf, uint8_t proto) {
    const bool ipv4 = proto == kIpv4, ipv6 = proto == kIpv6;
    EXPECT_EQ(HostMbufGetIphdrSrcIp(mbuf), ipv4 ? 0x0A000001u : 0u);
    EXPECT_EQ(HostMbufGetIphdrDstIp(mbuf), ipv4 ? 0xC0A80102u : 0u);
    using Words = std::array<uint32_t, 4>;
    const Words none{};
    const Words source{0x20010DB8, 0, 0, 1};
    const Words destination{0xFE800000, 0, 0x0000000A, 0x0B0C0D0E};
    EXPECT_TRUE(
        std::ranges::equal(std::span(HostMbufGetIp6hdrSrcip(mbuf), 4), ipv6 ? source : none));
    EXPECT_TRUE(
        std::ranges::equal(std::span(HostMbufGetIp6hdrDstip(mbuf), 4), ipv6 ? destination : none));
}

TEST(FrameParser, ReadsEachKindOfFrame) {
    const auto pool = MakeBuffers(1);
    for (const Case &expected : kCases) {
        SCOPED_TRACE(expected.name);
        const Frame frame = FrameOf(expected);
        HostMbuf *mbuf = pool->Receive(frame, {});
        ExpectParsed(mbuf, expected);
        ExpectAddresses(mbuf, expected.proto);
        EXPECT_TRUE(Equals(HostMbufGetDstMac(mbuf), "020000000002"));
        EXPECT_TRUE(Equals(HostMbufGetSrcMac(mbuf), "020000000001"));
        EXPECT_EQ(mbuf->pktLen, frame.size() - expected.padding);
        EXPECT_EQ(mbuf->dataLen, mbuf->pktLen);
        EXPECT_TRUE(std::ranges::equal(FrameAsReceived(mbuf), frame));
        Release({&mbuf, 1});
    }
}

// A frame cut off anywhere is delivered with what is there, and nothing is made up.
TEST(FrameParser, ReadsWhatACutOffFrameStillHas) {
    const auto pool = MakeBuffers(1);
    for (const Case &whole : kCases) {
        const Frame frame = FrameOf(whole);
        const uint32_t ipHeader = whole.proto == kIpv6 ? 40 : whole.ipHeader;
        for (size_t length = 0; length < frame.size() - whole.padding; ++length) {
            SCOPED_TRACE(whole.name + std::string(" cut to ") + std::to_string(length));
            HostMbuf *mbuf = pool->Receive(std::span(frame).first(length), {});
            Case expected = whole;
            if (length < whole.l2Length) {
                expected.etherType = 0, expected.l2Length = 0;
            }
            if (length < whole.l2Length + ipHeader) {
                expected.proto = kOther, expected.ipHeader = 0, expected.ipProtocol = 0;
            }
            if (length < whole.l2Length + ipHeader + 4) {
                expected.srcPort = 0, expected.dstPort = 0;
            }
            ExpectParsed(mbuf, expected);
            ExpectAddresses(mbuf, expected.proto);
            EXPECT_EQ(HostMbufGetSrcMac(mbuf) != nullptr, length >= 12);
            EXPECT_EQ(HostMbufGetDstMac(mbuf) != nullptr, length >= 12);
            EXPECT_EQ(mbuf->pktLen, length);
            Release({&mbuf, 1});
        }
    }
}

TEST(FrameParser, CountsTagsUpToTheWidthOfTheLayer2Length) {
    const auto pool = MakeBuffers(1);
    for (const size_t tags : {60u, 61u}) {
        Frame frame = FromHex(MACS);
        for (size_t tag = 0; tag < tags; ++tag) {
            std::ranges::copy(FromHex("81000001"), std::back_inserter(frame));
        }
        std::ranges::copy(FromHex("0800 45000014 00010000 40110000 " IPV4_ADDRESSES),
                          std::back_inserter(frame));
        HostMbuf *mbuf = pool->Receive(frame, {});
        EXPECT_EQ(HostMbufGetProtoType(mbuf), tags == 60 ? kIpv4 : kOther);
        EXPECT_EQ(HostMbufGetL2HeadLength(mbuf), tags == 60 ? 254u : 0u);
        Release({&mbuf, 1});
    }
}

// The private area is found behind the record in any allocator's buffers, and the data wherever
// the record says.
TEST(FrameParser, ReadsForeignBuffers) {
    struct Foreign {
        HostMbuf record{};
        HostMbufMeta meta{};
    } foreign;
    Frame frame = FrameOf(kCases[3]);
    foreign.record.bufAddr = frame.data();
    foreign.record.dataLen = static_cast<uint16_t>(frame.size());
    foreign.record.pktLen = static_cast<uint32_t>(frame.size()) + 100;
    foreign.record.nbSegs = 2;
    ParseFrame(&foreign.record);
    ExpectParsed(&foreign.record, kCases[3]);
    EXPECT_EQ(foreign.meta.dstPort, 49153);
    EXPECT_EQ(foreign.record.pktLen, frame.size() + 100) << "only single segments are trimmed";
}

// Whatever was left in a buffer, the next packet in it has none of it.
TEST(Buffers, MarksGoWithTheirPacket) {
    const auto pool = MakeBuffers(1);
    const Frame frame = FrameOf(kCases[0]);
    HostMbuf *mbuf = pool->Receive(frame, {.rxPort = 70000, .vrf = 9, .diagnose = true});
    EXPECT_EQ(HostMbufGetReceivePortIndex(mbuf), 70000u);
    EXPECT_EQ(HostMbufGetReceiveVrfIndex(mbuf), 9u);
    Release({&mbuf, 1});

    mbuf = pool->Receive(frame, {});
    HostMbuf fresh = *mbuf;
    std::memset(static_cast<uint8_t *>(mbuf->bufAddr), 0xEE, mbuf->bufLen);
    std::memset(static_cast<void *>(&MetaOf(mbuf)), 0xEE, sizeof(HostMbufMeta));
    mbuf->dataOff = mbuf->port = mbuf->dataLen = mbuf->vlanTci = 0xEEEE;
    mbuf->pktLen = mbuf->packetType = 0xEEEEEEEE;
    mbuf->olFlags = 0xEE;
    Release({&mbuf, 1});
    mbuf = pool->Receive(frame, {});
    fresh.bufAddr = mbuf->bufAddr;
    EXPECT_EQ(std::memcmp(mbuf, &fresh, sizeof fresh), 0);
    ExpectParsed(mbuf, kCases[0]);
    EXPECT_TRUE(std::ranges::equal(FrameAsReceived(mbuf), frame));
    const HostMbufMeta &meta = MetaOf(mbuf);
    EXPECT_EQ(meta.needTrace | meta.needStat | meta.causeAction | meta.causeId | meta.vrf, 0u);
    EXPECT_EQ(HostMbufGetReceivePortIndex(mbuf) | HostMbufGetOeIfIndex(mbuf), 0u);
    EXPECT_EQ(HostMbufGetHostDiagSwitch(mbuf), 0);
    EXPECT_EQ(HostMbufGetLbKey(mbuf), HOST_LB_KEY_NONE);
    Release({&mbuf, 1});
}

// Buffers that threads take and others release: none is two packets' at once, none is lost, and all
// can be had by one thread in the end.
TEST(Buffers, TravelBetweenThreads) {
    constexpr uint32_t kBuffers = 300;
    constexpr uint32_t kPackets = 20000;
    const auto pool = MakeBuffers(kBuffers);
    const uint32_t channel = OpenChannel("chn/buffers", kBuffers);
    const auto take = [&](uint8_t thread) {
        for (uint32_t i = 0; i < kPackets; ++i) {
            const Frame frame(i % 2000 == 0 ? 5000 : 60, thread);
            HostMbuf *mbuf = pool->Receive(frame, {});
            while (TOV_ChannelDcSend(channel, mbuf, 1000) != 0) {
                std::this_thread::yield();
            }
        }
    };
    const auto release = [&] {
        for (uint32_t left = kPackets; left > 0;) {
            if (HostMbuf *mbuf = ReceiveFromChannel(channel)) {
                const std::span<const uint8_t> frame = FrameAsReceived(mbuf);
                EXPECT_TRUE(std::ranges::all_of(frame, [&](auto b) { return b == frame[0]; }));
                Release({&mbuf, 1});
                --left;
            }
        }
    };
    std::thread threads[] = {std::thread(take, 1), std::thread(take, 2), std::thread(release),
                             std::thread(release)};
    std::ranges::for_each(threads, &std::thread::join);
    CloseChannel(channel);
    EXPECT_EQ(pool->InUse(), 0u);
    std::vector<HostMbuf *> all(kBuffers);
    std::ranges::generate(all, [&] { return pool->Receive(FromHex(MACS), {}); });
    EXPECT_EQ(pool->InUse(), kBuffers);
    Release(all);
}

}  // namespace
}  // namespace standin
