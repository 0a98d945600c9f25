#include "lb/tunnel_registration.h"

#include <functional>

#include "channel/service_channel.h"
#include "channel/station_service.h"
#include "dist_tables.h"
#include "lb/dist_lifecycle.h"
#include "module/capability.h"
#include "standin/channels.h"

namespace {

using namespace host_test;

constexpr uint32_t kInstances = 28;
constexpr uint32_t kCapwap = LYR_PKT_TYPE_CAPWAP;
constexpr uint32_t kWapi = LYR_PKT_TYPE_WAPI;

std::vector<uint32_t> Channels(uint32_t pktType) {
    const uint32_t *map = LyrKes_GetChnMapByPktType(pktType);
    return {map, map + g_lyrHostsvcNum + 1};
}

std::string NoChannel(const std::string &name) {
    return "get channel id by channel name " + name + " failed.";
}

template <class Table>
class Registration : public TracedHostTest {};
TYPED_TEST_SUITE(Registration, AllTables, TableNames);

TYPED_TEST(Registration, OnlyANewKeyAsksForAChannelAndNoNodeIdBeyondTheInstancesIsTaken) {
    constexpr uint32_t kAsks = TypeParam::kNeedsChannel;
    const struct {
        uint32_t operation, nodeId, result;
        uint32_t lines;  // about a missing channel, or about the node id
    } steps[] = {
        {kAdd, kInstances, 1, 1}, {kAdd, 3, 0, kAsks},         {kAdd, 5, 0, 0},
        {kAdd, 0xFFFFFFFF, 1, 1}, {kDelete, kInstances, 0, 0}, {kAdd, kInstances - 1, 0, kAsks},
    };
    for (const auto &[operation, nodeId, result, lines] : steps) {
        SCOPED_TRACE(Text("operation %u, node id %u", operation, nodeId));
        this->ForgetLines();
        EXPECT_EQ(Change<TypeParam>(operation, 1, nodeId), result);
        const std::string line = result == 0
                                     ? NoChannel("chn/kes2lyrcwp" + std::to_string(nodeId))
                                     : Text("Add %s tunnel nodeId %u out of bound, svc num 28",
                                            TypeParam::kName, nodeId);
        EXPECT_EQ(this->TakeReports(), Texts(lines, line));
    }
    EXPECT_THAT(Channels(kCapwap), Each(TOV_CHANNEL_ID_NONE));
}

TYPED_TEST(Registration, AddWithoutMemoryFailsAndAddsNothing) {
    const std::string name = TypeParam::kName;
    this->ForgetLines();
    standin::FailCall("TovMemAllocInner");
    EXPECT_EQ(Change<TypeParam>(kAdd, 1, 3), 1u);
    EXPECT_THAT(this->TakeReports(), ElementsAre("Add " + name + " tunnel TovMemAlloc failed"));
    EXPECT_THAT(ContentsOf<TypeParam>(), IsEmpty());
    EXPECT_EQ(TypeParam::kLocker, 0u);
    ASSERT_EQ(Change<TypeParam>(kAdd, 1, 3), 0u);
    EXPECT_THAT(standin::ModuleMemoryByTag(kModuleId), Contains(StartsWith(TypeParam::kAddTag)));
}

class RegistrationTest : public TracedHostTest {
  protected:
    Texts Reported(const std::function<void()> &run) {
        ForgetLines();
        run();
        return TakeReports();
    }
};

// An add searches, makes its entry with no lock held, and then inserts it. The line about a missing
// channel comes out in between.
TEST_F(RegistrationTest, InsertionLooksAgainAtWhatTheSearchSaw) {
    using Table = Ipv4Tunnels;
    const Instance known(1, kCapwap);
    ASSERT_EQ(Change<Table>(kAdd, 2, 1), 0u);
    auto add = [](uint32_t nodeId) {
        const auto request = Table::Request(kAdd, 1, nodeId);
        return LyrHost_Kes_CwpTunnel(&request, nullptr);
    };
    auto addMeanwhile = [&](const std::function<void()> &meanwhile) {
        standin::SetLineSink([&](LineKind kind, std::string_view) {
            if (kind == LineKind::kReport) {
                meanwhile();
            }
        });
        const uint32_t result = add(7);
        standin::SetLineSink({});
        return result;
    };
    EXPECT_EQ(addMeanwhile([&] { EXPECT_EQ(add(1), 0u); }), 0u);
    EXPECT_THAT(ContentsOf<Table>(),
                testing::UnorderedElementsAre(std::pair(1u, 7u), std::pair(2u, 1u)));

    const auto remove = Table::Request(kDelete, 1, 0);
    ASSERT_EQ(LyrHost_Kes_CwpTunnel(&remove, nullptr), 0u);
    const auto memory = standin::ModuleMemory(kModuleId).blocks;
    LyrKesDistIpv4Key key;
    LyrKes_DistIPv4SetKey(&key, &remove);
    LyrKesDistBucket &bucket = g_LyrKes_DistIpv4Tbl[Table::kIndexOf(&key, sizeof(key))];
    EXPECT_EQ(addMeanwhile([&] { bucket.next = nullptr; }), kError);
    bucket.next = &bucket;
    EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, memory);

    EXPECT_EQ(addMeanwhile(LyrKes_Dist_Deinit), kError);
    ASSERT_EQ(LyrKes_Dist_Init(), 0u);
}

