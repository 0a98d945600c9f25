#include "channel/packet_handoff.h"

#include "channel/station_service.h"
#include "dfx/debug_trace.h"
#include "dist_tables.h"
#include "kes/channel.h"
#include "standin/channels.h"

namespace {

using namespace host_test;

constexpr uint32_t kCapwap = LYR_PKT_TYPE_CAPWAP;
constexpr uint32_t kWapi = LYR_PKT_TYPE_WAPI;
constexpr uint32_t kNotHandedOver = 4;

class Handoff : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        TraceOn(LYR_TRACE_FAILURE);
    }
    static Packet ApPacket(bool diagnose = false) {
        return MakePacket(Ipv4Tunnels::Frame(1), {.rxPort = 6, .diagnose = diagnose});
    }
};

// --- the slots ---

TEST_F(Handoff, EveryInstanceHasASlotAndNoOtherKeyHas) {
    const std::pair<uint32_t, size_t> cases[] = {{27, 28}, {0, 1}, {0xFFFFFFFF, 0}};
    for (const auto &[svcNum, slots] : cases) {
        standin::SetCapability("WCWP_SPEC_SVC_NUM", svcNum);
        Restart();
        for (const uint32_t pktType : {kCapwap, kWapi}) {
            const uint32_t *channels = LyrKes_GetChnMapByPktType(pktType);
            TovThreadInfo **threads = LyrKes_GetThdInfoByPktType(pktType);
            ASSERT_EQ(standin::BlockSize(channels), slots * 4);
            ASSERT_EQ(standin::BlockSize(threads), slots * 8);
            EXPECT_THAT(std::span(channels, slots), Each(TOV_CHANNEL_ID_NONE));
            EXPECT_THAT(std::span(threads, slots), Each(nullptr));
        }
        EXPECT_EQ(LyrKes_GetChnMapByPktType(2), nullptr);
        EXPECT_EQ(LyrKes_GetThdInfoByPktType(2), nullptr);
        // The number behind the last instance is none.
        const Packet packet = ApPacket();
        ForgetLines();
        const uint32_t key = svcNum + 1;
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(packet.get(), key, kCapwap), kError);
        EXPECT_THAT(TakeReports(),
                    ElementsAre(Text("lb key %u out of bound, svc num %u, pkt type 0", key, key)));
    }
}

// --- the hand-off ---

TEST_F(Handoff, PacketWithoutAChannelIsRefusedUntouched) {
    const Instance instance(3, kCapwap);
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 1, 3), 0u);
    const std::string length = std::to_string(ApPacket()->pktLen);
    TovThreadInfo **const threads = g_lyrHostThreadInfoId[kCapwap];
    uint32_t *const channels = g_kes2lyrHostChnMap[kCapwap];
    const struct {
        uint32_t key, pktType;
        bool channelMap, threadTable;
        std::string line;
    } cases[] = {
        {28, 0, true, true, "lb key 28 out of bound, svc num 28, pkt type 0"},
        {3, 2, true, true, "channel map not initialized, key 3, pktType 2"},
        {3, 0, false, true, "channel map not initialized, key 3, pktType 0"},
        {3, 0, true, false, "thread info not initialized, key 3, pktType 0"},
        {27, 0, true, true,
         "channel id not initialized, key:27, pktType:0, ip:0xac100001, pktlen:" + length},
        {3, 1, true, true,
         "channel id not initialized, key:3, pktType:1, ip:0xac100001, pktlen:" + length},
    };
    standin::MapInterface(6, 106);
    standin::CountCalls();
    for (const auto &row : cases) {
        SCOPED_TRACE(row.line);
        const Packet packet = ApPacket(true);
        g_kes2lyrHostChnMap[kCapwap] = row.channelMap ? channels : nullptr;
        g_lyrHostThreadInfoId[kCapwap] = row.threadTable ? threads : nullptr;
        ForgetLines();
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(packet.get(), row.key, row.pktType), kError);
        EXPECT_THAT(TakeReports(), ElementsAre(row.line));
        EXPECT_THAT(Lines(LineKind::kPrint), IsEmpty());
        EXPECT_EQ(HostMbufGetReceivePortIndex(packet.get()), 6u);
    }
    g_kes2lyrHostChnMap[kCapwap] = channels;
    g_lyrHostThreadInfoId[kCapwap] = threads;
    EXPECT_EQ(standin::CallCount("TOV_ChannelDcSend"), 0u);
    EXPECT_EQ(standin::CallCount("TOV_EventWrite"), 0u);
}

