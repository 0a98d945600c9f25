#include "module/lifecycle.h"

#include <chrono>
#include <cstring>
#include <future>

#include "channel/service_channel.h"
#include "channel/station_service.h"
#include "dist_tables.h"
#include "kes/hook.h"
#include "kes/patch.h"
#include "lb/dist_lifecycle.h"
#include "lb/rpc_server.h"
#include "module/capability.h"
#include "module/hot_patch.h"
#include "module/registration.h"
#include "packet/capwap_header.h"
#include "packet/packet_entry.h"
#include "standin/packet_path.h"

namespace {

using namespace host_test;

// --- registration ---

TEST(Registration, LinksInFrontOfWhatIsThere) {
    TovModRegRecord other = {};
    TovModRegRecord *const before = std::exchange(g_pluginModRegHead, &other);
    TovModRegRecord *const next = mod_kes_lyrhost.next;
    tov_modregfn_mod_kes_lyrhost();
    EXPECT_EQ(g_pluginModRegHead, &mod_kes_lyrhost);
    EXPECT_EQ(mod_kes_lyrhost.next, &other);
    EXPECT_EQ(mod_plugin_register(), &mod_kes_lyrhost);
    EXPECT_STREQ(mod_kes_lyrhost.name, "kes_lyrhost");
    EXPECT_EQ(mod_kes_lyrhost.kind, 2u);
    EXPECT_EQ(mod_kes_lyrhost.recordVersion, 720u);
    EXPECT_TRUE(mod_kes_lyrhost_usrctx == nullptr && mod_kes_lyrhost_usrctx_len == 0);
    mod_kes_lyrhost.next = next;
    g_pluginModRegHead = before;
}

// That the constructors take it over, the test of the library shows.
TEST(Registration, DestructorForgetsTheModuleId) {
    mod_kes_lyrhost.moduleId = 77;
    mod_kes_lyrhost.ctr();
    mod_kes_lyrhost.moduleId = 78;
    EXPECT_EQ(mod_kes_lyrhost_id, 77u);
    mod_kes_lyrhost.dtr();
    EXPECT_EQ(mod_kes_lyrhost_id, 0u);
}

// --- capabilities and hot patch ---

using Frame = EngineTest;

TEST_F(Frame, Capabilities) {
    TraceOn();
    for (const uint32_t value : {0u, 5u, 0xFFFFFFFFu}) {
        standin::SetCapability("WCWP_SPEC_SVC_NUM", value);
        EXPECT_EQ(LyrKes_InitSvcNum(), value);
    }
    EXPECT_EQ(LyrKes_GetCapsetSpec("no such", 9), 9u);
    EXPECT_EQ(LyrKes_GetCapsetSpec(nullptr, 9), 0u);
    EXPECT_THAT(TakeReports(),
                ElementsAre("Get capset no such failed, ret=2.", "spec name is NULL"));
}

TEST_F(Frame, HotPatchNotices) {
    TraceOn();
    const struct {
        int32_t operation;
        const char *library;
        uint32_t result, handled;
        Texts lines;
    } cases[] = {
        {0, "liblyr_host.so", 0, 1, {"[lyrkes]patch c2h active."}},
        {1, "liblyr_host.so", 0, 1, {"[lyrkes]patch c2h deactive."}},
        {2, "liblyr_host.so", 1, 1, {}},
        {0, "liblyr_host.so.1", 0, 0, {}},
        {0, "/liblyr_host.so", 0, 0, {}},
        {2, "libother.so", 0, 0, {}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.library);
        std::array<char, 512> record;  // as the facility fills it
        record.fill('x');
        std::strcpy(&record[397], row.library);
        HostPatchRecord patch;
        std::memcpy(&patch, record.data(), sizeof(patch));
        uint32_t handled = 0xAAAAAAAA;
        EXPECT_EQ(liblyr_host_PAT_C2HSyncHookFunc(row.operation, nullptr, &patch, &handled),
                  row.result);
        EXPECT_EQ(handled, row.handled);
        EXPECT_EQ(TakeReports(), row.lines);
    }
    const HostPatchRecord patch = {};
    uint32_t handled = 7;
    EXPECT_EQ(liblyr_host_PAT_C2HSyncHookFunc(0, nullptr, nullptr, &handled), 1u);
    EXPECT_EQ(handled, 7u);
    EXPECT_EQ(liblyr_host_PAT_C2HSyncHookFunc(0, nullptr, &patch, nullptr), 1u);
    const std::string line = "[lyrkes]Err: input para is NULL.";
    EXPECT_THAT(TakeReports(), ElementsAre(line, line));
}

// --- start ---

bool ServiceIsOpen() {
    Caller call;
    return call(KaSessions::kOperation, KaSessions::Request(kDelete, 1, 1));
}

class Start : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        standin::SetCapability("WCWP_SPEC_SVC_NUM", 27);
        SetLinks(100, 100);
        TraceOn();
    }

    static void ExpectNothingLeft() {
        EXPECT_THAT(standin::ModuleMemoryByTag(kModuleId), IsEmpty());
        EXPECT_EQ(standin::CurrentHoldings(), standin::Holdings{});
        EXPECT_EQ(MundMessagesInUse(), 0u);
        EXPECT_FALSE(ServiceIsOpen());
        EXPECT_EQ(FateOfAPacket(), standin::Fate::kReturned);
        EXPECT_TRUE(!g_LyrKes_DistIpv4Tbl && !g_LyrKes_DistIpv6Tbl && !g_LyrKes_DistKaTbl);
        for (const uint32_t pktType : {0, 1}) {
            EXPECT_EQ(LyrKes_GetChnMapByPktType(pktType), nullptr);
            EXPECT_EQ(LyrKes_GetThdInfoByPktType(pktType), nullptr);
        }
    }

    static standin::Fate FateOfAPacket() {
        const Packet packet = MakePacket(Ipv4Tunnels::Frame(1));
        return standin::RunReceivePath(packet.get());
    }

    // The calls of the engine that one start makes.
    static std::vector<std::pair<std::string, uint32_t>> CallsOfAStart() {
        standin::CountCalls();
        EXPECT_EQ(LyrKes_Init(), 0u);
        auto calls = standin::CallCounts();
        StopModule();
        standin::ClearFaults();
        return calls;
    }
};

