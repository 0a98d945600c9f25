#include <unistd.h>

#include <atomic>
#include <thread>

#include "audits.h"
#include "lb/dist_lifecycle.h"

namespace {

using namespace host_test;

// Does something to each of the tables.
template <class Action>
void ForEachTable(Action action) {
    action(Ipv4Tunnels{});
    action(Ipv6Tunnels{});
    action(KaSessions{});
}

class AuditConcurrency : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        standin::SetLineSink([this](LineKind kind, std::string_view) {
            assertions_ += kind == LineKind::kAssertion;
        });
        // Few buckets, so that sweeps are many and neighbours meet in a chain.
        SetLinks(8, 8);
        TraceOn(0);
    }

    void Stop() {
        StopModule();
        EXPECT_EQ(HeldBesidesRecords(), 0u);
        EXPECT_EQ(standin::CurrentHoldings(), standin::Holdings{});
    }

    std::atomic<uint64_t> assertions_{0};
};

// A manager is at the door, and sends audits as soon as the service answers: the tables are made
// and released while the thread looks for them.
TEST_F(AuditConcurrency, ThousandsOfTablesMadeWithAManagerAtTheDoor) {
    constexpr int kStarts = 100, kTablesPerStart = 30;
    alarm(280);  // a locker that is damaged keeps everyone waiting for ever
    Records audit = {Begin(1)};
    for (uint32_t n = 0; n < 20; ++n) {
        ForEachTable([&]<class Table>(Table) { audit.push_back(Confirmation<Table>(n, 1)); });
    }
    audit.push_back(Finish(1));
    const std::vector<uint8_t> wire = Batch(audit);
    Caller call;
    std::atomic<bool> stopping{false};
    std::thread manager([&] {
        while (!stopping) {
            call.Run(MUND_OP_BatchReconciliation, wire.data(), wire.size());
        }
    });
    for (int start = 0; start < kStarts; ++start) {
        const int served = call.served;
        ASSERT_EQ(LyrKes_Init(), 0u);
        while (call.served == served) {
            std::this_thread::yield();
        }
        for (int n = 1; n < kTablesPerStart; ++n) {
            LyrKes_Dist_Deinit();
            ASSERT_EQ(LyrKes_Dist_Init(), 0u);
        }
        DeclareController();
        ForEachTable([]<class Table>(Table) {
            ASSERT_EQ(Change<Table>(kAdd, 100, 2), 0u);
            EXPECT_EQ(OwnerOfPacket<Table>(100), 2u) << Table::kName;
        });
        Stop();
        ForEachTable([&]<class Table>(Table) { ASSERT_EQ(Table::kLocker, 0u) << start; });
    }
    stopping = true;
    manager.join();
    EXPECT_EQ(call.wrong, 0);
    alarm(0);
}

// The thread of a run that is over, or that failed to start, is not in the next one's way.
TEST_F(AuditConcurrency, EveryStartAuditsHoweverSoonAfterTheLast) {
    for (int round = 0; round < 100; ++round) {
        standin::SetStrict(round % 2 == 0);
        if (round % 3 == 0) {
            standin::FailCall("HostHookRegister", 5);
            ASSERT_EQ(LyrKes_Init(), 1u);
            standin::ClearFaults();
        }
        ASSERT_EQ(LyrKes_Init(), 0u);
        ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 1, 1), 0u);
        Audit({Begin(1), Finish(1)});
        ASSERT_TRUE(EntriesOf<Ipv4Tunnels>().empty()) << round;
        Stop();
    }
    EXPECT_EQ(assertions_, 0u);
}

}  // namespace
