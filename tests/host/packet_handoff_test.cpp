#include "channel/packet_handoff.h"

#include <gmock/gmock.h>

#include "channel/station_service.h"
#include "dist_tables.h"
#include "kes/channel.h"
#include "standin/channels.h"

namespace {

using namespace host_test;
using standin::LineKind;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kCapwap = LYR_PKT_TYPE_CAPWAP;
constexpr uint32_t kWapi = LYR_PKT_TYPE_WAPI;
constexpr uint32_t kNotHandedOver = 4;

std::string Text(uint32_t number) {
    return std::to_string(number);
}

class Handoff : public TracedHostTest {
  protected:
    static Packet ApPacket(bool diagnose = false) {
        return MakePacket(Ipv4Tunnels::Frame(1), {.rxPort = 6, .diagnose = diagnose});
    }
    Texts Reports() {
        return Lines(LineKind::kReport);
    }
    Texts Prints() {
        return Lines(LineKind::kPrint);
    }
};

// --- the slots ---

TEST_F(Handoff, SlotsForEveryInstance) {
    const struct {
        uint32_t svcNum;
        size_t slots;
    } cases[] = {{27, 28}, {0, 1}, {0xFFFFFFFF, 0}};
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
        standin::FailCall("TovMemAllocInner", 2);
        LyrKes_DeinitChannelInfo();
        EXPECT_EQ(LyrKes_InitChannelInfoByPktType(kWapi), kError);
        EXPECT_EQ(g_kes2lyrHostChnMap[kWapi], nullptr);
        ASSERT_EQ(LyrKes_InitChannelInfo(), 0u);
        EXPECT_EQ(LyrKes_GetChnMapByPktType(2), nullptr);
        EXPECT_EQ(LyrKes_GetThdInfoByPktType(2), nullptr);
        // The number behind the last instance is none.
        const Packet packet = ApPacket();
        ForgetLines();
        const uint32_t key = svcNum + 1;
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(packet.get(), key, kCapwap), kError);
        EXPECT_THAT(Reports(), ElementsAre("lb key " + Text(key) + " out of bound, svc num " +
                                           Text(key) + ", pkt type 0"));
    }
}

TEST(ServiceNames, Construction) {
    constexpr const char *kCwp = "chn/kes2lyrcwp", *kWapiPrefix = "thd/kes2lyrwapi";
    const struct {
        uint32_t size;
        const char *prefix;
        uint32_t prefixLength;
        uint32_t index;
        const char *name;  // null: it fails
        uint32_t failure;
    } cases[] = {
        {20, kCwp, 15, 0, "chn/kes2lyrcwp0", 0},
        {20, kCwp, 15, 27, "chn/kes2lyrcwp27", 0},
        {20, kCwp, 15, 12345, "chn/kes2lyrcwp12345", 0},
        {20, kCwp, 15, 123456, nullptr, ERANGE},
        {20, kWapiPrefix, 16, 1234, "thd/kes2lyrwapi1234", 0},
        {20, kWapiPrefix, 16, 12345, nullptr, ERANGE},
        {32, kCwp, 15, 999999999, "chn/kes2lyrcwp999999999", 0},
        {32, kCwp, 15, 1000000000, nullptr, kError},
        {15, kCwp, 15, 1, nullptr, kError},
        {16, kCwp, 15, 1, "chn/kes2lyrcwp1", 0},
        {8, kCwp, 5, 1, nullptr, ERANGE},  // longer than it says
        {20, nullptr, 15, 1, nullptr, kError},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.index);
        std::vector<char> name(row.size, 'x');
        EXPECT_EQ(
            LyrKes_ConstructName(name.data(), row.size, row.prefix, row.prefixLength, row.index),
            row.failure);
        if (row.name != nullptr) {
            std::string padded = row.name;
            padded.resize(row.size);
            EXPECT_EQ(std::string(name.begin(), name.end()), padded) << "zeros behind the name";
        }
    }
    EXPECT_EQ(LyrKes_ConstructName(nullptr, 20, kCwp, 15, 1), kError);
}

// --- the hand-off ---

TEST_F(Handoff, RefusedBeforeAnyChannel) {
    const Instance instance(3, kCapwap);
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 1, 3), 0u);
    const std::string length = Text(ApPacket()->pktLen);
    TovThreadInfo **const threads = g_lyrHostThreadInfoId[kCapwap];
    uint32_t *const channels = g_kes2lyrHostChnMap[kCapwap];
    const struct {
        uint32_t key, pktType;
        bool channelMap, threadTable;
        std::string line;
    } cases[] = {
        {28, 0, true, true, "lb key 28 out of bound, svc num 28, pkt type 0"},
        {0xFFFFFFFF, 1, true, true, "lb key 4294967295 out of bound, svc num 28, pkt type 1"},
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
        EXPECT_THAT(Reports(), ElementsAre(row.line));
        EXPECT_THAT(Prints(), IsEmpty());
        EXPECT_EQ(HostMbufGetReceivePortIndex(packet.get()), 6u);
    }
    g_kes2lyrHostChnMap[kCapwap] = channels;
    g_lyrHostThreadInfoId[kCapwap] = threads;
    EXPECT_EQ(standin::CallCount("TOV_ChannelDcSend"), 0u);
    EXPECT_EQ(standin::CallCount("TOV_EventWrite"), 0u);
}

