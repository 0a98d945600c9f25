// lyrctl trace follow: lines as they come, and the trace level meanwhile.
#include "canned_engine.h"

namespace programs {
namespace {

using LyrctlFollow = Lyrctl;

constexpr uint64_t kTime = 1'700'000'000'012'345'678;
const CannedEngine::Lines kLines = {
    {{0, 0, kTime}, "one"}, {{3, 2, kTime}, "two \033[2J"}, {{9, 5, kTime}, "ten"}};

TEST_F(LyrctlFollow, ShowsLinesAndLosses) {
    engine.PutLines(kLines, false);
    const Outcome run = Do("trace follow --grep 't[we]'");
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out,
              "-- 2 lines lost: they came faster than they were read\n"
              "2023-11-14T22:13:20.012+00:00  alarm      two ?[2J\n"
              "-- 5 lines lost: they came faster than they were read\n"
              "2023-11-14T22:13:20.012+00:00  line       ten\n");
    EXPECT_EQ(Do("--json trace follow --grep one").out,
              R"({"time":"2023-11-14T22:13:20.012+00:00","kind":"report","lost":0,"text":"one"}
{"command":"trace follow --grep one","ok":false,"meaning":"the engine at socket has closed the connection"}
)");
    engine.PutLines({{{0, 0, kTime}, "srcip:0xa000001"}, {{0, 0, kTime}, "srcip:"}}, false);
    EXPECT_EQ(Do("trace follow --decode --grep 10.0.0").out,
              "2023-11-14T22:13:20.012+00:00  report     srcip:10.0.0.1  <- srcip:0xa000001\n");
    EXPECT_THAT(Do("--json trace follow --decode").out,
                testing::HasSubstr(R"("text":"srcip:0xa000001","decoded":"srcip:10.0.0.1"})"
                                   "\n"));
    EXPECT_TRUE(engine.Requests(MUND_OP_DebugTraceSet).empty());
}

TEST_F(LyrctlFollow, SetsTheLevelMeanwhileAndNothingElse) {
    engine.PutLines(kLines, true);
    const struct {
        uint8_t enable;
        const char *signal;
        uint32_t last;
    } cases[] = {{1, "INT", LYR_KES_TRACE_SET}, {0, "HUP", LYR_KES_TRACE_CLEAR}};
    for (const auto &c : cases) {
        trace.enable = c.enable;
        engine.PutObject(MUND_OBJECT_TRACE, BytesOf(trace));
        const std::string shown = c.signal;
        const Outcome run =
            Do("trace follow --level 3 >" + shown + " & pid=$!; until test -s " + shown +
               "; do sleep 0.05; done; " LYRCTL
               " --control socket trace follow --level 1; echo $?; kill -" +
               c.signal + " $pid; wait $pid; exit $?");
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, "1\n") << "a second one would leave the first one's level on";
        EXPECT_THAT(run.err, testing::HasSubstr("another 'trace follow' has set the level"));
        const std::vector<Bytes> requests = engine.Requests(MUND_OP_DebugTraceSet);
        ASSERT_EQ(requests.size(), c.enable == 1 ? 2u : 4u);
        const auto before = MessageOf<LyrKesDebugTraceReq>(requests.end()[-2]);
        const auto after = MessageOf<LyrKesDebugTraceReq>(requests.back());
        for (const LyrKesDebugTraceReq &sent : {before, after}) {
            EXPECT_EQ(sent.srcAddr.ipVer, 2u);
            EXPECT_EQ(sent.srcPort, 5246u);
            EXPECT_EQ(sent.capwapMsgType, 13u);
            EXPECT_EQ(sent.mac[5], 1);
        }
        EXPECT_EQ(before.debugLevel, 3u);
        EXPECT_EQ(after.debugLevel, 2u);
        EXPECT_EQ(after.msgType, c.last);
    }
}

}  // namespace
}  // namespace programs
