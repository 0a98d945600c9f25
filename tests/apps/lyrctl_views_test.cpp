// What lyrctl shows of the module: objects laid out, metrics, and explanations of frames.
#include <regex>
#include <set>

#include "canned_engine.h"

namespace programs {
namespace {

using testing::HasSubstr;
using LyrctlViews = Lyrctl;

TEST_F(LyrctlViews, ObjectsAreLaidOut) {
    engine.PutObject("g_some", BytesOfText("0123456789abcdef\x01~"));
    const struct {
        const char *arguments;
        const char *out;
    } cases[] = {
        {"source show",
         "position  type  known by                  address       interface\n"
         "0         5     free                      -             -\n"
         "1         2     interface and IP version  10.0.0.254    7\n"
         "2         5     free                      -             -\n"
         "3         5     free                      -             -\n"
         "4         5     free                      -             -\n"
         "5         5     free                      -             -\n"
         "6         9     address                   2001:db8::fe  8\n"
         "7         5     free                      -             -\n"},
        {"trace show",
         "level             2: packets\n"
         "source            2001:db8::1\n"
         "source port       5246\n"
         "destination       any\n"
         "destination port  any\n"
         "message type      Echo Request\n"
         "MAC (no filter)   00:00:00:00:00:01\n"},
        {"wapi show", "service instances 2 to 5 serve stations\n"},
        {"channels show",
         "type  instance  resolved  channel  thread\n"
         "cwp   0         yes       6        0x7f0012345678\n"
         "cwp   1         no        -        -\n"
         "wapi  0         no        -        -\n"
         "wapi  1         no        -        -\n"},
        {"inspect g_lyrKesMsgDropStat",
         "alarmRaised          true\n"
         "open                 true\n"
         "periodStart          2023-11-14T22:13:20+00:00\n"
         "dropped              20\n"
         "droppedBeforePeriod  15\n"
         "packets              345\n"
         "periodsWithDrops     0\n"
         "quietPeriods         2\n"},
        {"inspect g_some",
         "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
         "00000010  01 7e                                             |.~|\n"},
        {"inspect g_lyrHostsvcNum --hex",
         "00000000  01 00 00 00                                       |....|\n"},
        {"--json inspect g_lyrHostThreadInfoId --slot 1",
         R"({"command":"inspect g_lyrHostThreadInfoId --slot 1","ok":true,"meaning":"ok",)"
         R"("reply":{"name":"g_lyrHostThreadInfoId","size":16,"slot":1,)"
         R"("hex":"00000000000000000000000000000000"}})"
         "\n"},
        {"wapi show --json", R"({"command":"wapi show","ok":true,"meaning":"ok",)"
                             R"("reply":{"firstInstance":2,"instanceCount":4}})"
                             "\n"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(c.arguments);
        EXPECT_EQ(run.out, c.out) << c.arguments;
        EXPECT_EQ(run.status, 0) << run.err;
    }
}

TEST_F(LyrctlViews, MetricsAreInTheExpositionFormat) {
    const Outcome run = Do("metrics");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::regex declaration("# TYPE ([a-z_]+) (counter|gauge)");
    const std::regex sample(R"re(([a-z_]+)(\{([a-z_]+="([^"\\]|\\.)*",?)+\})? [0-9]+)re");
    std::string family;
    std::set<std::string> seen;
    for (const std::string &line : Lines(run.out)) {
        std::smatch match;
        if (std::regex_match(line, match, declaration)) {
            family = match[1];
            EXPECT_TRUE(seen.insert(family).second) << family << " is declared twice";
            EXPECT_EQ(match[2] == "counter", family.ends_with("_total")) << line;
        } else if (!line.starts_with("# HELP ")) {
            ASSERT_TRUE(std::regex_match(line, match, sample)) << line;
            EXPECT_EQ(match[1], family);
        }
    }
    for (
        const char *line :
        {R"(lyr_host_packets_total{class="dtls_handshake",result="send_failed"} 3)",
         R"(lyr_host_processing_failures_total{class="dtls_handshake",reason="not_distributed"} 2)",
         R"(lyr_host_handoffs_total{type="wapi",result="send_failed"} 14)",
         R"(lyr_host_drop_alarm_raised 1)", R"(lyr_host_table_entries{table="ipv4"} 300)",
         R"(lyr_host_sources 2)", R"(lyr_host_service_instances 2)",
         R"(lyr_host_ping_packets_total{point="rx_in"} 8589934592)",
         R"(lyr_host_message_type_handoffs_total{message_type="Echo Response",service_instance="1",result="send_failed"} 40)",
         R"(lyr_host_memory_blocks{function="a\"b\\c"} 1)",
         R"(lyr_engine_packets_total{fate="undelivered"} 100)",
         R"(lyr_engine_instance_packets_total{service_instance="3",type="wapi"} 2)"}) {
        EXPECT_THAT(run.out, HasSubstr(std::string("\n") + line + "\n"));
    }
}

TEST_F(LyrctlViews, FramesAreExplained) {
    const std::string capture = "explain --capture " TEST_DATA "/ap-session.pcap";
    engine.PutReplies(
        MUND_WIRE_EXPLAIN,
        {{.payload = BytesOfText(
              R"({"steps":[{"step":"class","text":"control"},{"step":"instance","text":"3"}],)"
              R"("meaning":"handed over","fate":"taken","instance":3})")}});
    Outcome run = Do(capture + " --frame 2 --rx-port 7 --vrf 8 --cause 9");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "frame 2\n  1. class     control\n  2. instance  3\n  => handed over\n");
    const Bytes request = engine.Requests(MUND_WIRE_EXPLAIN).at(0);
    ASSERT_GT(request.size(), sizeof(MundWireExplainReq));
    const auto arrival = MessageOf<MundWireExplainReq>(request);
    EXPECT_EQ(arrival.rxPort, 7u);
    EXPECT_EQ(arrival.vrf, 8u);
    EXPECT_EQ(arrival.causeAction, 9u);

    run = Do("--json " + capture);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(std::ranges::count(run.out, '\n'), 422);
    EXPECT_EQ(json::parse(run.out.substr(0, run.out.find('\n')))["frame"], 1);
    run = Do(capture + " --frame 423");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("has 422 frames"));
    run = Do(capture + " --filter 'tcp port 9'");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "lyrctl: note: none of the 422 frames read is wanted\n");
}

}  // namespace
}  // namespace programs
