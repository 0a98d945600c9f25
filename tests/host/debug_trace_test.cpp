// The debug trace: its configuration, its packet filter, and the summary lines of packets.
#include "dfx/debug_trace.h"

#include <cstring>

#include "host_fixture.h"
#include "packet/capwap_header.h"

using namespace host_test;
using capwap::Bytes;
using capwap::FrameSpec;

namespace {

const Bytes kEcho = capwap::ControlMessage(13, 1, {});

FrameSpec Ipv4Control(Bytes payload = kEcho) {
    return UdpFrame("10.0.10.1", 40000, "10.0.0.1", 5246, std::move(payload));
}

FrameSpec Ipv6Control(Bytes payload = kEcho) {
    return UdpFrame("2001:db8:1:203::a:1", 40000, "2001:db8::1", 5246, std::move(payload));
}

// A filter in words; null and 0 stand for any.
struct Filter {
    const char *src = nullptr;
    const char *dst = nullptr;
    uint32_t srcPort = 0, dstPort = 0, type = 0;

    LyrKesDebugTraceReq Request() const {
        LyrKesDebugTraceReq request = {};
        request.debugLevel = 3;
        request.srcAddr = Address(src != nullptr ? src : "0.0.0.0");
        request.dstAddr = Address(dst != nullptr ? dst : "0.0.0.0");
        request.srcPort = srcPort;
        request.dstPort = dstPort;
        request.capwapMsgType = type;
        return request;
    }
};

class DebugTraceTest : public EngineTest {
  protected:
    static void Use(const Filter &filter) {
        LyrKes_DebugTraceConfigClear();
        const LyrKesDebugTraceReq request = filter.Request();
        LyrKes_DebugTraceConfigUpdate(&request);
    }

