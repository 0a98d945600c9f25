#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <sstream>
#include <thread>

#include "audits.h"
#include "kes/memory.h"
#include "kes/queue.h"
#include "lb/dist_lifecycle.h"
#include "lb/dist_locker.h"
#include "verify/recon_queue.h"
#include "verify/recon_sweep.h"
#include "verify/recon_task.h"
#include "verify/verify_records.h"

namespace {

using namespace host_test;
using namespace std::chrono_literals;

const auto kReconAssertion =
    AllOf(StartsWith("src/host/lyr_kes/verify/lyr_kes_reconciliation:"), EndsWith(" code 0"));

uint32_t Queued() {
    return TovQueCount(g_lyrKesReconMsgQueue);
}

bool ThreadRuns() {
    return std::atomic_ref(g_lyrKesReconThreadRunning).load() == 1;
}

// --- audits, through the service ---

template <class Table>
class Audits : public HostTest {};
TYPED_TEST_SUITE(Audits, AllTables, TableNames);

// A script's steps, with a node and a tunnel: b1 begins the audit of node 1, c1.11 confirms its
// tunnel 11, f1 finishes, ?1 is a record of an unknown type; +1.11 adds a tunnel or gives it a new
// owner, -1.11 deletes it.
template <class Table>
void RunScript(const char *script, bool batched) {
    std::istringstream steps(script);
    Records batch;
    auto settle = [&] {
        if (!batch.empty()) {
            EXPECT_EQ(Send(std::exchange(batch, {})), 0u);
        }
        standin::WaitUntilCreatedThreadsIdle();
    };
    auto send = [&](const LyrKesReconRecord &record) {
        if (batched) {
            batch.push_back(record);
        } else {
            EXPECT_EQ(Send(record), 0u);
        }
    };
    for (char step = 0, dot = 0; steps >> step;) {
        uint32_t node = 0, n = 0;
        steps >> node;
        if (steps.peek() == '.') {
            steps >> dot >> n;
        }
        if (step == '+' || step == '-') {
            settle();
            EXPECT_EQ(Change<Table>(step == '+' ? kAdd : kDelete, n, node), 0u);
        } else if (step == 'c') {
            send(Confirmation<Table>(n, node));
        } else {
            send(Record(step == 'b'   ? LYR_KES_RECON_BEGIN
                        : step == 'f' ? LYR_KES_RECON_FINISH
                                      : 4,
                        node));
        }
    }
    settle();
}

// The entries by number, as node.number, with the mark of those that are marked.
template <class Table>
std::string Entries() {
    std::map<uint32_t, std::string> entries;
    for (const auto *entry : EntriesOf<Table>()) {
        const uint32_t n = Table::NumberOf(entry->key);
        entries[n] = std::to_string(entry->nodeId) + "." + std::to_string(n) +
                     (entry->reconMark != 0 ? "*" + std::to_string(entry->reconMark) : "");
    }
    std::string text;
    for (const auto &[n, entry] : entries) {
        text += (text.empty() ? "" : " ") + entry;
    }
    return text;
}

TYPED_TEST(Audits, Scripts) {
    const struct {
        const char *name, *script, *left;
    } cases[] = {
        {"twice before the finish", "b1 c1.11 c1.11", "1.11*2 1.12 2.21 2.22"},
        {"twice", "b1 c1.11 c1.11 f1", "1.11 2.21 2.22"},
        {"unknown", "b1 c1.11 c1.12 c1.99 f1", "1.11 1.12 2.21 2.22"},
        {"confirmed without a begin", "c1.11 c1.12", "1.11 1.12 2.21 2.22"},
        {"confirmed before the begin", "c1.11 b1 c1.12 f1", "1.12 2.21 2.22"},
        {"finish without a begin", "f1", "1.11 1.12 2.21 2.22"},
        {"confirmed after the finish", "b1 c1.11 f1 c1.11", "1.11 2.21 2.22"},
        {"begun and finished twice", "b1 c1.11 b1 f1 f1", "1.11 2.21 2.22"},
        {"a second audit starts from nothing", "b1 c1.11 f1 b1 f1", "2.21 2.22"},
        {"never finished", "b1 c1.11 b2 c2.21 f2", "1.11*1 1.12 2.21"},
        {"interleaved", "b1 b2 c2.21 c1.12 f1 f2", "1.12 2.21"},
        {"another node's", "b1 b2 c1.21 c2.22 f1", "2.21 2.22*1"},
        {"begun for another node", "b2 c1.11 f1", "1.11 1.12 2.21 2.22"},
        {"added and confirmed meanwhile", "b1 +1.13 c1.13 f1", "1.13 2.21 2.22"},
        {"refreshed or added meanwhile", "b1 c1.11 +1.11 +1.12 +1.13 f1", "1.11 2.21 2.22"},
        {"deleted and added anew", "b1 c1.11 c1.12 -1.11 +1.11 f1", "1.12 2.21 2.22"},
        {"moved with its mark", "b2 c2.21 +1.21 b1 f1", "1.21 2.22"},
        {"moved, at the finish after", "b2 c2.21 +1.21 b1 f1 b1 f1", "2.22"},
        {"moved away", "b1 +2.12 f1", "2.12 2.21 2.22"},
        {"the first and the last node", "+0.31 +27.32 b0 b27 f27 f0", "1.11 1.12 2.21 2.22"},
        {"no such node", "b1 c1.11 b28 c28.12 f28 c1.12 f1", "1.11 1.12 2.21 2.22"},
        {"not nearly", "b1 b4294967295 f4294967295 c1.11 f1", "1.11 2.21 2.22"},
        {"no such type", "b1 c1.11 ?1 c1.12 ?1 f1", "1.11 1.12 2.21 2.22"},
    };
    for (const auto &[name, script, left] : cases) {
        for (const bool batched : {false, true}) {
            SCOPED_TRACE(testing::Message() << name << (batched ? ", batched" : ""));
            RestartWithOneBucket();
            RunScript<TypeParam>("+1.11 +2.21 +1.12 +2.22", false);
            RunScript<TypeParam>(script, batched);
            EXPECT_EQ(Entries<TypeParam>(), left);
        }
    }
}

// --- broken chains ---

TYPED_TEST(Audits, BrokenChainEndsTheStepAndFreesNothingThatIsLinked) {
    using Table = TypeParam;
    constexpr auto sweep = std::is_same_v<Table, Ipv4Tunnels>   ? LyrKes_Recon_FinishProcLoopIpv4Tbl
                           : std::is_same_v<Table, Ipv6Tunnels> ? LyrKes_Recon_FinishProcLoopIpv6Tbl
                                                                : LyrKes_Recon_FinishProcLoopKaTbl;
    using Link = LyrKesDistBucket *LyrKesDistBucket::*;
    constexpr Link kNext = &LyrKesDistBucket::next, kPrev = &LyrKesDistBucket::prev;
    const struct {
        const char *name;
        uint32_t node;  // whose audit; the chain is 1.4 2.3 1.2 2.1
        size_t position;
        Link link;
        bool confirmFails;  // of the last one, 1
        const char *left;
    } cases[] = {
        {"next of another's", 1, 1, kNext, true, "2.1 1.2 2.3"},
        {"next of its own", 1, 2, kNext, true, "2.1 1.2 2.3"},
        {"next of the first", 1, 0, kNext, true, "2.1 1.2 2.3 1.4"},
        {"prev of its own", 1, 2, kPrev, false, "2.1 1.2 2.3"},
        {"next of the last", 2, 3, kNext, false, "2.1 1.2 1.4"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        RestartWithOneBucket();
        RunScript<Table>("+2.1 +1.2 +2.3 +1.4", false);
        const auto entries = EntriesOf<Table>();
        const size_t blocks = standin::ModuleMemory(kModuleId).blocks;
        LyrKesDistBucket *const linked = std::exchange(entries[row.position]->*row.link, nullptr);
        auto expectReport = [&](const char *step) {
            EXPECT_EQ(Table::kLocker, 0u) << step << " keeps the lock";
            EXPECT_THAT(this->TakeLines(LineKind::kAssertion), ElementsAre(kReconAssertion))
                << step;
        };
        // Nothing is queued: this thread may stand in for the idle one.
        reconBeginFlag[3] = 1;
        this->ForgetLines();
        const auto confirmation = Confirmation<Table>(1, 3);
        EXPECT_EQ(LyrHost_Kes_ReconciliationProc(&confirmation), row.confirmFails ? 1u : 0u);
        if (row.confirmFails) {
            expectReport("confirmation");
        }
        EXPECT_EQ(sweep(row.node), 1u);
        expectReport("sweep");

        entries[row.position]->*row.link = linked;
        EXPECT_EQ(Entries<Table>(), row.left);
        const size_t removed = entries.size() - EntriesOf<Table>().size();
        EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks,
                  blocks - removed + LyrKes_VerifyRcdGetCnt(0));
        RunScript<Table>("b1 f1 b2 f2", true);
        EXPECT_EQ(Entries<Table>(), "");
    }
}

using AuditOfAll = HostTest;

TEST_F(AuditOfAll, BrokenTableKeepsNoneOfTheOthersFromTheSweep) {
    RestartWithOneBucket();
    RunScript<Ipv4Tunnels>("+1.1 +1.2", false);
    RunScript<Ipv6Tunnels>("+1.1 +1.2", false);
    RunScript<KaSessions>("+1.1 +1.2", false);
    auto *first = EntriesOf<Ipv4Tunnels>().front();
    LyrKesDistBucket *const next = std::exchange(first->next, nullptr);
    Audit({Begin(1), Finish(1), Confirmation<Ipv4Tunnels>(2, 1)});
    EXPECT_THAT(TakeLines(LineKind::kAssertion), ElementsAre(kReconAssertion));
    first->next = next;
    EXPECT_EQ(Entries<Ipv4Tunnels>(), "1.1 1.2") << "closed, all the same";
    EXPECT_EQ(Entries<Ipv6Tunnels>() + Entries<KaSessions>(), "");
}

TEST_F(AuditOfAll, EveryFieldOfAConfirmationCounts) {
    RestartWithOneBucket();
    const struct {
        bool ipv6;
        const char *src, *dst, *removal;
    } cases[] = {
        {false, "192.0.2.1", "192.0.2.2",
         "recon del IPv4 tunnel: nodeId:3 srcip:0xc0000201, srcport:1001, dstip:0xc0000202, "
         "dstport:2002, vpnId:70000"},
        {true, "2001:db8:1:2:3:4:5:6", "2001:db8::9",
         "recon del IPv6 tunnel: nodeId:3, srcipv6:20010db8:10002:30004:50006, "
         "dstipv6:20010db8:0:0:9, srcport:1001, dstport:2002, vpnId:70000"},
    };
    for (const auto &[ipv6, src, dst, removal] : cases) {
        SCOPED_TRACE(src);
        const auto request = TunnelRequest(kAdd, src, 1001, dst, 2002, 3, 70000);
        ASSERT_EQ(Call(MUND_OP_CwpTunnel, request), 0u);
        auto marks = [&, v6 = ipv6](const LyrKesCwpTunnelReq &confirmed) {
            Audit({Begin(3), Confirmation(confirmed)});
            return v6 ? EntriesOf<Ipv6Tunnels>().front()->reconMark
                      : EntriesOf<Ipv4Tunnels>().front()->reconMark;
        };
        const std::vector<LyrKesCwpTunnelReq> variations = Variations(request);
        uint32_t expected = 0;
        for (size_t i = 0; i < variations.size(); ++i) {
            expected += i >= 4 && (i < 6) == ipv6 ? 1 : 0;  // it is the same tunnel
            EXPECT_EQ(marks(variations[i]), expected) << "variation " << i;
        }
        LyrKesCwpTunnelReq otherFamily = request;
        otherFamily.srcAddr.ipVer ^= 1;
        EXPECT_EQ(marks(otherFamily), expected);
        EXPECT_EQ(marks(request), expected + 1);
        Audit({Finish(3)});
        TraceOn();
        Audit({Begin(3), Finish(3)});
        EXPECT_THAT(TakeReports(), ElementsAre(removal));
    }
    ASSERT_EQ(Change<KaSessions>(kAdd, 171, 3), 0u);
    Audit({Begin(3), Finish(3)});
    EXPECT_THAT(TakeReports(), ElementsAre("recon del KA tunnel: nodeId:3, session: "
                                           "ab-12345678-0-deadbeef"));
}

// --- without the thread, which could not make itself known: the test's thread takes its place ---

class WithoutThread : public HostTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        SetLinks(0);
        standin::FailCall("TOV_ThreadInfoRegByName");
        ASSERT_EQ(LyrKes_Init(), 0u);
        standin::JoinCreatedThreads();
        standin::ClearFaults();
        EXPECT_THAT(TakeLines(LineKind::kAssertion), ElementsAre(kReconAssertion));
        EXPECT_FALSE(ThreadRuns());
        TraceOn();
    }
    static uint32_t Process(const LyrKesReconRecord &record) {
        return LyrHost_Kes_ReconciliationProc(&record);
    }
};

