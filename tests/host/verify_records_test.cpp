#include "verify/verify_records.h"

#include <cerrno>

#include "audits.h"

namespace {

using namespace host_test;

using Descriptions = std::vector<LyrKesVerifyTunnel>;

class VerifyRecords : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        from_ = WallClockSecond();
    }

    void ExpectRead(const Descriptions &added, uint8_t listIndex = 0, uint8_t type = 1) const {
        ExpectVerifyRecords(added, from_, WallClockSecond(), listIndex, type);
    }

    // A description of which every byte is of `n`.
    static LyrKesVerifyTunnel Filled(uint8_t n) {
        LyrKesVerifyTunnel tunnel;
        std::memset(&tunnel, n, sizeof(tunnel));
        return tunnel;
    }

    static uint32_t Add(uint32_t listIndex, uint8_t type, const LyrKesVerifyTunnel &tunnel,
                        uint32_t length = sizeof(LyrKesVerifyTunnel)) {
        return LyrKes_VerifyRcdAdd(listIndex, type, &tunnel, length);
    }

  private:
    uint32_t from_ = 0;
};

// Removes tunnels by an audit, one or all of a table at a time.
template <class Table>
void RemoveAllOf(uint32_t nodeId, Descriptions *removed) {
    for (const auto &[n, owner] : ContentsOf<Table>()) {
        if (owner == nodeId) {
            removed->push_back(Description(Table::Request(kAdd, n, nodeId)));
        }
    }
    Audit({Begin(nodeId), Finish(nodeId)});
}

TEST_F(VerifyRecords, RemovedTunnelsNewestFirst) {
    Descriptions removed;
    ExpectRead(removed);
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 300, 1), 0u);
    ASSERT_EQ(Change<KaSessions>(kAdd, 1, 1), 0u);
    RemoveAllOf<Ipv4Tunnels>(1, &removed);
    ASSERT_EQ(Change<Ipv6Tunnels>(kAdd, 300, 2), 0u);
    RemoveAllOf<Ipv6Tunnels>(2, &removed);
    ASSERT_EQ(Call(MUND_OP_CwpTunnel, TunnelRequest(kAdd, "2001:db8::1", 1, "2001:db8::2:3", 2, 3)),
              0u);
    Audit({Begin(3), Finish(3)});
    removed.push_back(
        {1, 0, 0, {0x2001, 0x0DB8, 0, 0, 0, 0, 0, 1}, {0x2001, 0x0DB8, 0, 0, 0, 0, 2, 3}, 1, 2});
    ASSERT_EQ(removed.size(), 3u);
    ExpectRead(removed);
    ExpectRead(removed);  // reading takes nothing away
    for (const uint8_t listIndex : {uint8_t{1}, uint8_t{2}, uint8_t{255}}) {
        ExpectRead({}, listIndex);
    }
}

TEST_F(VerifyRecords, OutlastTheStopAndEndWithTheNextStart) {
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 7, 1), 0u);
    Descriptions removed;
    RemoveAllOf<Ipv4Tunnels>(1, &removed);
    const auto expectThere = [&removed] {
        LyrKesVerifyRcdGetRsp reply = {};
        EXPECT_EQ(LyrKes_VerifyRcdGet(0, &reply.rcdNum, reply.records, 56), 0u);
        EXPECT_EQ(reply.rcdNum, 1u);
        EXPECT_TRUE(SameBytes(reply.records[0].tunnel, removed[0]));
    };
    StopModule();
    expectThere();
    EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, 1u);
    for (const bool fails : {true, false}) {
        SCOPED_TRACE(fails);
        ASSERT_EQ(Add(0, 1, removed[0]), 0u);
        if (fails) {
            standin::FailCall("TovThreadCreate");
        }
        EXPECT_EQ(LyrKes_Init(), fails ? 1u : 0u);
        EXPECT_EQ(LyrKes_VerifyRcdGetCnt(0), 0u);
        EXPECT_TRUE(!fails || standin::ModuleMemory(kModuleId).blocks == 0);
    }
    ExpectRead({});
}

