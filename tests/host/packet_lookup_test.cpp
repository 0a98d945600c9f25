#include "lb/packet_lookup.h"

#include <sstream>

#include "dfx/debug_trace.h"
#include "dist_tables.h"
#include "lb/dist_lifecycle.h"
#include "packet/cwp_source_match.h"

namespace {

using namespace host_test;
using capwap::FrameSpec;

constexpr uint32_t kArrivalKey = 77;
constexpr const char *kAp = "192.0.2.10", *kAp6 = "2001:db8:1::a", *kOther6 = "2001:db8:1::b";

Texts IfAny(const std::string &prefix, const char *text) {
    return text != nullptr ? Texts{prefix + text} : Texts{};
}

FrameSpec Control(std::string_view src, std::string_view dst, uint16_t srcPort = 5246) {
    return UdpFrame(src, srcPort, dst, 5246, capwap::ControlMessage(13, 1, {}));
}

FrameSpec Keepalive(uint32_t lastWord, std::string_view dst = kController) {
    return UdpFrame(kAp, 5247, dst, 5247, capwap::Keepalive({1, 0xABCDEF01, 0, lastWord}));
}

FrameSpec KeepaliveWithoutSession() {
    return UdpFrame(kAp, 5247, kController, 5247,
                    capwap::EncodeHeader({.keepalive = true, .wbid = 0}));
}

class PacketLookup : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        DeclareController();
        Register(TunnelRequest(kAdd, kAp, 5246, kController, 5246, 3));
        Register(TunnelRequest(kAdd, kAp, 5246, kController, 5246, 4, 9));
        Register(TunnelRequest(kAdd, kAp6, 12223, kController6, 5246, 5, 0xFFFF));
        const LyrKesKaTunnelReq session = {kAdd, {1, 0xABCDEF01, 0, 4}, 6};
        ASSERT_EQ(Call(MUND_OP_KaTunnel, session), 0u);
        TraceOn(LYR_TRACE_FAILURE);
    }

    static void Register(const LyrKesCwpTunnelReq &request) {
        ASSERT_EQ(Call(MUND_OP_CwpTunnel, request), 0u);
    }

    static void RegisterDefaults() {
        constexpr const char *kAll = "255.255.255.255";
        constexpr const char *kAll6 = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
        Register(TunnelRequest(kAdd, kAll, 65535, kAll, 5246, 8, 65535));
        Register(TunnelRequest(kAdd, kAll6, 65535, kAll6, 5246, 9, 65535));
    }

    struct Case {
        const char *name;
        FrameSpec frame;
        uint32_t vrf, result;
        uint32_t key;  // that the packet leaves with
    };

    // Each packet once without the mark and once with it.
    static void Run(std::span<const Case> cases) {
        for (const Case &row : cases) {
            SCOPED_TRACE(row.name);
            const auto lookUp =
                row.frame.dstPort == 5247 ? LyrKes_DistKa_PktProc : LyrKes_DistCwp_PktProc;
            for (const bool diagnose : {false, true}) {
                const Packet packet = MakePacket(row.frame, {.vrf = row.vrf, .diagnose = diagnose});
                HostMbufSetLbKey(packet.get(), kArrivalKey);
                EXPECT_EQ(lookUp(packet.get()), row.result);
                EXPECT_EQ(HostMbufGetLbKey(packet.get()), row.key);
            }
        }
    }
};

TEST_F(PacketLookup, PacketGetsTheKeyOfItsTunnelOrOfTheDefault) {
    constexpr uint32_t kOk = LYR_DIST_OK, kMismatch = LYR_DIST_SOURCE_MISMATCH, kKept = kArrivalKey;
    FrameSpec raw;
    raw.etherType = 0x88B5;
    raw.payload.resize(50);
    const FrameSpec known = Control(kAp, kController), stranger = Control(kAp, "10.0.0.2");
    const FrameSpec unknown6 = Control(kOther6, kController6, 12223);
    const Case cases[] = {
        {"registered", known, 0, kOk, 3},
        {"the same in another VPN", known, 0x50009, kOk, 4},
        {"in a VPN where it is not", known, 8, kOk, kKept},
        {"from another port", Control(kAp, kController, 5248), 0, kOk, kKept},
        {"IPv6", Control(kAp6, kController6, 12223), 0x2FFFF, kOk, 5},
        {"unknown IPv6", unknown6, 0xFFFF, kOk, kKept},
        {"not to the controller", stranger, 0, kMismatch, kKept},
        {"neither IPv4 nor IPv6", raw, 0, kMismatch, kKept},
        {"session", Keepalive(4), 0, kOk, 6},
        {"session in any VPN", Keepalive(4), 12, kOk, 6},
        {"unknown session", Keepalive(5), 0, kOk, kKept},
        {"no session id", KeepaliveWithoutSession(), 0, LYR_DIST_BAD_SESSION, kKept},
        {"session not to the controller", Keepalive(4, "10.0.0.2"), 0, kMismatch, kKept},
    };
    Run(cases);

    RegisterDefaults();
    const Case withDefaults[] = {
        {"beside the default", known, 9, kOk, 4},
        {"default", Control("192.0.2.11", kController), 0, kOk, 8},
        {"IPv6 default", unknown6, 0, kOk, 9},
        {"no default for sessions", Keepalive(5), 0, kOk, kKept},
        {"no default for strangers", stranger, 0, kMismatch, kKept},
    };
    ForgetLines();
    Run(withDefaults);
    EXPECT_THAT(Lines(LineKind::kPrint),
                ElementsAre(StartsWith("[LYR_HOST]pid:4, srcip:0xc000020a, "),
                            StartsWith("[LYR_HOST]pid:8, srcip:0xc000020b, "),
                            StartsWith("[LYR_HOST]pid: 9, srcipv6:20010db8:10000:0:b, "),
                            "[LYR_HOST]pid:77, session:1-abcdef01-0-5",
                            StartsWith("[LYR_HOST]IP not match, ")));
}