TEST_F(WithoutThread, FullQueueRefusesAndLosesNothing) {
    constexpr uint32_t kConfirmed = 510;
    for (uint32_t n = 1; n <= kConfirmed + 2; ++n) {
        ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, n, 1), 0u);
    }
    for (const bool onOwnThread : {true, false}) {
        SCOPED_TRACE(onOwnThread);
        ASSERT_EQ(Send(Begin(1)), 0u);
        for (uint32_t n = 1; n <= kConfirmed; ++n) {
            ASSERT_EQ(Send(Confirmation<Ipv4Tunnels>(n, 1)), 0u);
        }
        ASSERT_EQ(Send(Records{Finish(1)}), 0u);
        ASSERT_EQ(Queued(), 512u);
        const std::string full = "Failed to enqueue node into recon msg queue, ret 2, count 512";
        ForgetLines();
        EXPECT_EQ(Send(Begin(1)), 1u);
        EXPECT_THAT(TakeReports(), ElementsAre(full, "Failed to write recon msg queue"));
        EXPECT_EQ(Send(Records{Begin(1), Finish(1)}), 1u);
        EXPECT_THAT(TakeReports(), ElementsAre(full, "Failed to write batch recon msg queue"));
        if (onOwnThread) {
            EXPECT_EQ(LyrKes_ReadReconMsgQueue(), 3u) << "the queue's word for empty";
            EXPECT_THAT(TakeReports(), ElementsAre(HasSubstr("srcip:0xac100200,"),
                                                   HasSubstr("srcip:0xac1001ff,")));
        } else {
            // No event tells the new thread of what was queued before it came.
            EXPECT_EQ(LyrKes_CreateReconTask(), 0u);
            standin::WaitUntilCreatedThreadsIdle();
            EXPECT_TRUE(ThreadRuns());
            EXPECT_THAT(TakeReports(), IsEmpty());
        }
        EXPECT_EQ(Queued(), 0u);
        EXPECT_THAT(EntriesOf<Ipv4Tunnels>(), SizeIs(kConfirmed));
    }
    TovPipeQue *const queue = g_lyrKesReconMsgQueue;
    EXPECT_EQ(LyrKes_CreateReconTask(), 0u) << "there is one";
    EXPECT_EQ(LyrKes_CreateReconMsgQueue(), 0u);
    standin::WaitUntilCreatedThreadsIdle();
    EXPECT_EQ(g_lyrKesReconMsgQueue, queue);
    EXPECT_THAT(TakeLines(LineKind::kAssertion), IsEmpty());
}

