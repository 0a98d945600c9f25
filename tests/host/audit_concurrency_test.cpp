#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "audits.h"
#include "lb/dist_lifecycle.h"
#include "traffic.h"

namespace {

using namespace host_test;
using namespace std::chrono_literals;

// The instances: the tunnels of two come, move and go, unconfirmed as often as not; those of one
// are confirmed in each of its audits, and one is never audited.
constexpr uint32_t kChanging = 2, kConfirmed = 2, kLeftAlone = 3, kInstances = 4;
// Tunnels and sessions below this number change owners.
constexpr uint32_t kMoving = 24;
// Those that stay are numbered by their owner.
constexpr uint32_t Kept(uint32_t nodeId) {
    return 100 + nodeId;
}

// Does something to each of the tables.
template <class Action>
void ForEachTable(Action action) {
    action(Ipv4Tunnels{});
    action(Ipv6Tunnels{});
    action(KaSessions{});
}

void SendBatch(Caller &call, const Records &records) {
    const std::vector<uint8_t> wire = Batch(records);
    call.Run(MUND_OP_BatchReconciliation, wire.data(), wire.size());
}

// Lets the audits that confirm what stays be sent only while it is there: what is added while an
// audit is open goes with its end.
class KeptThere {
  public:
    void Set(bool there) {
        const std::lock_guard lock(mutex_);
        there_ = there;
    }
    void Send(Caller &call, const Records &records) {
        const std::lock_guard lock(mutex_);
        if (there_) {
            SendBatch(call, records);
        }
    }

  private:
    std::mutex mutex_;
    bool there_ = false;
};

void SendAudits(Caller &call, KeptThere &keptThere, uint32_t round) {
    const uint32_t changing = round % kChanging;
    Records kept = {Begin(kConfirmed)};
    call(MUND_OP_Reconciliation, Begin(changing));
    ForEachTable([&]<class Table>(Table) {
        for (uint32_t n = round % 3; n < kMoving; n += 3) {
            call(MUND_OP_Reconciliation, Confirmation<Table>(n, changing));
        }
        kept.push_back(Confirmation<Table>(Kept(kConfirmed), kConfirmed));
        kept.push_back(Confirmation<Table>(Kept(kLeftAlone), kConfirmed));  // in vain
    });
    call(MUND_OP_Reconciliation, Finish(changing));
    kept.push_back(Finish(kConfirmed));
    keptThere.Send(call, kept);
}

void ChangeTunnels(Caller &call, uint32_t round) {
    ForEachTable([&]<class Table>(Table) {
        const uint32_t n = round % kMoving;
        const uint32_t operation = round % 5 == 0 ? kDelete : kAdd;
        call(Table::kOperation, Table::Request(operation, n, round / kMoving % kChanging));
    });
}

// Reads the verify records, and clears them now and then.
class RecordReader {
  public:
    void operator()(Caller &call, uint32_t round) {
        LyrKesVerifyRcdGetRsp reply = {};
        const uint8_t request[3] = {};
        if (call.Run(MUND_OP_VerifyRcdGet, request, sizeof(request),
                     reinterpret_cast<uint8_t *>(&reply))) {
            wrong += IsWhole(reply) ? 0 : 1;
            seen += reply.rcdNum;
        }
        if (round % 16 == 0) {
            call.Run(MUND_OP_VerifyRcdReset);
        }
    }

    std::atomic<uint64_t> seen{0};
    std::atomic<int> wrong{0};

  private:
    static bool IsWhole(const LyrKesVerifyRcdGetRsp &reply) {
        if (reply.msgLen != sizeof(reply) || reply.rcdNum > LYR_KES_VERIFY_RCD_NUM) {
            return false;
        }
        const std::span records(reply.records);
        return std::ranges::all_of(records.first(reply.rcdNum), IsRecord) &&
               std::ranges::all_of(records.subspan(reply.rcdNum), [](const LyrKesVerifyRcd &free) {
                   return free.time == 0 && free.excptType == 0 && free.tunnel.srcPort == 0;
               });
    }
    static bool IsRecord(const LyrKesVerifyRcd &record) {
        const LyrKesVerifyTunnel &tunnel = record.tunnel;
        const uint32_t host =
            tunnel.ipVer == 0 ? tunnel.srcIpv4 - capwap::Ipv4("172.16.0.0") : tunnel.srcIpv6[7];
        return record.excptType == 1 && record.time != 0 && tunnel.srcPort == 5246 &&
               host < kMoving;
    }
};

constexpr Place kPlaces[] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}};
static_assert(std::size(kPlaces) == kInstances);

