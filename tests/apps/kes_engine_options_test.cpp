// What the runner does not begin with: bad options, captures, commands and modules.
#include <sys/stat.h>

#include <bit>

#include "kes_engine_fixture.h"

namespace programs {
namespace {

using KesEngineOptions = KesEngine;

TEST_F(KesEngineOptions, BadInputEndsItBeforeAnythingIsWritten) {
    std::string wifi = Read("in");
    constexpr size_t kLinkTypeAt = 20;
    constexpr char kWireless = 105;
    (std::endian::native == std::endian::little ? wifi[kLinkTypeAt] : wifi[kLinkTypeAt + 3]) =
        kWireless;
    Write("wifi", wifi);
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
    Write("text", "These are words, and many of them, but no capture.\n");
    Write("cut", Read("in").substr(0, 20));
    Write("unknown", "# tunnels\nwapi 0 1\nwapy 0 1\n");
    Write("refused", "wapi 0 1\nwapi 29 1\n");
    Write("audit", "recon run 3 unknown\n");
    const struct {
        const char *arguments;
        int status;
        const char *error;
    } cases[] = {
        {"", 2, "one of --replay, --listen and --serve is required"},
        {"--frobnicate", 2, "--frobnicate"},
        {"--workers 0", 2, "--workers '0' is not a number from 1 to 64"},
        {"--workers 65", 2, "--workers '65' is not a number from 1 to 64"},
        {"--rx-port x7", 2, "--rx-port 'x7' is not a number from 0 to 4294967295"},
        {"--rate 0", 2, "--rate '0'"},
        {"--rate fast", 2, "'fast'"},
        {"--loop -1", 2, "--loop"},
        {"--loop 2 --replay pipe", 2, "--loop '2': 'pipe' is no file that can be read again"},
        {"--loop 0 --replay -", 2, "--loop '0': '-'"},
        {"--replay - --exec -", 2, "the standard input ('-') can be read only once"},
        {"--if-map 7", 2, "--if-map '7' has no '='"},
        {"--local 10.0.0", 2, "--local '10.0.0' is not an IPv4 or IPv6 address"},
        {"--cause-id 10.0.0.1", 2, "--cause-id '10.0.0.1' has no '='"},
        {"--cause-id 2:0:0:0:0:1=7", 2,
         "--cause-id SOURCE '2:0:0:0:0:1' is not an IPv4, IPv6 or MAC address"},
        {"--cause-id 10.0.0.1=65536", 2, "--cause-id ID '65536' is not a number from 0 to 65535"},
        {"--report xml", 2, "xml"},
        {"--capability WCWP_SPEC_SVC=3", 2,
         "--capability: unknown capability 'WCWP_SPEC_SVC'; there are: WCWP_SPEC_SVC_NUM, "},
        {"--capability WCWP_SPEC_SVC_NUM=many", 2,
         "--capability WCWP_SPEC_SVC_NUM 'many' is not a number from 0 to 4294967295"},
        {"--replay none", 2, "cannot read 'none': No such file or directory"},
        {"--replay .", 2, "cannot read '.': "},
        {"--replay text", 2, "cannot read 'text': unknown file format"},
        {"--replay cut", 2, "cannot read 'cut': truncated dump file"},
        {"--replay wifi", 2, "cannot read 'wifi': its frames are not Ethernet but 802.11"},
        {"--listen no-such-interface", 2, "'no-such-interface'"},
        {"--control ''", 2, "--control: the path of the control socket is empty"},
        {"--control /no/such/directory/socket", 1, "/no/such/directory/socket"},
        {"--exec none", 2, "cannot read commands from 'none': No such file or directory"},
        {"--exec unknown", 2, "unknown:3: unknown command 'wapy'; there are: tunnel, session, "},
        {"--exec audit", 2,
         "audit:1: unknown:3: unknown command 'wapy'; there are: tunnel, session, "},
        {"--module ./none.so", 2, "cannot load the module: ./none.so"},
        {"--log none/log", 1, "--log: cannot write 'none/log': No such file or directory"},
        {"--out none/out", 1, "--out: cannot make directory 'none/out': No such file or directory"},
        {"--out text", 1, "--out: cannot make directory 'text': "},
        {"--exec refused", 1,
         "refused:2: wapi 29 1: instance 29 is beyond the service instances, 0 to 27"},
        {"--capability WCWP_SPEC_SVC_NUM=1000", 1,
         "the module has 1001 service instances; at most 1000 can be served here"},
    };
    for (const auto &c : cases) {
        std::string arguments = c.arguments;
        SCOPED_TRACE(arguments);
        for (const std::string other : {"--replay in", "--out out", "--log log"}) {
            const std::string option = other.substr(0, other.find(' '));
            if (!arguments.empty() && arguments.find(option) == std::string::npos) {
                arguments += " " + other;
            }
        }
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_EQ(outcome.out, "");
        const std::vector<std::string> lines = Lines(outcome.err);
        ASSERT_FALSE(lines.empty());
        // Commands that went well before the one that did not have said so.
        EXPECT_LE(lines.size(), lines.front() == "wapi 0 1: ok" ? 2u : 1u) << outcome.err;
        EXPECT_TRUE(lines.back().starts_with("kes_engine: ")) << lines.back();
        EXPECT_THAT(lines.back(), testing::HasSubstr(c.error));
        EXPECT_FALSE(fs::exists(Path("out")));
    }
    EXPECT_EQ(Read("text"), "These are words, and many of them, but no capture.\n");
}

TEST_F(KesEngineOptions, ALogIsLeftAloneByARunThatDoesNotBegin) {
    Write("old", "old\n");
    for (const char *log : {"old", "new"}) {
        EXPECT_EQ(Run("--replay in --module ./none.so --log " + std::string(log)).status, 2);
    }
    EXPECT_EQ(Read("old"), "old\n");
    EXPECT_FALSE(fs::exists(Path("new")));
}

}  // namespace
}  // namespace programs