TEST_F(WithoutThread, QueueingThatFails) {
    const struct {
        const char *operation;
        Texts lines;  // before the failure's own
    } cases[] = {
        {"TovMemAllocInner", {}},
        {"memcpy_s", {}},
        {"TovQueEnq", {"Failed to enqueue node into recon msg queue, ret 2, count 0"}},
    };
    const std::string single = "Failed to write recon msg queue";
    const std::string batch = "Failed to write batch recon msg queue";
    const size_t blocks = standin::ModuleMemory(kModuleId).blocks;
    for (const auto &row : cases) {
        for (const bool batched : {false, true}) {
            SCOPED_TRACE(testing::Message() << row.operation << (batched ? ", batch" : ""));
            standin::FailCall(row.operation);
            ForgetLines();
            EXPECT_EQ(batched ? Send(Records{Begin(1)}) : Send(Begin(1)), 1u);
            standin::ClearFaults();
            Texts lines = row.lines;
            lines.push_back(batched ? batch : single);
            EXPECT_EQ(TakeReports(), lines);
            EXPECT_EQ(Queued(), 0u);
            EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, blocks);
        }
    }
    const LyrKesReconRecord record = Begin(1);
    const LyrKesBatchReconReq tooMany = {53687092, 0, &record};  // more bytes than 32 bits count
    EXPECT_EQ(LyrHost_Kes_BatchReconciliation(&tooMany, nullptr), 1u);
    EXPECT_THAT(TakeReports(), ElementsAre(batch));
    EXPECT_EQ(LyrKes_WriteReconMsgQueue(&record, 0xFFFFFFFF), 1u);
    // Nothing in them.
    const LyrKesBatchReconReq none = {0, 0, &record};
    EXPECT_EQ(LyrHost_Kes_Reconciliation(nullptr, nullptr), 2u);
    EXPECT_EQ(LyrHost_Kes_BatchReconciliation(nullptr, nullptr), 2u);
    EXPECT_EQ(LyrHost_Kes_BatchReconciliation(&none, nullptr), 2u);
    EXPECT_EQ(Queued(), 0u);
    EXPECT_THAT(TakeReports(), IsEmpty());
}