TEST_F(RegistrationTest, SessionThatCannotBeCopiedIsNotAdded) {
    standin::FailCall("memcpy_s");
    EXPECT_THAT(Reported([] { EXPECT_EQ(Change<KaSessions>(kAdd, 1, 3), 1u); }),
                ElementsAre(Text("Add KA tunnel memcpy_s failed, err = %d", ERANGE)));
    EXPECT_THAT(ContentsOf<KaSessions>(), IsEmpty());
}

TEST_F(RegistrationTest, ResolvesTheInstanceOnceItIsThere) {
    const std::string channel = "chn/kes2lyrcwp7", thread = "thd/kes2lyrcwp7";
    auto addTunnel = [](uint32_t n) { EXPECT_EQ(Change<Ipv4Tunnels>(kAdd, n, 7), 0u); };
    EXPECT_THAT(Reported([&] { addTunnel(1); }), ElementsAre(NoChannel(channel)));

    const uint32_t lone = standin::OpenChannel(channel, 4);
    EXPECT_THAT(Reported([&] { addTunnel(2); }),
                ElementsAre("get thread info by thread name " + thread + " failed."));
    EXPECT_THAT(Channels(kCapwap), Each(TOV_CHANNEL_ID_NONE));
    standin::CloseChannel(lone);

    const Instance instance(7, kCapwap);
    EXPECT_THAT(Reported([&] { addTunnel(1); }), IsEmpty()) << "a refresh resolves nothing";
    EXPECT_EQ(g_kes2lyrHostChnMap[kCapwap][7], TOV_CHANNEL_ID_NONE);
    EXPECT_THAT(Reported([&] { addTunnel(3); }), IsEmpty());
    EXPECT_EQ(g_kes2lyrHostChnMap[kCapwap][7], instance.ChannelId());
    EXPECT_EQ(g_lyrHostThreadInfoId[kCapwap][7], TOV_ThreadInfoGetByName(thread.c_str()));
    EXPECT_THAT(Channels(kWapi), Each(TOV_CHANNEL_ID_NONE));

    standin::CountCalls();
    addTunnel(4);
    EXPECT_EQ(Change<Ipv4Tunnels>(kDelete, 4, 7), 0u);
    EXPECT_EQ(standin::CallCount("TOV_ChannelGetIdByName"), 0u) << "resolved already";
    EXPECT_EQ(g_kes2lyrHostChnMap[kCapwap][7], instance.ChannelId());
}

TEST_F(RegistrationTest, InstanceThatCannotBeResolvedGetsNoChannel) {
    EXPECT_THAT(Reported([] { EXPECT_EQ(LyrKes_DistAddChannel(3, 2), kError); }),
                ElementsAre("channel map not initialized, pid 3, pktType 2"));
    TovThreadInfo **threads = std::exchange(g_lyrHostThreadInfoId[kWapi], nullptr);
    EXPECT_THAT(Reported([] { EXPECT_EQ(LyrKes_DistAddChannel(3, kWapi), kError); }),
                ElementsAre("thread info not initialized, pid 3, pktType 1"));
    g_lyrHostThreadInfoId[kWapi] = threads;
    EXPECT_EQ(LyrKes_DistAddChannel(kInstances, kWapi), kError);

    // A name of 20 characters does not fit.
    standin::SetCapability("WCWP_SPEC_SVC_NUM", 20000);
    Restart();
    EXPECT_THAT(Reported([] { EXPECT_EQ(LyrKes_DistAddChannel(12345, kWapi), kError); }),
                IsEmpty());
    EXPECT_THAT(Reported([] { EXPECT_EQ(LyrKes_DistAddChannel(12345, kCapwap), kError); }),
                ElementsAre(NoChannel("chn/kes2lyrcwp12345")));
}

TEST_F(RegistrationTest, StationRangeBeyondTheInstancesIsCutOrRefused) {
    const struct {
        uint32_t start, count;
        bool accepted;
        uint32_t first, end;  // instances resolved
    } cases[] = {
        {20, 10, true, 20, 28},  // cut at the last instance
        {0, 28, true, 0, 28},         {3, 1, true, 3, 4},           {5, 0, true, 0, 0},
        {28, 28, true, 0, 0},         {29, 0, false, 0, 0},         {0, 29, false, 0, 0},
        {1, 0xFFFFFFFF, false, 0, 0}, {0xFFFFFFFF, 1, false, 0, 0},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(testing::Message() << row.start << ", " << row.count);
        LyrKes_SetStaSvcInfo(0x700000009);
        std::vector<std::string> expected;
        for (uint32_t node = row.first; node < row.end; ++node) {
            expected.push_back(NoChannel("chn/kes2lyrwapi" + std::to_string(node)));
        }
        if (!row.accepted) {
            expected = {
                Text("Invalid sta vcpu info, startVcpuId:%u, instSpec:%u", row.start, row.count)};
        }
        std::vector<uint8_t> reply;
        const LyrKesWapiTunnelReq request = {row.start, row.count};
        const uint32_t refused = row.accepted ? 0 : 1;
        const auto lines =
            Reported([&] { EXPECT_EQ(Call(MUND_OP_WapiTunnel, request, &reply), refused); });
        EXPECT_EQ(lines, expected);
        EXPECT_THAT(reply, ElementsAre(refused, 0, 0, 0));
        EXPECT_EQ(LyrKes_GetStaSvcInfo(),
                  row.accepted ? uint64_t{row.count} << 32 | row.start : 0x700000009);
    }

    const Instance instance(20, kWapi);
    ASSERT_EQ(Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{20, 1}), 0u);
    EXPECT_EQ(g_kes2lyrHostChnMap[kWapi][20], instance.ChannelId());
}

}  // namespace