TEST_F(PacketLookup, BrokenChainOfTheDefaultIsReportedAndUnlocked) {
    const struct {
        LyrKesDistBucket &bucket;
        const uint32_t &locker;
        FrameSpec frame;
    } cases[] = {
        {g_LyrKes_DistIpv4Tbl[21975], g_LyrKes_DistIpv4RwLocker, Control("10.1.1.1", kController)},
        {g_LyrKes_DistIpv6Tbl[23166], g_LyrKes_DistIpv6RwLocker, Control(kOther6, kController6)},
    };
    for (const auto &[bucket, locker, frame] : cases) {
        ASSERT_EQ(bucket.next, &bucket);
        bucket.next = nullptr;
        const Packet packet = MakePacket(frame);
        EXPECT_EQ(LyrKes_DistCwp_PktProc(packet.get()), LYR_DIST_OK);
        EXPECT_EQ(HostMbufGetLbKey(packet.get()), HOST_LB_KEY_NONE);
        EXPECT_THAT(TakeLines(LineKind::kAssertion), SizeIs(1));
        EXPECT_EQ(locker, 0u);
        bucket.next = &bucket;
    }
}

TEST_F(PacketLookup, ReportOfAKeepalivePassesThePacketFilter) {
    LyrKesDebugTraceReq request = {};
    request.debugLevel = LYR_TRACE_FAILURE;
    request.srcPort = 5246;
    ASSERT_EQ(Call(MUND_OP_DebugTraceSet, request), 0u);
    const Packet packet = MakePacket(KeepaliveWithoutSession());
    EXPECT_EQ(LyrKes_DistKa_PktProc(packet.get()), LYR_DIST_BAD_SESSION);
    EXPECT_THAT(TakeReports(), IsEmpty());
}

TEST_F(PacketLookup, LookUpWithoutTablesFailsAndStampsNothing) {
    LyrKes_Dist_Deinit();
    const Packet ipv4 = MakePacket(Control(kAp, kController));
    const Packet ipv6 = MakePacket(Control(kAp6, kController6));
    EXPECT_EQ(LyrKes_DistCwp_PktProc(ipv4.get()), LYR_DIST_NO_TABLE);
    EXPECT_EQ(LyrKes_DistCwp_PktProc(ipv6.get()), LYR_DIST_NO_TABLE);
    EXPECT_EQ(LyrKes_DistKa_PktProc(MakePacket(Keepalive(4)).get()), LYR_DIST_NO_TABLE);
    LyrKes_DistIpv4_UseDefaultLbTable(ipv4.get());
    LyrKes_DistIpv6_UseDefaultLbTable(ipv6.get());
    EXPECT_EQ(HostMbufGetLbKey(ipv4.get()), HOST_LB_KEY_NONE);
    ASSERT_EQ(LyrKes_Dist_Init(), 0u);
}

// --- the match with the controller's sources ---

class SourceMatch : public HostTest {
  protected:
    // Declares sources given as "type address interface", separated by semicolons.
    static void Declare(const char *sources) {
        LyrKes_InitCwpSrcInfo();
        std::istringstream list(sources);
        for (std::string source; std::getline(list, source, ';');) {
            std::istringstream fields(source);
            uint32_t type = 0, ifIndex = 0;
            std::string ip;
            fields >> type >> ip >> ifIndex;
            ASSERT_TRUE(fields) << source;
            ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kAdd, type, ip, ifIndex)), 0u);
        }
    }
};

#define NO_ADDRESS4(bad, first) "IP not match, ipVer 4, badIp [" bad "], firstSrcIp [" first "]"
#define NO_ADDRESS6(bad, first) "IP not match, ipVer 6, badIp [" bad "], firstSrcIp [" first "]"
#define NO_INTERFACE "Recv ifIndex not match, badIf [3-7] firstSrcIf "
#define TEN_1 "0xa000001|a000001:0:0:0"
#define DB8_1 "0x20010db8|20010db8:0:0:1"
#define NONE "0x0|0:0:0:0"