TEST_F(Start, OpensTheDoorsAndStopClosesThem) {
    EXPECT_EQ(LyrKes_Init(), 0u);
    EXPECT_EQ(standin::WlanIdReader(), LyrKes_GetVadoAcTunnelWlanId);
    EXPECT_TRUE(ServiceIsOpen());
    StopModule();
    ExpectNothingLeft();
    EXPECT_THAT(TakeReports(), IsEmpty());

    standin::ClearCapabilities();
    EXPECT_EQ(LyrKes_Init(), 0u);
    EXPECT_EQ(g_LyrKes_DistIpv4Cap, 23397u);
    EXPECT_THAT(TakeReports(),
                ElementsAre("Get capset WCWP_SPEC_SVC_NUM failed, ret=2.",
                            "Get capset WCWP_SPEC_MAX_LINK_NUM failed, ret=2.",
                            "Get capset WCWP_SPEC_MAX_DATA_LINK_NUM failed, ret=2."));
    StopModule();
}

TEST_F(Start, EveryFailingStepSaysWhy) {
    uint32_t allocations = 0;
    for (const auto &[operation, count] : CallsOfAStart()) {
        allocations += operation == "TovMemAllocInner" ? count : 0;
    }
    constexpr const char *kAllocation = "TovMemAllocInner", *kHook = "HostHookRegister";
    constexpr const char *kNoMap = "ChannelMap init TovMemAlloc failed";
    constexpr const char *kNoThreads = "ThreadInfoId init TovMemAlloc failed";
    const Texts kNoTables = {"create hash table failed.", "init distribution failed."};
    constexpr const char *kNoServer = "init create ravel rpc server failed.";
    const std::string kNoService = "create ravel rpc server failed, ret:1.";
    constexpr const char *kStatistics = "dfx/lyr_kes_cwpstat", *kDist = "lb/lyr_kes_dist";
    constexpr const char *kRecon = "verify/lyr_kes_reconciliation";
    constexpr const char *kChannel = "channel/lyr_kes_channel";
    const struct {
        const char *operation;
        uint32_t n;
        Texts lines;
        const char *assertion;  // null: none
        uint32_t result = 1;
    } cases[] = {
        // The module does without these.
        {kAllocation, 1, {}, kStatistics, 0},
        {kAllocation, 4, {}, kStatistics, 0},
        {kHook, 1, {"register kes hook(KES TXIN)failed, ret=3."}, nullptr, 0},
        {kHook, 2, {"register kes hook(KES TXOUT)failed, ret=3."}, nullptr, 0},
        {kHook, 3, {"register kes hook(KES RXIN)failed, ret=3."}, nullptr, 0},
        {kHook, 4, {"register kes hook(KES RXOUT)failed, ret=3."}, nullptr, 0},
        {kAllocation, 5, {kNoMap}, kChannel},
        {kAllocation, 6, {kNoThreads}, kChannel},
        {kAllocation, 7, {kNoMap}, kChannel},
        {kAllocation, 8, {kNoThreads}, kChannel},
        {kAllocation, allocations - 2, kNoTables, kDist},
        {kAllocation, allocations, kNoTables, kDist},
        {kAllocation, 9, {"Reconciliation init TovMemAlloc failed"}, kRecon},
        {"TovCreatePipeQue", 1, {}, kRecon},
        {"TovThreadCreate", 1, {}, kRecon},
        {"strcpy_s", 1, {kNoServer}, nullptr},
        {"RegRavelRpcServerToKes", 1, {kNoService, kNoServer}, "lb/lyr_kes_mund"},
        {kHook, 5, {"register kes hook failed, ret=3.", kNoTables[1]}, nullptr},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(testing::Message() << row.operation << " " << row.n);
        standin::FailCall(row.operation, row.n);
        ForgetLines();
        EXPECT_EQ(LyrKes_Init(), row.result);
        standin::ClearFaults();
        EXPECT_EQ(Lines(LineKind::kReport), row.lines);
        if (row.result == 0) {
            StopModule();
        }
        ExpectNothingLeft();
        const Texts assertions = TakeLines(LineKind::kAssertion);
        ASSERT_THAT(assertions, SizeIs(row.assertion != nullptr ? 1 : 0));
        EXPECT_TRUE(assertions.empty() ||
                    assertions[0].starts_with(Text("src/host/lyr_kes/%s:", row.assertion)));
    }
}

