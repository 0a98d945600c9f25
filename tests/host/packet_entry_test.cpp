// The packet hook: which packets it takes, where they go, and what it prints on the way.
#include "packet/packet_entry.h"

#include <dlfcn.h>
#include <cstring>

#include "channel/packet_handoff.h"
#include "channel/station_service.h"
#include "dfx/debug_trace.h"
#include "host_fixture.h"
#include "kes/channel.h"
#include "kes/hook.h"
#include "standin/channels.h"
#include "standin/packet_path.h"

using namespace host_test;
using capwap::Bytes;
using capwap::FrameSpec;

namespace {

// Makes every receiver as quick as it may be: it has read, overwritten and released the packet
// before the sender returns from the send.
bool receiversAreQuick = false;
uint32_t quicklyReceived = 0;

void ReceiveQuickly(uint32_t channelId) {
    HostMbuf *packet = standin::ReceiveFromChannel(channelId);
    ++quicklyReceived;
    std::memset(static_cast<uint8_t *>(packet->bufAddr) + packet->dataOff, 0x5A, packet->dataLen);
    std::memset(static_cast<void *>(&standin::MetaOf(packet)), 0x5A, sizeof(standin::HostMbufMeta));
    standin::MbufPool::Release(packet);
}

}  // namespace

// Stands before the engine's own for the module as well.
uint32_t TOV_ChannelDcSend(uint32_t channelId, HostMbuf *packet, uint32_t option) {
    static const auto send =
        reinterpret_cast<decltype(&TOV_ChannelDcSend)>(dlsym(RTLD_NEXT, "TOV_ChannelDcSend"));
    EXPECT_EQ(option, 1000u);
    const uint32_t result = send(channelId, packet, option);
    if (result == 0 && receiversAreQuick) {
        ReceiveQuickly(channelId);
    }
    return result;
}