    const Packet ipv4_ = MakePacket(Ipv4Control());
    const Packet ipv6_ = MakePacket(Ipv6Control(capwap::ControlMessage(3, 1, {})));
    // An echo request whose message type lies in a further segment.
    const Packet cut_ = FirstSegment(ipv4_, 52);
};

TEST_F(DebugTraceTest, EveryFieldOfTheFilterKeepsOtherPacketsOut) {
    const char *const kSrc4 = "10.0.10.1", *const kDst4 = "10.0.0.1";
    const char *const kSrc6 = "2001:db8:1:203::a:1", *const kDst6 = "2001:db8::1";
    // Which of the three packets pass: 4, 6, and the cut one.
    const std::pair<Filter, const char *> kCases[] = {
        {{}, "46c"},
        {{.type = 13}, "4"},
        {{.type = 3}, "6"},
        {{.src = kSrc4}, "4c"},
        {{.src = "1.10.0.10"}, ""},
        {{.dst = kDst4}, "4c"},
        {{.src = kSrc6}, "6"},
        {{.src = "2001:db9:1:203::a:1"}, ""},
        {{.src = "2001:db8:1:204::a:1"}, ""},
        {{.src = "2001:db8:1:203:1:0:a:1"}, ""},
        {{.src = "2001:db8:1:203::a:2"}, ""},
        {{.dst = kDst6}, "6"},
        {{.dst = kSrc6}, ""},
        {{.src = kSrc4, .dst = kDst6}, ""},
        {{.srcPort = 40000}, "46c"},
        {{.srcPort = 65536 + 40000}, ""},
        {{.dstPort = 5246}, "46c"},
        {{kSrc4, kDst4, 40000, 5246, 13}, "4"},
        {{kSrc6, kDst6, 40000, 5246, 3}, "6"},
        {{kSrc4, kDst4, 40000, 5246, 3}, ""},
        {{kDst4, kDst4, 40000, 5246, 13}, ""},
        {{kSrc4, kSrc4, 40000, 5246, 13}, ""},
        {{kSrc4, kDst4, 40001, 5246, 13}, ""},
        {{kSrc4, kDst4, 40000, 5247, 13}, ""},
    };
    for (const auto &[filter, expected] : kCases) {
        Use(filter);
        std::string passing;
        for (const auto &[letter, packet] : {std::pair('4', &ipv4_), {'6', &ipv6_}, {'c', &cut_}}) {
            // A filter on an unreadable message type reads it quietly, or it would never end.
            LyrKesDebugTrace(1, true, packet->get(), "%c", letter);
            EXPECT_EQ(LyrKesNeedDebugging(packet->get()), Lines(LineKind::kReport).size() == 1);
            for (const std::string &line : TakeReports()) {
                passing += line;
            }
        }
        EXPECT_EQ(passing, expected)
            << Text("%s > %s, ports %u > %u, type %u", filter.src, filter.dst, filter.srcPort,
                    filter.dstPort, filter.type);
    }
    EXPECT_FALSE(LyrKesNeedDebugging(nullptr));
}

TEST_F(DebugTraceTest, AddressOfNoFamilyKeepsNothingOut) {
    Use({.src = "10.9.9.9", .dst = "10.9.9.9"});
    EXPECT_FALSE(LyrKesNeedDebugging(ipv4_.get()));
    g_lyrKesDebugTrace.srcIpFamily = 0;
    EXPECT_FALSE(LyrKesNeedDebugging(ipv4_.get()));
    g_lyrKesDebugTrace.dstIpFamily = 5;
    EXPECT_TRUE(LyrKesNeedDebugging(ipv4_.get()));
}

using DebugTraceOperationTest = HostTest;

// The configuration's bytes, as diagnostics read them, two digits each.
std::string Configuration() {
    std::string digits;
    for (size_t i = 0; i < 68; ++i) {
        digits += Text("%02X", reinterpret_cast<const uint8_t *>(&g_lyrKesDebugTrace)[i]);
    }
    return digits;
}

TEST_F(DebugTraceOperationTest, SetKeepsWhatItDoesNotNameAndClearRemovesAll) {
    LyrKesDebugTraceReq request =
        Filter{"2001:db8:3:4:5:6:7:8", "10.1.2.3", 5246, 0x15247, 13}.Request();
    request.debugLevel = 0x01020304;
    std::memcpy(request.mac, "\x0A\x1B\x2C\x3D\x4E\x5F", sizeof(request.mac));
    std::memset(request.reserved, 0xEE, sizeof(request.reserved));
    EXPECT_EQ(Call(MUND_OP_DebugTraceSet, request), 0u);
    const std::string on = "0100000004030201";
    std::string source = "06000000B80D0120040003000600050008000700";
    const std::string destination = "040000000302010A000000000000000000000000";
    const std::string ports = "7E14000047520100", mac = "0A1B2C3D4E5F0000";
    EXPECT_EQ(Configuration(), on + source + destination + ports + mac + "0D000000");

    // An IPv4 source keeps what an IPv6 one had behind its first word; version 2 keeps it all.
    request.srcAddr = Address("0.0.0.0");
    request.dstAddr = Address("2001:db8::1");
    request.dstAddr.ipVer = 2;
    request.capwapMsgType = 0;
    EXPECT_EQ(Call(MUND_OP_DebugTraceSet, request), 0u);
    source = "0400000000000000040003000600050008000700";
    const std::string kept = on + source + destination + ports + mac + "00000000";
    EXPECT_EQ(Configuration(), kept);

    request.msgType = 2;
    request.debugLevel = 9;
    EXPECT_EQ(Call(MUND_OP_DebugTraceSet, request), 0u);
    EXPECT_EQ(Configuration(), kept);
    request.capwapMsgType = 14;
    for (const uint32_t msgType : {LYR_KES_TRACE_SET, LYR_KES_TRACE_CLEAR}) {
        request.msgType = msgType;
        EXPECT_EQ(Call(MUND_OP_DebugTraceSet, request), 0u);
    }
    EXPECT_EQ(Configuration(), std::string(136, '0'));
}

TEST_F(DebugTraceTest, WordsKeptOfAnIpv6SourceStillFilter) {
    // What is kept decides whether the IPv4 address 0 means any source.
    for (const auto &[src6, ipv4Passes] : {std::pair("2001:db8::", true), {"2001:db8::1", false}}) {
        Use({.src = src6});
        const LyrKesDebugTraceReq request = Filter{}.Request();
        LyrKes_DebugTraceConfigUpdate(&request);
        EXPECT_EQ(LyrKesNeedDebugging(ipv4_.get()), ipv4Passes) << src6;
        EXPECT_TRUE(LyrKesNeedDebugging(ipv6_.get())) << src6;  // it has no IPv4 source: 0
    }
}

// What packets say that have everything, the packet hook shows.
TEST_F(DebugTraceTest, SummaryHasRoomForTheLongestAndNeedsNoMac) {
    const Packet noMac = MakePacket(Ipv4Control()), other = MakePacket(Ipv4Control());
    FrameSpec frame = UdpFrame("2001:db8:1111:2222:3333:4444:5555:6666", 65535, "fe80::", 0, {});
    frame.srcMac = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F};
    const Packet longest = MakePacket(frame);
    standin::MetaOf(noMac.get()).hasMacs = false;
    standin::MetaOf(other.get()).protoType = 2;
    const struct {
        uint8_t kind;
        const Packet &packet;
        Texts lines = {};
    } kCases[] = {
        {1,
         noMac,
         {"[LYR-HOST][DATA-KEEPALIVE][MAC=0000-0000-0000]"
          "[SRC-IP=10.0.10.1][SRC-PORT=40000][DST-IP=10.0.0.1][DST-PORT=5246]"}},
        {1,
         longest,
         {"[LYR-HOST][DATA-KEEPALIVE][MAC=0a1b-2c3d-4e5f][SRC-IP=2001:db8:1111:2222:3333:4444:5555:"
          "6666][SRC-PORT=65535][DST-IP=fe80::][DST-PORT=0]"}},
        {3, ipv4_},
        {255, ipv4_},
        {1, other},
    };
    TraceOn();
    for (const auto &[kind, packet, lines] : kCases) {
        LyrKes_DebugOutPutPkt(kind, packet.get());
        EXPECT_EQ(TakeReports(), lines) << "kind " << unsigned{kind};
    }
}