TEST_F(WithoutThread, DequeueThatFailsKeepsTheMessages) {
    RunScript<KaSessions>("+1.1", false);
    ASSERT_EQ(Send(Begin(1)), 0u);
    ASSERT_EQ(Send(Finish(1)), 0u);
    standin::FailCall("TovQueDeq", 2);
    EXPECT_EQ(LyrKes_ReadReconMsgQueue(), 3u);
    EXPECT_EQ(Queued(), 1u);
    EXPECT_EQ(Entries<KaSessions>(), "1.1");
    LyrKes_ReadReconMsgQueue();
    EXPECT_EQ(Entries<KaSessions>(), "");
    ASSERT_EQ(Send(Records{Begin(1), Begin(2)}), 0u);  // for the stop to release
    ASSERT_EQ(Send(Begin(1)), 0u);
}

TEST_F(WithoutThread, ResultsOfTheSteps) {
    RunScript<Ipv4Tunnels>("+1.1", false);
    const auto tunnel4 = Confirmation<Ipv4Tunnels>(1, 1);
    const auto tunnel6 = Confirmation<Ipv6Tunnels>(1, 1);
    const auto session = Confirmation<KaSessions>(1, 1);
    for (const LyrKesReconRecord &record : {tunnel4, tunnel6, session, Finish(1)}) {
        EXPECT_EQ(Process(record), 1u) << "no audit is open";
    }
    EXPECT_EQ(Process(Begin(1)), 0u);
    EXPECT_EQ(Process(Begin(1)), 0u);
    for (const LyrKesReconRecord &record : {tunnel4, tunnel6, session}) {
        EXPECT_EQ(Process(record), 0u) << "there or not";
    }
    for (const LyrKesReconRecord &record : {Begin(28), Finish(28), Record(4, 1)}) {
        EXPECT_EQ(Process(record), 1u);
    }
    EXPECT_EQ(Process(Begin(27)), 0u);
    EXPECT_EQ(LyrHost_Kes_ReconciliationProc(nullptr), 1u);
    const uint32_t longId[5] = {};
    EXPECT_EQ(LyrKes_Recon_KaProc(1, longId, 17), 1u);
    EXPECT_EQ(LyrKes_Recon_KaProc(1, longId, 16), 0u);
    standin::FailCall("memcpy_s");
    EXPECT_EQ(Process(session), 1u);

    LyrKes_Dist_Deinit();
    // Tables that do not exist are not locked: this would wait for ever.
    alarm(60);
    uint32_t *const lockers[] = {&g_LyrKes_DistIpv4RwLocker, &g_LyrKes_DistIpv6RwLocker,
                                 &g_LyrKes_DistKaRwLocker};
    std::ranges::for_each(lockers, LyrKes_DistWriteLock);
    for (const LyrKesReconRecord &record : {tunnel4, tunnel6, session}) {
        EXPECT_EQ(Process(record), 1u) << "no table";
    }
    EXPECT_EQ(Process(Finish(1)), 0u);
    EXPECT_EQ(Process(Finish(1)), 1u) << "closed already";
    LyrKes_Dist_Deinit();
    std::ranges::for_each(lockers, LyrKes_DistWriteUnlock);
    alarm(0);
    EXPECT_EQ(LyrKes_Dist_Init(), 0u);
    EXPECT_THAT(Lines(LineKind::kAssertion), IsEmpty());
}

