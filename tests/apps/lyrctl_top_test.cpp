// lyrctl top: rates, once and on a terminal.
#include <pty.h>
#include <utmp.h>

#include <regex>

#include "canned_engine.h"

namespace programs {
namespace {

using testing::HasSubstr;
using LyrctlTop = Lyrctl;

TEST_F(LyrctlTop, ShowsWhatHappensInASecond) {
    Outcome run = Do("top --once");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.substr(run.out.find('\n')),
              R"(

packets           received        taken  undelivered     returned  transmitted
per second               0            0            0            0            0
total                 3000         2000          100          900            7

drops  20 of 345 packets; ALARM RAISED, 2 of 5 quiet periods

per second         control    keepalive  DTLS handshake
received                 0            0               0
sent                     0            0               0
send failed              0            0               0
processing failed        0            0               0
source mismatch          0            0               0
not distributed          0            0               0
session id failed        0            0               0

table              entries      buckets   per bucket
IPv4                   300          600        0.500
IPv6                     0          600        0.000
session                  0          600        0.000

instance       cwp/s      wapi/s     share         total
       0           0           0     0.0 %          2000
       3           0           0     0.0 %            42
)");

    // A second later there is more; one counter has begun anew at its end, one was set to zero.
    LyrKesGetPktStatisticsRsp stats[] = {NoPackets(), NoPackets()};
    stats[0].rows[0].rxCnt = UINT32_MAX - 99;
    stats[1].rows[0].rxCnt = 400;
    stats[0].rows[1].rxCnt = 5000;
    stats[1].rows[1].rxCnt = 30;
    engine.PutReplies(MUND_WIRE_STATE, {State(1000), State(3000)});
    engine.PutReplies(MUND_OP_GetPktStatistics,
                      {{.payload = BytesOf(stats[0])}, {.payload = BytesOf(stats[1])}});
    run = Do("--json top --once");
    const json top = json::parse(run.out);
    const double seconds = top["seconds"];
    EXPECT_NEAR(seconds, 1, 0.5);
    const auto expect = [&](const json &perSecond, double count) {
        EXPECT_NEAR(perSecond.get<double>() * seconds, count, 1e-6) << run.out;
    };
    expect(top["received"]["perSecond"], 2000);
    expect(top["fates"]["taken"]["perSecond"], 2000);
    expect(top["fates"]["returned"]["perSecond"], 0);
    expect(top["classes"][0]["received"]["perSecond"], 500);
    expect(top["classes"][1]["received"]["perSecond"], 30);
    expect(top["instances"][0]["cwp"]["perSecond"], 2000);
    EXPECT_EQ(top["instances"][0]["share"], 1.0);
    EXPECT_EQ(top["drops"]["alarmRaised"], true);
    // A counter has one name, whoever tells it.
    const json shown = json::parse(Do("--json stats show").out)["reply"]["classes"][0];
    for (const auto &[name, rate] : top["classes"][0].items()) {
        EXPECT_TRUE(shown.contains(name)) << name << " is not in " << shown;
    }
    engine.PutReplies(MUND_WIRE_STATE, {State(1000), State(3000)});
    run = Do("top --once");
    EXPECT_TRUE(std::regex_search(run.out, std::regex("\n       0  +(1[0-9]{3}|2000)  +0  +100.0 % "
                                                      " +3000  #{42}\n")))
        << run.out;

    run = Do("--json top --once --interval 0.2 --sort instance");
    EXPECT_LT(json::parse(run.out)["seconds"], 0.9);
    EXPECT_EQ(json::parse(run.out)["instances"][0]["instance"], 0);
    for (const std::string wrong : {"--interval 0", "--interval 1s", "--sort size"}) {
        run = Do("top --once " + wrong);
        EXPECT_EQ(run.status, 2);
        EXPECT_THAT(run.err, HasSubstr(wrong.substr(0, wrong.find(' ')) + " '"));
    }
    engine.PutReplies(MUND_WIRE_STATE, {{.payload = BytesOfText("{}")}});
    run = Do("top --once");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("the engine's state is not understood"));
    json state = json::parse(State(1000).payload);
    state["memory"][0].erase("function");
    engine.PutReplies(MUND_WIRE_STATE, {{.payload = BytesOfText(state.dump())}});
    EXPECT_THAT(Do("metrics").err, HasSubstr("an engine of another version"));
}

// What top writes to a terminal of this size, until it ends; keys are what is typed after a second
// and a half.
struct Screen {
    int status;
    bool restored;
    std::string output;
};

Screen OnTerminal(const std::string &socket, const std::string &keys) {
    const winsize size = {15, 40, 0, 0};
    termios before, after;
    int terminal, program;
    EXPECT_EQ(openpty(&terminal, &program, nullptr, nullptr, &size), 0);
    tcgetattr(program, &before);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        login_tty(program);
        execl(LYRCTL, LYRCTL, "--control", socket.c_str(), "top", "--interval", "0.3", nullptr);
        _exit(127);
    }
    close(program);
    std::jthread typist([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_GT(write(terminal, keys.data(), keys.size()), 0);
    });
    Screen screen = {};
    char bytes[4096];
    for (ssize_t count; (count = read(terminal, bytes, sizeof bytes)) > 0;) {
        screen.output.append(bytes, static_cast<size_t>(count));
    }
    tcgetattr(terminal, &after);
    screen.restored = after.c_lflag == before.c_lflag;
    waitpid(child, &screen.status, 0);
    typist.join();
    close(terminal);
    return screen;
}

TEST_F(LyrctlTop, GivesTheTerminalBack) {
    for (const char *keys : {"q", "\x03"}) {
        const Screen screen = OnTerminal(Path("socket"), keys);
        EXPECT_EQ(screen.status, 0) << screen.output;
        EXPECT_TRUE(screen.restored);
        EXPECT_TRUE(screen.output.starts_with("\033[?1049h")) << screen.output;
        EXPECT_TRUE(screen.output.ends_with("\033[?25h\033[?1049l")) << screen.output;
        // What has not changed is sent once, and what does not fit is not sent.
        const std::string heading = "packets     received";
        const size_t at = screen.output.find(heading);
        ASSERT_NE(at, std::string::npos) << screen.output;
        EXPECT_EQ(screen.output.rfind(heading), at) << screen.output;
        EXPECT_THAT(screen.output, Not(HasSubstr("transm")));
        EXPECT_THAT(screen.output, Not(HasSubstr("\033[16;1H")));
        // What matters most does.
        for (const char *row : {"ALARM RAISED,", " quiet periods", "H       0  ", "H       3  "}) {
            EXPECT_THAT(std::regex_replace(screen.output, std::regex("\033\\[[0-9;]*[mK]"), ""),
                        HasSubstr(row));
        }
    }
}

}  // namespace
}  // namespace programs