// What is said of them is the packet hook's to show.
TEST_F(Handoff, SendWakesTheInstanceEvenIfItsChannelIsFull) {
    standin::MapInterface(5, 105);
    standin::MapInterface(6, 106);
    for (const uint32_t pktType : {kCapwap, kWapi}) {
        Instance instance(27, pktType, 1);
        ASSERT_EQ(LyrKes_DistAddChannel(27, pktType), 0u);
        const uint32_t sent = g_lyrKesChnSendSucceedPktCnt[pktType];
        const uint32_t failed = g_lyrKesChnSendFailPktCnt[pktType];

        Packet first = ApPacket();
        HostMbufSetOeIfIndex(first.get(), 5);
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(first.get(), 27, pktType), 0u);
        EXPECT_TRUE(instance.WokenWith(1u << pktType));

        // The channel is full.
        standin::CountCalls();
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(ApPacket().get(), 27, pktType), kError);
        EXPECT_EQ(g_lyrKesChnSendSucceedPktCnt[pktType], sent + 1);
        EXPECT_EQ(g_lyrKesChnSendFailPktCnt[pktType], failed + 1);
        EXPECT_EQ(standin::CallCount("TOV_EventWrite"), 1u) << "wakes all the same";

        const Packet received = instance.Receive();
        EXPECT_EQ(received.get(), first.release());
        EXPECT_EQ(HostMbufGetOeIfIndex(received.get()), 105u);
        EXPECT_EQ(HostMbufGetReceivePortIndex(received.get()), 106u);
        EXPECT_EQ(instance.Receive(), nullptr);
    }
}

// --- stations ---

TEST_F(Handoff, StationsAreSpreadByTheHashOfTheirMac) {
    const struct {
        uint8_t mac[6];
        uint64_t start, count;
        uint32_t instance;
    } cases[] = {
        {{0, 0, 0, 0, 0, 0}, 10, 4, 11},
        {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 10, 4, 10},
        {{0, 0, 0, 0, 0, 0}, 10, 1, 10},
        {{0, 0, 0, 0, 0, 0}, 0xFFFFFFFF, 4, 0},
        {{0, 0, 0, 0, 0, 0}, 0, 0xFFFFFFFF, 132056261},
    };
    for (const auto &row : cases) {
        LyrKes_SetStaSvcInfo(row.count << 32 | row.start);
        EXPECT_EQ(LyrKes_GetPidByMac(row.mac), row.instance);
    }
    LyrKes_SetStaSvcInfo(10);
    ForgetLines();
    EXPECT_EQ(LyrKes_GetPidByMac(cases[0].mac), kError);
    EXPECT_THAT(TakeReports(), ElementsAre("sta inst spec is illegal, instSpec = 0"));
}

TEST_F(Handoff, WapiCountsGoOnOverAStop) {
    const uint32_t offered = g_lyrKesWapiPacket2Svc, failed = g_lyrKesWapiPacket2Fail;
    const Packet packet = MakePacket(capwap::FrameSpec{.etherType = 0x88B4});
    ASSERT_EQ(Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{10, 4}), 0u);
    EXPECT_EQ(LyrKes_SendPktToLyrStaByChannel(packet.get()), kNotHandedOver);
    StopModule();
    EXPECT_EQ(LyrKes_GetStaSvcInfo(), 0u);
    ASSERT_EQ(LyrKes_Init(), 0u);
    EXPECT_EQ(g_lyrKesWapiPacket2Svc, offered + 1);
    EXPECT_EQ(g_lyrKesWapiPacket2Fail, failed + 1);
}

}  // namespace