namespace {

constexpr uint32_t kNone = HOST_LB_KEY_NONE;
const Bytes kEcho = capwap::ControlMessage(13, 1, {});
const Bytes kKeepalive = capwap::Keepalive({0x11, 0x22, 0x33, 0xFFFFFFFF});
const Bytes kHandshake = capwap::DtlsRecord(22, Bytes(20));

// From an access point to the controller.
FrameSpec FromAp(uint16_t srcPort, uint16_t dstPort, Bytes payload,
                 std::string_view dst = "10.0.0.1") {
    return UdpFrame("10.0.10.1", srcPort, dst, dstPort, std::move(payload));
}

FrameSpec Ipv6FromAp(uint16_t dstPort, Bytes payload) {
    return UdpFrame("2001:db8::a:1", 40000, "2001:db8::1", dstPort, std::move(payload));
}

Bytes Cut(Bytes frame, size_t size) {
    frame.resize(size);
    return frame;
}

FrameSpec Ethernet(uint16_t etherType) {
    FrameSpec spec;
    spec.etherType = etherType;
    return spec;
}

FrameSpec Tcp() {
    FrameSpec spec = FromAp(0, 0, {0x9C, 0x40, 0x14, 0x7E, 0, 0, 0, 1, 0, 0, 0, 0, 0x50, 2});
    spec.ipProtocol = 6;
    return spec;
}

class PacketEntryTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        for (const char *const ip : {"10.0.0.1", "2001:db8::1"}) {
            Call(MUND_OP_CwpSrc, SourceRequest(LYR_KES_OPERATION_ADD, 1, ip));
        }
        AddTunnel(40000, 5246, 3);
        AddTunnel(40000, 5247, 3);
        AddTunnel(5247, 5246, 3);
        AddTunnel(5246, 5247, 3);
        AddTunnel(40009, 5246, 9);  // there is no such instance
        AddTunnel(1, 5246, 4);      // a session does not make its instance's channel known
        AddTunnel(40000, 5246, 5, "2001:db8::a:1", "2001:db8::1");
        Call(MUND_OP_KaTunnel, LyrKesKaTunnelReq{0, {0x11, 0x22, 0x33, 0xFFFFFFFF}, 4});
        Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{6, 1});
    }

    void TearDown() override {
        receiversAreQuick = false;
        HostTest::TearDown();
    }

    static void AddTunnel(uint16_t srcPort, uint16_t dstPort, uint32_t node,
                          const char *src = "10.0.10.1", const char *dst = "10.0.0.1") {
        EXPECT_EQ(0u, Call(MUND_OP_CwpTunnel, TunnelRequest(LYR_KES_OPERATION_ADD, src, srcPort,
                                                            dst, dstPort, node, 7)));
    }

    // The counts that lines show start over.
    static void ForgetCounts() {
        std::ranges::fill(g_lyrKesChnSendSucceedPktCnt, 0);
        std::ranges::fill(g_lyrKesChnSendFailPktCnt, 0);
        g_lyrKesWapiPacket2Svc = g_lyrKesWapiPacket2Fail = 0;
    }

    // Runs the engine's hooks of the host path. A packet that is taken must be in the receiver's
    // channel, or have gone to a quick receiver; any other in none.
    uint64_t Run(Packet packet, Instance *receiver) {
        const uint32_t before = quicklyReceived;
        HostMbuf *const sent = packet.get();
        const uint64_t fate = standin::RunHooks(HOST_HOOK_HOST_RX, sent);
        if (fate == HOST_HOOK_TAKEN) {
            packet.release();
        }
        EXPECT_EQ(quicklyReceived - before, fate == HOST_HOOK_TAKEN && receiversAreQuick ? 1u : 0u);
        for (Instance *const instance : {&tunnelOwner_, &sessionOwner_, &ipv6Owner_, &stations_}) {
            const Packet received = instance->Receive();
            EXPECT_EQ(received.get(), instance == receiver && !receiversAreQuick ? sent : nullptr);
        }
        return fate;
    }

    // Runs a frame with patient and with quick receivers, marked and traced, and neither.
    void Check(const char *name, const Bytes &frame, uint64_t fate, Instance *receiver,
               const Texts &prints, const Texts &reports) {
        SCOPED_TRACE(name);
        for (const auto &[levels, quick] :
             {std::pair(1u, true), {2u, true}, {3u, true}, {3u, false}}) {
            receiversAreQuick = quick;
            ForgetCounts();
            TraceOn(levels);
            EXPECT_EQ(Run(MakePacket(frame, {.vrf = 7, .diagnose = true}), receiver), fate);
            EXPECT_EQ(TakeLines(LineKind::kPrint), prints);
            EXPECT_EQ(TakeReports(), OfLevels(levels, reports)) << "levels " << levels;
            TraceOff();
            EXPECT_EQ(Run(MakePacket(frame, {.vrf = 7}), receiver), fate);
            EXPECT_THAT(Lines(LineKind::kPrint), IsEmpty());
            EXPECT_THAT(TakeReports(), IsEmpty());
        }
    }

    Instance tunnelOwner_{3, 0};
    Instance sessionOwner_{4, 0};
    Instance ipv6Owner_{5, 0};
    Instance stations_{6, 1};
};

// The lines of a packet: what is printed when it is marked, and what is traced.
const char *const kIpv4 = "[LYR_HOST]LyrKes_PktProc, ethType:2048";
const char *const kIpv6 = "[LYR_HOST]LyrKes_PktProc, ethType:34525";
const char *const kWapi = "[LYR_HOST]LyrKes_PktProc, ethType:34996";
const char *const kCapwap = "[LYR_HOST]Capwap packet, src mac:0200-0000-0001, lb key:%u";
const char *const kWapiPacket = "[LYR_HOST]Wapi packet, mac:0200-0000-0001, key:%u, cnt:1, fail:0";
const char *const kSendOk =
    "[LYR_HOST]Channel send pkt succeeded, ret:0, key:%u, channelId:%u, successCnt:1, pktType:%u";