// --- the thread ---

using ReconThread = HostTest;

// How long stopping takes; the module is started anew.
std::chrono::nanoseconds TimeOfAStop() {
    const auto from = std::chrono::steady_clock::now();
    EXPECT_EQ(LyrKes_Exit(), 0u);
    const auto took = std::chrono::steady_clock::now() - from;
    EXPECT_FALSE(ThreadRuns());
    EXPECT_EQ(HeldBesidesRecords(), 0u);
    EXPECT_EQ(LyrKes_Init(), 0u);
    return took;
}

class ReconThreadOfEngines : public ReconThread, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, ReconThreadOfEngines, testing::Bool(),
                         [](const auto &info) { return info.param ? "Strict" : "Waiting"; });

TEST_P(ReconThreadOfEngines, StopsWhateverItIsDoing) {
    constexpr auto kPrompt = 10s;  // the idle thread would wait for 60
    StopModule();
    standin::SetStrict(GetParam());
    ASSERT_EQ(LyrKes_Init(), 0u);
    for (int round = 0; round < 40; ++round) {
        EXPECT_LT(TimeOfAStop(), kPrompt) << "right after the start";
        Send(Begin(1));
        EXPECT_LT(TimeOfAStop(), kPrompt) << "just woken";
    }
    standin::WaitUntilCreatedThreadsIdle();
    EXPECT_LT(TimeOfAStop(), kPrompt) << "waiting for an event";

    standin::WaitUntilCreatedThreadsIdle();
    ASSERT_EQ(TOV_EventWrite(TOV_ThreadInfoGetByName("LYR_KES_RECON"), 4), 0u);
    std::this_thread::sleep_for(30ms);
    EXPECT_LT(TimeOfAStop(), kPrompt) << "idling after an event of no meaning";

    for (const char *operation : {"TOV_EventWrite", "TOV_ThreadInfoGetByName"}) {
        standin::WaitUntilCreatedThreadsIdle();
        standin::FailCall(operation);
        EXPECT_LT(TimeOfAStop(), kPrompt) << operation << " fails at first";
        standin::ClearFaults();
    }
}