std::vector<Kind> Kinds() {
    std::vector<Kind> kinds;
    ForEachTable([&]<class Table>(Table) {
        const std::string name = Table::kName;
        kinds.push_back({name + " 1", Table::Frame(1), {0, 1}});
        kinds.push_back({name + " 7", Table::Frame(7), {0, 1}});
        for (const uint32_t nodeId : {kConfirmed, kLeftAlone}) {
            kinds.push_back({name + ", kept", Table::Frame(Kept(nodeId)), {nodeId}});
        }
    });
    return kinds;
}

void AddKept() {
    DeclareController();
    ForEachTable([]<class Table>(Table) {
        for (const uint32_t nodeId : {kConfirmed, kLeftAlone}) {
            ASSERT_EQ(Change<Table>(kAdd, Kept(nodeId), nodeId), 0u);
        }
    });
}

void ExpectKept() {
    ForEachTable([]<class Table>(Table) {
        for (const uint32_t nodeId : {kConfirmed, kLeftAlone}) {
            EXPECT_EQ(OwnerOfPacket<Table>(Kept(nodeId)), nodeId) << Table::kName;
        }
    });
}

class AuditConcurrency : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        standin::SetLineSink([this](LineKind kind, std::string_view line) {
            removals_ += line.starts_with("recon del ");
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

    // With nothing else going on: audits of all instances take all that there is.
    void ExpectAuditsToEmptyTheTables() {
        standin::WaitUntilCreatedThreadsIdle();
        uint64_t entries = 0;
        ForEachTable([&]<class Table>(Table) { entries += EntriesOf<Table>().size(); });
        const uint64_t before = removals_;
        for (uint32_t nodeId = 0; nodeId < kInstances; ++nodeId) {
            // One that is open may have marks in it.
            Audit({Begin(nodeId), Finish(nodeId), Begin(nodeId), Finish(nodeId)});
        }
        EXPECT_EQ(removals_ - before, entries);
        ForEachTable([&]<class Table>(Table) { EXPECT_TRUE(EntriesOf<Table>().empty()); });
    }

    std::atomic<uint64_t> removals_{0}, assertions_{0};
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
    Caller call;
    std::atomic<bool> stopping{false};
    std::thread manager([&] {
        while (!stopping) {
            SendBatch(call, audit);
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
        AddKept();
        ExpectKept();
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

TEST_F(AuditConcurrency, AuditsChangesLookUpsReadsAndStopsAtOnce) {
    Caller call;
    KeptThere keptThere;
    RecordReader reader;
    Traffic traffic(Kinds(), kPlaces);
    std::atomic<bool> stopping{false};
    std::vector<std::thread> threads;
    auto keepDoing = [&](auto action) {
        threads.emplace_back([&stopping, action] {
            for (uint32_t round = 0; !stopping; ++round) {
                action(round);
                std::this_thread::sleep_for(50us);
            }
        });
    };
    keepDoing([&](uint32_t round) { SendAudits(call, keptThere, round); });
    keepDoing([&](uint32_t round) { ChangeTunnels(call, round); });
    keepDoing([&](uint32_t round) { reader(call, round); });
    keepDoing([&](uint32_t round) {
        traffic.Forward(round);
        traffic.Receive();
    });

    const auto deadline = std::chrono::steady_clock::now() + 60s;
    const auto allSeen = [&] {
        return removals_ > 0 && reader.seen > 0 && traffic.EveryKindArrived();
    };
    for (int round = 0;; ++round) {
        SCOPED_TRACE(round);
        EXPECT_EQ(LyrKes_Init(), 0u);
        AddKept();
        keptThere.Set(true);
        std::this_thread::sleep_for(60ms);
        ExpectKept();
        if ((round >= 12 && allSeen()) || std::chrono::steady_clock::now() > deadline) {
            break;
        }
        keptThere.Set(false);
        Stop();
    }
    EXPECT_TRUE(allSeen()) << removals_ << " removals, " << reader.seen << " records";
    stopping = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    ExpectAuditsToEmptyTheTables();
    Stop();
    traffic.Receive();
    traffic.ExpectConservation();
    EXPECT_EQ(call.wrong, 0);
    EXPECT_EQ(reader.wrong, 0);
    EXPECT_EQ(assertions_, 0u);
}

}  // namespace