// --- stop ---

// What an operation uses is there until it has ended, though the engine does not wait for it.
TEST_F(Start, StopWaitsForOperationsThatRun) {
    ASSERT_EQ(LyrKes_Init(), 0u);
    std::future<uint32_t> stop;
    Texts lines;
    standin::SetLineSink([&](LineKind, std::string_view line) {
        lines.emplace_back(line);
        if (!stop.valid()) {
            stop = std::async(std::launch::async, LyrKes_Exit);
            EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
        }
    });
    EXPECT_EQ(Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{0, 3}), 0u);
    EXPECT_EQ(stop.get(), 0u);
    EXPECT_THAT(lines, ElementsAre("get channel id by channel name chn/kes2lyrwapi0 failed.",
                                   "get channel id by channel name chn/kes2lyrwapi1 failed.",
                                   "get channel id by channel name chn/kes2lyrwapi2 failed."));
}

TEST_F(Start, StopReleasesWhatItCannotUnregister) {
    ASSERT_EQ(LyrKes_Init(), 0u);
    DeclareController();
    ASSERT_EQ(Change<Ipv4Tunnels>(kAdd, 1, 3), 0u);
    standin::FailCall("HostHookUnregister");
    standin::FailCall("RavelRpcServerUnReg");
    ForgetLines();
    StopModule();
    EXPECT_THAT(TakeReports(),
                testing::UnorderedElementsAre("unregister kes hook failed, ret=4.",
                                              "destroy ravel rpc server failed, ret:1."));
    EXPECT_THAT(standin::ModuleMemoryByTag(kModuleId), IsEmpty());

    // What still comes in fails softly.
    for (const uint32_t operation : {kAdd, kDelete}) {
        EXPECT_EQ(Change<Ipv4Tunnels>(operation, 1, 3), kError);
        EXPECT_EQ(Change<Ipv6Tunnels>(operation, 1, 3), kError);
        EXPECT_EQ(Change<KaSessions>(operation, 1, 3), kError);
    }
    EXPECT_EQ(Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{0, 1}), 0u);
    EXPECT_EQ(FateOfAPacket(), standin::Fate::kReturned);
    EXPECT_EQ(HostHookUnregister(HOST_HOOK_HOST_RX, LyrKes_PktProc), 0u);
    LyrKes_RavelRpcServerDestroy();
    LyrKes_InitStaSvcInfo();
}

}  // namespace