TEST_F(Handoff, SendsAndWakes) {
    standin::MapInterface(5, 105);
    standin::MapInterface(6, 106);
    for (const uint32_t pktType : {kCapwap, kWapi}) {
        Instance instance(27, pktType, 1);
        ASSERT_EQ(LyrKes_DistAddChannel(27, pktType), 0u);
        const std::string channel = Text(instance.ChannelId()), type = Text(pktType);
        const std::string sent = Text(g_lyrKesChnSendSucceedPktCnt[pktType] + 1);
        const std::string failed = Text(g_lyrKesChnSendFailPktCnt[pktType] + 1);

        Packet first = ApPacket(true);
        HostMbufSetOeIfIndex(first.get(), 5);
        ForgetLines();
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(first.get(), 27, pktType), 0u);
        EXPECT_THAT(Reports(),
                    ElementsAre("tov channel dc send ok, lb key 27, succeed count " + sent + "."));
        EXPECT_THAT(Prints(), ElementsAre("[LYR_HOST]Channel send pkt succeeded, ret:0, key:27, "
                                          "channelId:" +
                                          channel + ", successCnt:" + sent + ", pktType:" + type));
        EXPECT_TRUE(instance.WokenWith(1u << pktType));

        // The channel is full.
        const Packet second = ApPacket(true);
        ForgetLines();
        standin::CountCalls();
        EXPECT_EQ(LyrKes_ChnSendPktToLyr(second.get(), 27, pktType), kError);
        EXPECT_THAT(Reports(), ElementsAre("LYR ChannelDcSend failed,ret:2,key:27,channelId:" +
                                           channel + ",cnt:" + failed + ",pktType:" + type + "."));
        EXPECT_THAT(Prints(), ElementsAre("[LYR_HOST]Channel send pkt failed, ret:2, key:27, "
                                          "channelId:" +
                                          channel + ", failCnt:" + failed + ", pktType:" + type));
        EXPECT_EQ(standin::CallCount("TOV_EventWrite"), 1u) << "wakes all the same";

        const Packet received = instance.Receive();
        EXPECT_EQ(received.get(), first.release());
        EXPECT_EQ(HostMbufGetOeIfIndex(received.get()), 105u);
        EXPECT_EQ(HostMbufGetReceivePortIndex(received.get()), 106u);
        EXPECT_EQ(instance.Receive(), nullptr);
    }
}

// --- stations ---

TEST_F(Handoff, InstanceOfAStation) {
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
    EXPECT_THAT(Reports(), ElementsAre("sta inst spec is illegal, instSpec = 0"));
}

// What an instance gets of them, and what is said, is the packet hook's to show; the counts go on.
TEST_F(Handoff, WapiFramesAreCounted) {
    const uint32_t offered = g_lyrKesWapiPacket2Svc, failed = g_lyrKesWapiPacket2Fail;
    const capwap::FrameSpec wapi = {.srcMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55},
                                    .etherType = 0x88B4};
    Instance station(10, kWapi, 1);
    ASSERT_EQ(Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{10, 4}), 0u);
    for (const uint32_t result : {0u, kNotHandedOver}) {  // then the channel is full
        Packet packet = MakePacket(wapi, {.diagnose = true});
        ForgetLines();
        EXPECT_EQ(LyrKes_SendPktToLyrStaByChannel(packet.get()), result);
        const uint32_t offers = offered + (result == 0 ? 1 : 2);
        EXPECT_EQ(Prints().at(0), "[LYR_HOST]Wapi packet, mac:0011-2233-4455, key:10, cnt:" +
                                      Text(offers) + ", fail:" + Text(failed));
        EXPECT_EQ(g_lyrKesWapiPacket2Svc, offers);
        if (result == 0) {
            packet.release();
        }
    }
    EXPECT_EQ(g_lyrKesWapiPacket2Fail, failed + 1);
    EXPECT_TRUE(station.WokenWith(2));

    LyrKes_Exit();
    standin::JoinCreatedThreads();
    EXPECT_EQ(LyrKes_GetStaSvcInfo(), 0u);
    ASSERT_EQ(LyrKes_Init(), 0u);
    EXPECT_EQ(g_lyrKesWapiPacket2Svc, offered + 2);
    EXPECT_EQ(g_lyrKesWapiPacket2Fail, failed + 1);
}

}  // namespace