TEST_F(DebugTraceTest, DamagedPacketHasASummaryAndAnUnformattableOneNone) {
    TraceOn();
    LyrKes_DebugOutPutPkt(LYR_PKT_CONTROL, cut_.get());
    EXPECT_THAT(TakeReports(),
                ElementsAre("LyrKes_GetCapwapMsgTypeFromCapwapHdr, headlen not enough: pktLen=16, "
                            "realLen=10",
                            "[LYR-HOST][CTRL CAPWAP-MSGTYPE=4294967295][MAC=0200-0000-0001]"
                            "[SRC-IP=10.0.10.1][SRC-PORT=40000][DST-IP=10.0.0.1][DST-PORT=5246]"));
    LyrKes_DebugOutPutPkt(LYR_PKT_CONTROL, nullptr);
    standin::FailEveryCall("sprintf_s");
    for (const uint8_t kind : Bytes{0, 1, 2}) {
        LyrKes_DebugOutPutPkt(kind, ipv4_.get());
    }
    standin::ClearFaults();
    Use({.type = 14});
    LyrKes_DebugOutPutPkt(LYR_PKT_CONTROL, ipv4_.get());
    EXPECT_THAT(TakeReports(), IsEmpty());
}

TEST_F(DebugTraceTest, AddressThatDoesNotFitGivesNoText) {
    const uint16_t groups[8] = {0x2001, 0xDB8, 0x1111, 0x2222, 0x3333, 0x4444, 0x5555, 0xFFFF};
    char text[40];
    EXPECT_STREQ(LyrKes_IPv4HToStr(0xC0A80102, text, 12), "192.168.1.2");
    EXPECT_EQ(LyrKes_IPv4HToStr(0xC0A80102, text, 11), nullptr);
    EXPECT_STREQ(LyrKes_IPv6HToStr(groups, text, 40), "2001:db8:1111:2222:3333:4444:5555:ffff");
    EXPECT_EQ(LyrKes_IPv6HToStr(groups, text, 38), nullptr);
}

}  // namespace