TEST_F(ReconThread, StopWaitsForTheDrain) {
    for (uint32_t n = 1; n <= 20; ++n) {
        ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, n, 1), 0u);
    }
    standin::WaitUntilCreatedThreadsIdle();
    TraceOn();
    LyrKes_DistWriteLock(&g_LyrKes_DistIpv4RwLocker);  // the first confirmation waits
    EXPECT_EQ(Send({Begin(1), Confirmation<Ipv4Tunnels>(1, 1)}), 0u);
    while (Queued() != 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(Send(Confirmation<Ipv4Tunnels>(2, 1)), 0u);
    EXPECT_EQ(Send(Finish(1)), 0u);
    std::atomic<bool> stopped{false};
    std::thread stop([&] {
        EXPECT_EQ(LyrKes_Exit(), 0u);
        stopped = true;
    });
    std::this_thread::sleep_for(250ms);
    EXPECT_FALSE(stopped);
    LyrKes_DistWriteUnlock(&g_LyrKes_DistIpv4RwLocker);
    stop.join();
    const Texts lines = TakeReports();
    EXPECT_THAT(lines, SizeIs(18)) << "the queue was read to its end";
    EXPECT_THAT(lines, Each(StartsWith("recon del IPv4 tunnel: nodeId:1 ")));
    ASSERT_EQ(LyrKes_Init(), 0u);
}

TEST_F(ReconThread, IsWokenEvenByWhatCouldNotBeQueued) {
    standin::WaitUntilCreatedThreadsIdle();
    standin::CountCalls();
    standin::FailCall("TovQueEnq");
    EXPECT_EQ(Send(Begin(1)), 1u);
    EXPECT_EQ(standin::CallCount("TOV_EventWrite"), 1u);
}

TEST_F(ReconThread, ReadsOnWhenReadingAnEventFails) {
    RunScript<KaSessions>("+1.1 +1.2", false);
    for (const uint32_t n : {1u, 2u, 3u}) {
        standin::FailCall("TOV_EventRead", n);
    }
    RunScript<KaSessions>("b1 c1.1", false);
    EXPECT_GE(standin::CallCount("TOV_EventRead"), 4u);
    RunScript<KaSessions>("f1", false);
    EXPECT_EQ(Entries<KaSessions>(), "1.1");
}

}  // namespace