const char *const kSendFailed =
    "[LYR_HOST]Channel send pkt failed, ret:2, key:%u, channelId:%u, failCnt:1, pktType:%u";
const char *const kSent = "tov channel dc send ok, lb key %u, succeed count 1.";
const char *const kNotSent = "LYR ChannelDcSend failed,ret:2,key:%u,channelId:%u,cnt:1,pktType:%u.";
const char *const kCtrlEcho = "CTRL CAPWAP-MSGTYPE=13", *const kKa = "DATA-KEEPALIVE";

std::string Owner(uint32_t pid, uint32_t srcPort, uint32_t dstPort) {
    return Text(
        "[LYR_HOST]pid:%u, srcip:0xa000a01, srcport:%u, dstip:0xa000001, dstport:%u, "
        "vpnId:7",
        pid, srcPort, dstPort);
}

std::string Summary(const char *kind, uint32_t srcPort, uint32_t dstPort,
                    const char *dst = "10.0.0.1", const char *src = "10.0.10.1") {
    return Text(
        "[LYR-HOST][%s][MAC=0200-0000-0001][SRC-IP=%s][SRC-PORT=%u][DST-IP=%s][DST-PORT=%u]", kind,
        src, srcPort, dst, dstPort);
}

std::string Ipv6Summary(const char *kind, uint32_t dstPort) {
    return Summary(kind, 40000, dstPort, "2001:db8::1", "2001:db8::a:1");
}

// Taken: each of these is with its instance when the hook returns.
TEST_F(PacketEntryTest, EveryKindGoesToItsOwner) {
    const auto taken = [&](const char *name, const FrameSpec &spec, Instance &to, uint32_t key,
                           Texts prints, const std::string &summary) {
        prints.push_back(Text(kCapwap, key));
        prints.push_back(Text(kSendOk, key, to.ChannelId(), 0));
        prints.emplace_back("[LYR_HOST]capwap pkt proc pktRet 0, ret 16777216");
        Check(name, BuildFrame(spec), HOST_HOOK_TAKEN, &to, prints, {summary, Text(kSent, key)});
    };
    const std::string session = "[LYR_HOST]pid:4, session:11-22-33-ffffffff";
    const char *const kCtrlKeepalive = "CTRL CAPWAP-MSGTYPE=1441827";
    const auto tunnel = [&](const char *name, uint16_t srcPort, uint16_t dstPort,
                            const Bytes &payload, const char *kind) {
        taken(name, FromAp(srcPort, dstPort, payload), tunnelOwner_, 3,
              {kIpv4, Owner(3, srcPort, dstPort)}, Summary(kind, srcPort, dstPort));
    };
    tunnel("control", 40000, 5246, kEcho, kCtrlEcho);
    tunnel("between the ports", 5247, 5246, kKeepalive, kCtrlKeepalive);
    tunnel("the other way", 5246, 5247, kKeepalive, kCtrlKeepalive);
    tunnel("handshake", 40000, 5247, kHandshake, "DATA-DTLS_HANDSHAKE");
    taken("IPv6 control", Ipv6FromAp(5246, kEcho), ipv6Owner_, 5,
          {kIpv6,
           "[LYR_HOST]pid: 5, srcipv6:20010db8:0:0:a0001, dstipv6:20010db8:0:0:1, srcport:40000, "
           "dstport:5246, vpnId:7"},
          Ipv6Summary(kCtrlEcho, 5246));
    const auto keepalive = [&](const char *name, uint16_t srcPort, uint16_t dstPort,
                               const Bytes &payload) {
        taken(name, FromAp(srcPort, dstPort, payload), sessionOwner_, 4, {kIpv4, session},
              Summary(kKa, srcPort, dstPort));
    };
    Bytes twofold = kKeepalive;
    twofold[0] = 1;
    keepalive("keepalive", 40000, 5247, kKeepalive);
    keepalive("keepalive from the port", 5247, 40000, kKeepalive);
    keepalive("keepalive that looks like a handshake", 40000, 5247, twofold);
    taken("IPv6 keepalive", Ipv6FromAp(5247, kKeepalive), sessionOwner_, 4, {kIpv6, session},
          Ipv6Summary(kKa, 5247));
    Check("WAPI", BuildFrame(Ethernet(0x88B4)), HOST_HOOK_TAKEN, &stations_,
          {kWapi, Text(kWapiPacket, 6), Text(kSendOk, 6, stations_.ChannelId(), 1)},
          {Text(kSent, 6)});
}

