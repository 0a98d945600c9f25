// What the runner says of a replay: the report, the log, and how it ends.
#include "kes_engine_fixture.h"

namespace programs {
namespace {

using testing::HasSubstr;
using KesEngineReport = KesEngine;

// Shown by a module that also counts a received frame with cause id N in its N-th counter, and a
// transmitted frame in its last two.
TEST_F(KesEngineReport, FramesAreToldApartByTheirSource) {
    const std::string common =
        "--exec commands --replay in --rx-port 7 --module " + kModules + "miscounting_module.so ";
    const std::string failed = ", send failed or processing failed";
    const struct {
        const char *arguments;
        size_t transmitted;
        std::vector<std::string> contradictions;
    } cases[] = {
        {"--cause-id 10.0.0.1=22 --cause-id 10.0.0.9=2 --cause-id 02-00-00-00-00-02=2", 0, {}},
        // Its TCP is left alone.
        {"--cause-id 10.0.0.1=2",
         0,
         {"control packets: 12 sent, but 5 reached the instances",
          "control packets: 7 received, but 14 sent" + failed}},
        {"--cause-id 2001:db8::1=0x3",
         0,
         {"control packets: 2 send failed, but 1 were not delivered",
          "control packets: 7 received, but 8 sent" + failed}},
        // The first rule counts.
        {"--cause-id 10.0.0.1=0 --cause-id 02:00:00:00:00:01=15",
         0,
         {"DTLS handshake packets: 8 received, but 1 sent" + failed}},
        {"--local 10.0.0.1 --local 2001:db8::1 --cause-id 02:00:00:00:00:01=2",
         9,
         {"control packets: 7 sent, but 2 reached the instances",
          "control packets: 3 received, but 8 sent" + failed}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments);
        const Outcome outcome = Run(common + "--log log --report json " + c.arguments);
        EXPECT_EQ(outcome.status, c.contradictions.empty() ? 0 : 1);
        const json report = json::parse(outcome.out);
        json expected = json::array();
        for (const std::string &contradiction : c.contradictions) {
            expected.push_back("counters of " + contradiction);
            EXPECT_THAT(outcome.err, HasSubstr("kes_engine: counters of " + contradiction + "\n"));
        }
        EXPECT_EQ(report["contradictions"], expected);
        EXPECT_EQ(report["ok"], c.contradictions.empty());
        EXPECT_EQ(report["conserved"], true);
        EXPECT_EQ(report["received"], Traffic().size() - c.transmitted);
        for (const json &count : {report["transmitted"], report["classes"][2]["notDistributed"],
                                  report["classes"][2]["sessionIdFailed"]}) {
            EXPECT_EQ(count, c.transmitted);
        }
    }
    const Outcome several = Run(common + "--workers 2 --cause-id 10.0.0.1=2");
    EXPECT_EQ(several.status, 0) << several.err;
    EXPECT_THAT(several.err, HasSubstr("kes_engine: note: counters of control"));
}

TEST_F(KesEngineReport, FlagsMakeAKeepaliveWhateverItsPreamble) {
    Frames frames;
    for (const capwap::SessionId &session : {kSession, capwap::SessionId{1, 2, 3, 4}}) {
        Bytes keepalive = capwap::Keepalive(session);
        keepalive[0] |= 1;  // as before a DTLS record
        const Bytes frame =
            BuildFrame(capwap::UdpFrame("10.0.0.1", 12380, "10.0.0.254", 5247, keepalive));
        frames.push_back({0, static_cast<uint32_t>(frame.size()), frame});
    }
    WriteCapture(Path("in"), frames);
    const json report = Replay("--exec - --replay in --rx-port 7 <commands");
    EXPECT_EQ(report["classes"][1], Counters("keepalive", 2, 1, 1, 0));
    EXPECT_EQ(report["contradictions"], json::array());
}

TEST_F(KesEngineReport, AModuleNeedNotKeepCounters) {
    WriteCapture(Path("in"), {});
    const std::string arguments = "--replay in --module " + kModules + "sample_module.so";
    const json report = Replay(arguments);
    EXPECT_TRUE(report["classes"].is_null() && report["drops"].is_null()) << report;
    EXPECT_THAT(Run(arguments).out, HasSubstr("no counters"));
}

TEST_F(KesEngineReport, LinesAreAddedToTheLogBehindTimeAndKind) {
    Write("commands", std::string(kCommands) + "trace set --level 2\n");
    Write("log", "from an earlier run\n");
    setenv("TZ", "XYZ-05:30", 1);
    Replay("--exec commands --replay in --rx-port 7 --diag");
    unsetenv("TZ");
    std::string log = Read("log");
    ASSERT_TRUE(log.starts_with("from an earlier run\n"));
    log.erase(0, log.find('\n') + 1);
    for (const std::string &line : Lines(log)) {
        EXPECT_THAT(line, testing::MatchesRegex("[0-9-]{10}T[0-9:]{8}[.][0-9]{3}[+]05:30 "
                                                "(report|print): .+"));
    }
    EXPECT_EQ(Count(log, "print: [LYR_HOST]LyrKes_PktProc, ethType:"), Traffic().size());
    EXPECT_EQ(Count(log, "[DATA-KEEPALIVE]"), 2u);

    const Outcome toStderr = Run("--exec commands --replay in --diag");
    EXPECT_EQ(toStderr.status, 0);
    EXPECT_THAT(toStderr.err, HasSubstr(" print: [LYR_HOST]"));
    EXPECT_THAT(toStderr.err, HasSubstr("wapi 1 1: ok\n"));
    EXPECT_THAT(toStderr.out, Not(HasSubstr("LYR_HOST")));
}

TEST_F(KesEngineReport, ForPeopleIsAligned) {
    const std::vector<std::string> lines =
        Lines(Run("--exec commands --replay in --rx-port 7").out);
    for (const char *line :
         {"received             15", "returned              5", "taken                 8",
          "undelivered           2", "transmitted           0", "conserved           yes",
          "instance  type  packets  of these", "       3  cwp         2          1  Echo Request",
          "                                 1  Join Request",
          "       1  wapi        1          1  WAPI",
          "counters                    control       keepalive  DTLS handshake",
          "sent                              5               1               1",
          "source mismatch                   1               0               0",
          "drop alarm not raised, 2 of 2 packets dropped, 0 periods with drops; 0 raises, 0 "
          "restores"}) {
        EXPECT_EQ(std::ranges::count(lines, line), 1) << line;
    }
}

TEST_F(KesEngineReport, TellsWhatWasNotReplayed) {
    Frames frames = TrafficFrames(3);
    WriteCapture(Path("cut"), frames);
    fs::resize_file(Path("cut"), fs::file_size(Path("cut")) - 1);
    frames[30].bytes.resize(frames[30].wireLength = 65408);
    WriteCapture(Path("giant"), frames);
    const struct {
        const char *capture;
        size_t received;
        size_t oversize;
        const char *error;
    } cases[] = {
        {"cut", 44, 0, "'cut' breaks off after frame 44: truncated dump file"},
        {"giant", 44, 1, "'giant': 1 frames were left out: they have more than the 65407 bytes"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.capture);
        const Outcome outcome =
            Run("--report json --log log --out out --replay " + std::string(c.capture));
        EXPECT_EQ(outcome.status, 1);
        EXPECT_TRUE(outcome.err.starts_with(std::string("kes_engine: ") + c.error)) << outcome.err;
        EXPECT_EQ(Lines(outcome.err).size(), 1u);
        const json report = json::parse(outcome.out);
        EXPECT_EQ(report["received"], c.received);
        EXPECT_EQ(report["oversize"], c.oversize);
        EXPECT_EQ(report["conserved"], true);
        EXPECT_EQ(report["ok"], false);
        EXPECT_EQ(report["failures"].size(), 1u);
    }
    EXPECT_THAT(Run("--replay giant").out,
                testing::ContainsRegex("^capture +giant\ncut short +3  of 44 frames: .+\n"
                                       "oversize +1  left out"));
    EXPECT_EQ(Count(Run("--replay giant --explain").out, ", cut short by the capture: "), 3u);
}

// Lines and the pipe that takes them go; the replay does not.
TEST_F(KesEngineReport, AReaderThatGoesAwayCostsLinesAndNoPackets) {
    const Outcome outcome = Shell("{ " KES_ENGINE
                                  " --diag --loop 200 --replay in --report json >report; "
                                  "echo $? >status; } 2>&1 | head -1");
    EXPECT_EQ(Lines(outcome.out).size(), 1u);
    EXPECT_EQ(Read("status"), "0\n");
    EXPECT_EQ(json::parse(Read("report"))["received"], 200 * Traffic().size());
    WriteCapture(Path("in"), TrafficFrames(200));
    const Outcome explained =
        Shell("{ " KES_ENGINE " --explain --replay in; echo $? >status; } | head -1");
    EXPECT_EQ(Read("status"), "1\n");
    EXPECT_EQ(explained.err, "");
}

TEST_F(KesEngineReport, AFullDiskIsTold) {
    WriteCapture(Path("in"), TrafficFrames(200));
    const Outcome outcome =
        Shell("ulimit -f 2; " KES_ENGINE " --report json --log /dev/null --out out --replay in");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "kes_engine: cannot write 'out/returned.pcap': File too large\n"
              "kes_engine: cannot write 'out/undelivered.pcap': File too large\n");
    EXPECT_EQ(json::parse(outcome.out)["received"], 200 * Traffic().size());

    EXPECT_EQ(Run("--log log --replay in >/dev/full").status, 1);
    const Outcome log = Run("--diag --log /dev/full --replay in --report json");
    EXPECT_EQ(log.status, 1);
    EXPECT_EQ(log.err,
              "kes_engine: cannot write the log '/dev/full': No space left on device; its lines "
              "are lost\n");
    EXPECT_GT(json::parse(log.out)["lostLogLines"], 200 * Traffic().size());
}

}  // namespace
}  // namespace programs
