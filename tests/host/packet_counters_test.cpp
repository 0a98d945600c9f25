// The counters by class and result, from the packet hook to the service's reply.
#include "dfx/packet_counters.h"

#include "channel/service_channel.h"
#include "dfx/drop_watch.h"
#include "dist_tables.h"
#include "kes/hook.h"
#include "standin/packet_path.h"

namespace {

using namespace host_test;
using capwap::Bytes;

// The counters of a row, by name: the rest is 0.
LyrKesPktStat Row(uint32_t rx, uint32_t sendOk = 0, uint32_t sendFail = 0, uint32_t procFail = 0,
                  uint32_t srcMismatch = 0, uint32_t distFail = 0, uint32_t kaSessionFail = 0) {
    return {rx, sendOk, sendFail, procFail, srcMismatch, distFail, kaSessionFail};
}

class PacketCounters : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        LyrKes_ClearCtrlPktStatic();
        DeclareController();
    }
    static LyrKesGetPktStatisticsRsp Read() {
        return Ask<LyrKesGetPktStatisticsRsp>(MUND_OP_GetPktStatistics, 0);
    }
    // Sends a packet down the receive path; gives it back whoever has it.
    static void Receive(const capwap::FrameSpec &frame) {
        Packet packet = MakePacket(frame);
        if (standin::RunReceivePath(packet.get()) == standin::Fate::kTaken) {
            (void)packet.release();
        }
    }
};

TEST_F(PacketCounters, PacketCountsInItsClassAndForItsResult) {
    constexpr const char *kAp = "172.16.0.1";
    const Bytes echo = capwap::ControlMessage(13, 1, {});
    const Bytes keepalive = capwap::Keepalive({1, 0x12345678, 0, 0xDEADBEEF});
    // A keepalive whose session id element is cut off.
    Bytes shortKeepalive = keepalive;
    shortKeepalive.resize(shortKeepalive.size() - 4);
    const auto control = [&](const char *from, const char *to) {
        return UdpFrame(from, 5246, to, 5246, echo);
    };
    const auto data = [](Bytes payload) {
        return UdpFrame(kAp, 5247, kController, 5247, std::move(payload));
    };
    const struct {
        const char *name;
        capwap::FrameSpec frame;
        uint32_t row;
        LyrKesPktStat counts;
        bool hasTable = true;
    } cases[] = {
        {"control", control(kAp, kController), 0, Row(1, 1)},
        {"to another address", control(kAp, "10.0.0.9"), 0, Row(1, 0, 0, 1, 1)},
        {"without a table", control(kAp, kController), 0, Row(1, 0, 0, 1, 0, 1), false},
        {"nowhere to go", control("172.16.0.9", kController), 0, Row(1, 0, 1)},
        {"keepalive", data(keepalive), 1, Row(1, 1)},
        {"keepalive without session", data(shortKeepalive), 1, Row(1, 0, 0, 1, 0, 0, 1)},
        {"handshake", data(capwap::DtlsRecord(22, Bytes(20))), 2, Row(1, 0, 1)},
        {"data", data(capwap::DataFrame(Bytes(60))), 0, Row(0)},
        {"another port", UdpFrame(kAp, 5000, kController, 5001, echo), 0, Row(0)},
    };
    Instance instance(3, LYR_PKT_TYPE_CAPWAP);
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 1, 3), 0u);
    ASSERT_EQ(Change<KaSessions>(kAdd, 1, 3), 0u);
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        LyrKes_ClearCtrlPktStatic();
        LyrKesDistBucket *table = g_LyrKes_DistIpv4Tbl;
        g_LyrKes_DistIpv4Tbl = row.hasTable ? table : nullptr;
        Receive(row.frame);
        g_LyrKes_DistIpv4Tbl = table;
        LyrKesPktStat expected[LYR_KES_PKT_STAT_ROW_NUM] = {};
        expected[row.row] = row.counts;
        EXPECT_TRUE(std::ranges::equal(Read().rows, expected, SameBytes<LyrKesPktStat>));
        while (instance.Receive() != nullptr) {
        }
    }
}

TEST_F(PacketCounters, EveryClassOfAMaskCountsEveryResult) {
    for (uint32_t packetClass = 0; packetClass < 8; ++packetClass) {
        LyrKes_ClearCtrlPktStatic();
        for (const uint32_t result : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 9u, 0xFFFFFFFFu}) {
            LyrKes_CwpCtrlPktStatic(&packetClass, result);
        }
        for (uint32_t row = 0; row < 3; ++row) {
            const bool counted = (packetClass & 1u << row) != 0;
            EXPECT_TRUE(
                SameBytes(g_cwpPktStats[row], (counted ? Row(9, 1, 1, 4, 1, 1, 1) : Row(0))))
                << "class " << packetClass << " row " << row;
        }
    }
}

TEST_F(PacketCounters, ResetZeroesTheCountersAndNotTheWatch) {
    const uint32_t keepalive = 2;
    LyrKes_CwpCtrlPktStatic(&keepalive, 0);
    const LyrKesGetPktStatisticsRsp reply = Read();
    EXPECT_EQ(reply.rowNum, 3u);
    EXPECT_EQ(reply.counterNum, 7u);
    EXPECT_TRUE(SameBytes(reply.rows[1], Row(1, 1)));
    EXPECT_THAT(reply.reserved, Each(0));

    LyrKes_IncreasePktType(3, 4);
    EXPECT_EQ(g_lyrKesMsgDropStat.periodStart, LYR_DROP_WATCH_CLOSED) << "no drop of no class";

    LyrKesPktStat room[3] = {};
    LyrKes_GetCtrlPktStatic(room, sizeof(room) - 1);
    EXPECT_TRUE(SameBytes(room[1], Row(0))) << "too small a destination stays as it is";

    TraceOn();
    standin::FailEveryCall("RPC_IdlMsgCreate");
    void *slot = nullptr;
    EXPECT_EQ(LyrHost_Kes_GetPktStatistics(nullptr, &slot), 1u);
    EXPECT_EQ(LyrHost_Kes_GetPktStatistics(nullptr, nullptr), 1u);
    EXPECT_EQ(LyrHost_Kes_ResetPktStatistics(nullptr, nullptr), 1u);
    EXPECT_TRUE(SameBytes(g_cwpPktStats[1], Row(1, 1))) << "not reset without a slot for the reply";
    EXPECT_EQ(LyrHost_Kes_ResetPktStatistics(nullptr, &slot), 1u);
    EXPECT_TRUE(SameBytes(g_cwpPktStats[1], Row(0))) << "reset although there is no reply";
    standin::ClearFaults();
    EXPECT_EQ(slot, nullptr);
    EXPECT_THAT(TakeReports(),
                ElementsAre("LyrHost_Kes_GetPktStatistics inMsg or outMsg is NULL, proc fail.",
                            "LyrHost_Kes_ResetPktStatistics inMsg or outMsg is NULL, proc fail."));

    g_lyrKesMsgDropStat.alarmRaised = 1;
    LyrKes_CwpCtrlPktStatic(&keepalive, 0);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Call(MUND_OP_ResetPktStatistics, nullptr, 0, &bytes), 0u);
    EXPECT_THAT(bytes, ElementsAre(0, 0, 0, 0));
    EXPECT_TRUE(SameBytes(Read().rows[1], Row(0)));
    EXPECT_EQ(g_lyrKesMsgDropStat.alarmRaised, 1) << "the watch is not the counters'";
}

}  // namespace