// Meant for an instance, and still the engine's.
TEST_F(PacketEntryTest, WhatCannotBeHandedOverStaysTheEngines) {
    const char *const kResult = "[LYR_HOST]capwap pkt proc pktRet 4, ret 268435456";
    const auto stuck = [&](const char *name, const FrameSpec &spec, uint32_t key,
                           const std::string &owner, Texts reports) {
        Check(name, BuildFrame(spec), HOST_HOOK_DISCARD, nullptr,
              {kIpv4, owner, Text(kCapwap, key), kResult}, std::move(reports));
    };
    const char *const kNoKey = "lb key 4294967295 out of bound, svc num 28, pkt type 0";
    stuck("unknown tunnel", FromAp(5246, 1000, kEcho), kNone, Owner(kNone, 5246, 1000),
          {Summary(kCtrlEcho, 5246, 1000), kNoKey});
    stuck("unknown session", FromAp(40000, 5247, capwap::Keepalive({1, 2, 3, 4})), kNone,
          "[LYR_HOST]pid:4294967295, session:1-2-3-4", {Summary(kKa, 40000, 5247), kNoKey});
    stuck("owner without a channel", FromAp(40009, 5246, kEcho), 9, Owner(9, 40009, 5246),
          {Summary(kCtrlEcho, 40009, 5246),
           "channel id not initialized, key:9, pktType:0, ip:0xa000a01, pktlen:58"});

    standin::FailEveryCall("TOV_ChannelDcSend");
    const uint32_t control = tunnelOwner_.ChannelId(), station = stations_.ChannelId();
    Check(
        "control, refused", BuildFrame(FromAp(40000, 5246, kEcho)), HOST_HOOK_DISCARD, nullptr,
        {kIpv4, Owner(3, 40000, 5246), Text(kCapwap, 3), Text(kSendFailed, 3, control, 0), kResult},
        {Summary(kCtrlEcho, 40000, 5246), Text(kNotSent, 3, control, 0)});
    const char *const kWapiFailed = "LyrKes Wapi ChnSendPktToLyr Fail 4294967295.";
    const Bytes wapi = BuildFrame(Ethernet(0x88B4));
    Check("WAPI, refused", wapi, HOST_HOOK_DISCARD, nullptr,
          {kWapi, Text(kWapiPacket, 6), Text(kSendFailed, 6, station, 1)},
          {Text(kNotSent, 6, station, 1), kWapiFailed});
    LyrKes_InitStaSvcInfo();
    Check("WAPI without stations", wapi, HOST_HOOK_DISCARD, nullptr,
          {kWapi, Text(kWapiPacket, kNone)},
          {"sta inst spec is illegal, instSpec = 0",
           "lb key 4294967295 out of bound, svc num 28, pkt type 1", kWapiFailed});
}