TEST_F(VerifyRecords, BrokenNodeStaysAndNothingElseSuffers) {
    for (uint8_t n = 1; n <= 100; ++n) {
        ASSERT_EQ(Add(0, 1, Filled(n)), 0u);
    }
    // The second one of a full list is broken: the first has no neighbour that points back at it.
    LyrKesVerifyRcdLinks *const first = g_lyrKesVerifyRcd[0].first, *const second = first->next;
    for (LyrKesVerifyRcdLinks *const wrong :
         {static_cast<LyrKesVerifyRcdLinks *>(nullptr), second, g_lyrKesVerifyRcd[0].last}) {
        second->prev = wrong;
        const size_t blocks = standin::ModuleMemory(kModuleId).blocks;
        EXPECT_EQ(Add(0, 1, Filled(101)), 0u) << "lost: there is no room";
        EXPECT_EQ(LyrKes_VerifyRcdGetCnt(0), 100u);
        EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, blocks);
        const LyrKesVerifyRcdGetRsp reply = ReadVerifyRecords();
        EXPECT_EQ(reply.rcdNum, 100u);
        EXPECT_TRUE(SameBytes(reply.records[0].tunnel, Filled(100)));
    }
    for (int round = 0; round < 2; ++round) {
        LyrKes_VerifyRcdClearAllTable();
        EXPECT_EQ(LyrKes_VerifyRcdGetCnt(0), 2u);
        EXPECT_EQ(g_lyrKesVerifyRcd[0].first, first);
        second->prev = nullptr;
    }
    second->prev = first;
    LyrKes_VerifyRcdClearAllTable();
    ExpectRead({});
}

TEST_F(VerifyRecords, HundredAndFirstPushesTheFirstOut) {
    const size_t blocks = standin::ModuleMemory(kModuleId).blocks;
    for (const uint32_t count : {99u, 1u, 1u, 101u}) {
        Descriptions removed;
        const uint32_t before = LyrKes_VerifyRcdGetCnt(0);
        for (uint32_t n = 1; n <= count; ++n) {
            ASSERT_EQ(Change<Ipv6Tunnels>(kAdd, n, 1), 0u);
        }
        RemoveAllOf<Ipv6Tunnels>(1, &removed);
        ASSERT_EQ(removed.size(), count);
        const uint32_t expected = std::min(before + count, 100u);
        EXPECT_EQ(LyrKes_VerifyRcdGetCnt(0), expected);
        EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, blocks + expected);
        if (count >= 100) {
            ExpectRead(removed);
        }
    }
}

TEST_F(VerifyRecords, ResetClearsBothLists) {
    for (int round = 0; round < 2; ++round) {
        const Descriptions first = {Filled(1), Filled(2)}, second = {Filled(3), Filled(4)};
        for (size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(Add(0, 1, first[i]), 0u);
            EXPECT_EQ(Add(1, 9, second[i]), 0u);
        }
        ExpectRead(first);
        ExpectRead(second, 1, 9);
        EXPECT_EQ(Call(MUND_OP_VerifyRcdReset, nullptr, MundRequestSize(MUND_OP_VerifyRcdReset)),
                  0u);
        ExpectRead({});
        ExpectRead({}, 1);
    }
}

TEST_F(VerifyRecords, DescriptionsOfAnyLengthUpToTheirOwn) {
    TraceOn();
    const LyrKesVerifyTunnel whole = Filled(0xAB);
    Descriptions added;
    for (const uint32_t length : {0u, 1u, 8u, 47u, 48u}) {
        EXPECT_EQ(Add(0, 200, whole, length), 0u) << length;
        LyrKesVerifyTunnel kept = {};
        std::memcpy(&kept, &whole, length);
        added.push_back(kept);
    }
    const uint8_t tooLong[64] = {};
    EXPECT_EQ(LyrKes_VerifyRcdAdd(0, 200, tooLong, 49), 1u);
    EXPECT_EQ(LyrKes_VerifyRcdAdd(0, 200, nullptr, 0), 1u);
    EXPECT_THAT(TakeReports(), IsEmpty());
    standin::FailCall("memcpy_s");
    EXPECT_EQ(Add(0, 200, whole), 1u);
    EXPECT_THAT(TakeReports(), ElementsAre(Text("kes verify recd add fail. ret: %d", ERANGE)));
    ExpectRead(added, 0, 200);
}

TEST_F(VerifyRecords, AllocationThatFailsLosesTheRecordAndWhatMadeWayForIt) {
    Descriptions added;
    for (uint8_t n = 1; n <= 100; ++n) {
        added.push_back(Filled(n));
        ASSERT_EQ(Add(0, 1, added.back()), 0u);
    }
    const size_t blocks = standin::ModuleMemory(kModuleId).blocks;
    for (int round = 0; round < 2; ++round) {  // the second has nothing to evict
        standin::FailCall("TovMemAllocInner");
        EXPECT_EQ(Add(0, 1, Filled(101)), 0u);
        if (round == 0) {
            added.erase(added.begin());
        }
        ExpectRead(added);
        EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, blocks - 1);
    }
    added.push_back(Filled(102));
    EXPECT_EQ(Add(0, 1, added.back()), 0u);
    ExpectRead(added);
}

}  // namespace