// The packets arrive on port 3, which is interface 7 to the control plane.
TEST_F(SourceMatch, UnicastMatchesByAddressAndBroadcastByInterface) {
    const struct {
        const char *sources;
        const char *destination;
        const char *refusal;  // null: the packet matches
    } cases[] = {
        {"", "10.0.0.1", NO_ADDRESS4(TEN_1, NONE)},
        {"", "255.255.255.255", NO_INTERFACE "0"},
        {"", "fe80::1", NO_ADDRESS6("0xfe800000|fe800000:0:0:1", NONE)},
        {"", "ff02::1", NO_INTERFACE "0"},
        // by address, whatever the type
        {"0 10.0.0.1 1", "10.0.0.1", nullptr},
        {"4 10.0.0.1 1", "10.0.0.1", nullptr},
        {"6 10.0.0.1 1", "10.0.0.1", nullptr},
        {"1 9.0.0.1 1;1 9.0.0.2 1;1 9.0.0.3 1;1 9.0.0.4 1;1 9.0.0.5 1;1 9.0.0.6 1;1 9.0.0.7 1;"
         "1 10.0.0.1 1",
         "10.0.0.1", nullptr},
        {"4 9.0.0.1 7;1 9.0.0.2 1", "10.0.0.1", NO_ADDRESS4(TEN_1, "0x9000001|9000001:0:0:0")},
        {"1 2001:db8::1 1", "2001:db8::1", nullptr},
        {"1 2001:db8::1 1", "2001:db8::2", NO_ADDRESS6("0x20010db8|20010db8:0:0:2", DB8_1)},
        {"1 a00:1:: 1", "10.0.0.1", NO_ADDRESS4(TEN_1, TEN_1)},
        {"1 10.0.0.1 1", "a00:1::", NO_ADDRESS6(TEN_1, TEN_1)},
        // by interface
        {"1 9.0.0.1 1;2 9.0.0.2 7", "255.255.255.255", nullptr},
        {"0 10.0.0.1 7", "255.255.255.255", nullptr},
        {"1 10.0.0.1 3", "255.255.255.255", NO_INTERFACE "3"},
        {"1 9.0.0.1 1;4 9.0.0.2 1", "255.255.255.255", nullptr},
        {"1 255.255.255.255 1", "255.255.255.255", NO_INTERFACE "1"},
        {"3 2001:db8::1 7", "ff02::18c", nullptr},
        // what is neither broadcast nor multicast in this sense
        {"4 10.0.0.1 7", "10.0.0.255", NO_ADDRESS4("0xa0000ff|a0000ff:0:0:0", TEN_1)},
        {"4 10.0.0.1 7", "224.0.1.140", NO_ADDRESS4("0xe000018c|e000018c:0:0:0", TEN_1)},
        {"4 2001:db8::1 7", "feff::1", NO_ADDRESS6("0xfeff0000|feff0000:0:0:1", DB8_1)},
    };
    standin::MapInterface(3, 7);
    for (const auto &[sources, destination, refusal] : cases) {
        SCOPED_TRACE(testing::Message() << destination << " with " << sources);
        Declare(sources);
        const bool ipv6 = std::string_view(destination).find(':') != std::string_view::npos;
        const FrameSpec frame = Control(ipv6 ? kAp6 : kAp, destination);
        TraceOn(LYR_TRACE_FAILURE);
        EXPECT_EQ(LyrHost_IsPktMatchCwpSrc(MakePacket(frame, {.rxPort = 3}).get()), !refusal);
        EXPECT_EQ(TakeReports(), IfAny("", refusal));
        EXPECT_THAT(TakeLines(LineKind::kPrint), IsEmpty());
        TraceOff();
        const Packet marked = MakePacket(frame, {.rxPort = 3, .diagnose = true});
        EXPECT_EQ(LyrHost_IsPktMatchCwpSrc(marked.get()), !refusal);
        EXPECT_THAT(Lines(LineKind::kReport), IsEmpty());
        EXPECT_EQ(TakeLines(LineKind::kPrint), IfAny("[LYR_HOST]", refusal));
    }
}

TEST_F(SourceMatch, ReportsTheFirstPositionEvenIfItIsFree) {
    Declare("1 10.0.0.2 5;1 10.0.0.3 5");
    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kDelete, 1, "10.0.0.2")), 0u);
    TraceOn();
    EXPECT_FALSE(LyrHost_IsPktMatchCwpSrc(MakePacket(Control(kAp, "255.255.255.255")).get()));
    EXPECT_FALSE(LyrHost_IsPktMatchCwpSrc(MakePacket(Control(kAp, "10.0.0.1")).get()));
    EXPECT_EQ(TakeReports(), (Texts{"Recv ifIndex not match, badIf [0-0] firstSrcIf 0",
                                    NO_ADDRESS4(TEN_1, NONE)}));
}

}  // namespace