// The engine carries on with these.
TEST_F(PacketEntryTest, WhatIsNotTheModulesGoesOn) {
    const auto ignored = [&](const char *name, const Bytes &frame, const Texts &prints,
                             const Texts &reports = {}) {
        Check(name, frame, HOST_HOOK_CONTINUE, nullptr, prints, reports);
    };
    const char *const kResult = "[LYR_HOST]capwap pkt proc pktRet %u, ret 0";
    const std::string mismatch =
        "IP not match, ipVer 4, badIp [0xa000002|a000002:0:0:0], firstSrcIp "
        "[0xa000001|a000001:0:0:0]";
    Bytes badKeepalive = kKeepalive;
    badKeepalive[9] = 20;
    ignored("damaged keepalive", BuildFrame(FromAp(40000, 5247, badKeepalive)),
            {kIpv4, Text(kResult, 5)},
            {Summary(kKa, 40000, 5247), "Get KA session id error, ElementLen:20",
             "KA pkt proc failed"});
    ignored("to another address", BuildFrame(FromAp(40000, 5246, kEcho, "10.0.0.2")),
            {kIpv4, "[LYR_HOST]" + mismatch, Text(kResult, 2)},
            {Summary(kCtrlEcho, 40000, 5246, "10.0.0.2"), mismatch});
    ignored("cut off behind UDP", Cut(BuildFrame(FromAp(40000, 5247, kKeepalive)), 44),
            {kIpv4, Text(kResult, 1)},
            {"[LyrKesHost] LyrKes_CheckIsKaPkt, check err: pktLen=30, realLen=2"});
    const Texts other = {kIpv4, Text(kResult, 1)};
    ignored("application data", BuildFrame(FromAp(40000, 5247, capwap::DtlsRecord(23, Bytes(20)))),
            other);
    ignored("data", BuildFrame(FromAp(40000, 5247, capwap::DataFrame(Bytes(30)))), other);
    ignored("other ports", BuildFrame(FromAp(5245, 5248, kEcho)), other);
    ignored("later fragment", BuildFragments(FromAp(40000, 5246, Bytes(40)), 24).back(), other);
    ignored("TCP", BuildFrame(Tcp()), {kIpv4});
    ignored("other Ethernet type", BuildFrame(Ethernet(0x88B5)),
            {"[LYR_HOST]LyrKes_PktProc, ethType:34997"});
    ignored("nothing", {}, {"[LYR_HOST]LyrKes_PktProc, ethType:0"});
    EXPECT_EQ(LyrKes_PktProc(nullptr), HOST_HOOK_CONTINUE);
}

TEST_F(PacketEntryTest, OnlyTwoCauseActionsAreLeftAlone) {
    TraceOn();
    for (const FrameSpec &spec : {Ethernet(0x88B4), FromAp(40000, 5246, kEcho)}) {
        Instance *const receiver = spec.etherType != 0 ? &stations_ : &tunnelOwner_;
        for (const auto action : std::initializer_list<uint16_t>{7, 8, 9, 57, 58, 0x108, 0x3900}) {
            Packet packet = MakePacket(spec, {.vrf = 7, .diagnose = true});
            standin::MetaOf(packet.get()).causeAction = action;
            ForgetLines();
            const bool alone = action == 8 || action == 57;
            EXPECT_EQ(Run(std::move(packet), alone ? nullptr : receiver),
                      alone ? HOST_HOOK_CONTINUE : HOST_HOOK_TAKEN)
                << action;
            EXPECT_EQ(Lines(LineKind::kPrint).empty(), alone) << action;
            EXPECT_EQ(Lines(LineKind::kReport).empty(), alone) << action;
        }
    }
}

// The packet filter decides on the line of a hand-off while the packet is still the module's.
TEST_F(PacketEntryTest, FilterOfAHandOffsLineReadsNothingAfterTheSend) {
    receiversAreQuick = true;
    for (const uint32_t type : {13u, 14u}) {
        ForgetCounts();
        TraceOn();
        g_lyrKesDebugTrace.capwapMsgType = type;
        g_lyrKesDebugTrace.srcPort = 40000;
        EXPECT_EQ(Run(MakePacket(FromAp(40000, 5246, kEcho), {.vrf = 7}), &tunnelOwner_),
                  HOST_HOOK_TAKEN);
        EXPECT_EQ(TakeReports(),
                  type == 13 ? Texts({Summary(kCtrlEcho, 40000, 5246), Text(kSent, 3)}) : Texts{});
    }
}

}  // namespace
