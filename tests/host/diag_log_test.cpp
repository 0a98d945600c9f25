// The levelled diagnostic log, the IM agent log and the per-packet print.
#include "module/diag_log.h"

#include <functional>

#include "dfx/debug_trace.h"
#include "host_fixture.h"

using namespace host_test;

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;

class DiagLogTest : public EngineTest {
  protected:
    void TearDown() override {
        standin::SetMasterBoardIp(0x7F000001);
        EngineTest::TearDown();
    }
};

TEST_F(DiagLogTest, LevelsAboveWarningWriteNothing) {
    for (const uint32_t level : {0u, 1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(level);
        TraceOff();
        LYR_KES_DiagLog(level, "off");
        EXPECT_THAT(Lines(LineKind::kReport), IsEmpty());
        // The log does not ask for the trace's levels.
        TraceOn(0);
        standin::CountCalls();
        LYR_KES_DiagLog(level, nullptr);
        LYR_KES_DiagLog(level, "%s %u of %d%%", "line", 7u, -1);
        const bool emitted = level <= 2;
        EXPECT_EQ(standin::CallCount("vsnprintf_s"), emitted ? 1u : 0u);
        EXPECT_THAT(Lines(LineKind::kAgentLog), IsEmpty());
        EXPECT_EQ(TakeReports(), emitted ? Texts{"line 7 of -1%"} : Texts{});
    }
}

// Of the log, and of the trace, which formats its lines by itself.
TEST_F(DiagLogTest, LineThatDoesNotFitIsLostNotCut) {
    const std::string longest(255, '%'), tooLong = longest + "!";
    const std::function<void(const char *)> sayings[] = {
        [](const char *text) { LYR_KES_DiagLog(LYR_HOST_ERR, "%s", text); },
        [](const char *text) { LyrKesDebugTrace(1, false, nullptr, "%s", text); }};
    TraceOn();
    for (const auto &say : sayings) {
        say(longest.c_str());
        EXPECT_THAT(TakeReports(), ElementsAre(longest));
        say(tooLong.c_str());
        standin::FailCall("vsnprintf_s");
        say("lost");
        EXPECT_THAT(TakeReports(), IsEmpty());
    }
}

TEST_F(DiagLogTest, DebugOutputFailsOnlyWhileTheTraceIsOn) {
    standin::FailEveryCall("TovIMDebugReport");
    EXPECT_EQ(LYR_KES_SendDebugOutput("skipped"), 0u);
    TraceOn(0);
    EXPECT_EQ(LYR_KES_SendDebugOutput("fails"), kFailed);
    standin::ClearFaults();
    EXPECT_EQ(LYR_KES_SendDebugOutput("%s"), 0u);
    EXPECT_THAT(TakeReports(), ElementsAre("%s"));
}

// Of every level, also of those that the log itself discards.
TEST_F(DiagLogTest, AgentMessageCarriesLevelSlotAndText) {
    standin::SetMasterBoardIp(0x0A010203);
    uint32_t level = 0;
    for (const std::string name : {"EMER", "ERR", "WARN", "INFO", "DEBUG"}) {
        EXPECT_EQ(LYR_KES_SendDiagLog(level++, "watch %s"), 0u);
        EXPECT_THAT(TakeLines(LineKind::kAgentLog),
                    ElementsAre(Text("log id=0x0F2C1008 para-type=25 length=%zu \"LYR_HOST_%s\" "
                                     "para-type=25 length=23 \"[slot:0 cpu:0] watch %%s\"",
                                     9 + name.size(), name.c_str())));
    }
    EXPECT_EQ(standin::ImMainBoardIp(), 0x0302010Au);

    const std::string longest(511 - 15, 'x');
    EXPECT_EQ(LYR_KES_SendDiagLog(LYR_HOST_ERR, longest.c_str()), 0u);
    EXPECT_THAT(TakeLines(LineKind::kAgentLog), SizeIs(1));
    EXPECT_EQ(LYR_KES_SendDiagLog(LYR_HOST_ERR, (longest + "x").c_str()), kFailed);
    EXPECT_THAT(TakeLines(LineKind::kAgentLog), IsEmpty());
}

// Each call of an agent message fails in turn: nothing is done after it, and nothing is left behind
// (which the fixture checks).
TEST_F(DiagLogTest, NothingFollowsAFailedCallOfAnAgentMessage) {
    using Calls = std::vector<std::pair<std::string, uint32_t>>;
    const std::pair<const char *, uint32_t> kCalls[] = {
        {"TOV_DevmGetMasterBoardIp", 1}, {"TOV_ImSetMainBoardIP", 1}, {"sprintf_s", 1},
        {"TOV_ImAgentMsgCreate", 1},     {"TOV_ImAgentAddPara", 1},   {"TOV_ImAgentAddPara", 2},
        {"TOV_ImAgentSend", 1}};
    Calls made;
    for (const auto &[operation, call] : kCalls) {
        SCOPED_TRACE(Text("%s %u", operation, call));
        std::erase_if(made, [&](const auto &earlier) { return earlier.first == operation; });
        made.emplace_back(operation, call);
        standin::ClearFaults();
        standin::CountCalls();
        standin::FailCall(operation, call);
        EXPECT_EQ(LYR_KES_SendDiagLog(LYR_HOST_ERR, "text"), kFailed);
        EXPECT_THAT(standin::CallCounts(), testing::UnorderedElementsAreArray(made));
        EXPECT_THAT(Lines(LineKind::kAgentLog), IsEmpty());
        EXPECT_EQ(standin::CurrentHoldings(), standin::Holdings{});
    }
    standin::ClearFaults();
    standin::CountCalls();
    EXPECT_EQ(LYR_KES_SendDiagLog(5, "text"), kFailed);
    EXPECT_EQ(LYR_KES_SendDiagLog(LYR_HOST_ERR, nullptr), kFailed);
    EXPECT_THAT(standin::CallCounts(), IsEmpty());
    standin::SetMasterBoardIp(0);
    EXPECT_EQ(LYR_KES_SendDiagLog(LYR_HOST_ERR, "text"), kFailed);
    EXPECT_THAT(standin::CallCounts(), ElementsAre(testing::Pair("TOV_DevmGetMasterBoardIp", 1u)));
}

TEST_F(DiagLogTest, PrintIsCutAtItsRoom) {
    const std::string text(2000, '%');
    LYR_KES_DiagPrintf("[LYR_HOST]%s, %hu", "type", static_cast<uint16_t>(65535));
    LYR_KES_DiagPrintf("%.*s", 1023, text.c_str());
    LYR_KES_DiagPrintf("%s", text.c_str());
    standin::FailCall("vsnprintf_truncated_s");
    LYR_KES_DiagPrintf("lost");
    const std::string cut(1023, '%');
    EXPECT_THAT(Lines(LineKind::kPrint), ElementsAre("[LYR_HOST]type, 65535", cut, cut));
}

}  // namespace
