// lyrctl's commands: how they are given, described and refused, and what a real engine answers.
#include <regex>
#include <set>

#include "canned_engine.h"

namespace programs {
namespace {

using testing::HasSubstr;
using LyrctlCommands = Lyrctl;

TEST_F(LyrctlCommands, MistakesAreUsageAndNeedNoEngine) {
    const struct {
        const char *arguments;
        const char *complaint;
    } cases[] = {
        {"", "there is no command"},
        {"tunel list", "unknown command 'tunel'; there are: tunnel, session, wapi, source"},
        {"tunnel", "unfinished command 'tunnel'; there are: tunnel add, tunnel del"},
        {"source show all", "unexpected word 'all'; usage: source show"},
        {"inspect --slot x g_a", "--slot 'x' is not a number"},
        {"trace follow --level 9", "--level '9' is not a level of the trace: 1 (failures), 2"},
        {"trace follow --grep '('", "--grep '(' is not a regular expression"},
        {"explain --capture " TEST_DATA "/none.pcap", "none.pcap': No such file"},
        {"explain --frame 0 --capture " TEST_DATA "/ap-session.pcap", "counted from 1"},
        {"top", "top needs a terminal"},
        {"recon run 3 /none", "cannot read commands from '/none'"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(c.arguments, "/none/such.sock");
        EXPECT_EQ(run.status, 2) << c.arguments;
        EXPECT_EQ(run.out, "") << c.arguments;
        EXPECT_THAT(run.err, HasSubstr(c.complaint));
        EXPECT_EQ(std::ranges::count(run.err, '\n'), 1) << run.err;
    }
    const json answer = json::parse(Do("--json inspect --slot x g_a", "/none/such.sock").out);
    EXPECT_EQ(answer["command"], "inspect --slot x g_a");
    EXPECT_EQ(answer["ok"], false);
    EXPECT_THAT(answer["meaning"], HasSubstr("--slot 'x' is not a number"));
    const json nobody = json::parse(Do("--json stats show", "/none/such.sock").out);
    EXPECT_EQ(nobody["ok"], false);
    EXPECT_THAT(nobody["meaning"], HasSubstr("no engine at /none/such.sock"));
    EXPECT_THAT(Do("'\x1b[2J'", "/none/such.sock").err, HasSubstr("'?[2J'"));
    const Outcome tooLong = Do("stats show", "/" + std::string(107, 'x'));
    EXPECT_EQ(tooLong.status, 2);
    EXPECT_THAT(tooLong.err, HasSubstr("the path has 108 bytes, and a socket's path at most 107"));
    for (const char *command : {"stats show", "source show", "trace follow", "top --once",
                                "explain --capture " TEST_DATA "/ap-session.pcap"}) {
        const Outcome run = Do(command, "/none/such.sock");
        EXPECT_EQ(run.status, 3) << command;
        EXPECT_THAT(run.err, HasSubstr("/none/such.sock"));
    }
}

// The lines of the manual page without its markup and spaces.
std::set<std::string> PageLines() {
    std::set<std::string> lines;
    for (std::string line : Lines(ReadText(LYRCTL_PAGE))) {
        for (const char *markup : {R"(^\.[BI]+R?)", R"(\\f[BIRP])", R"(\\(?=-))", "\"", " "}) {
            line = std::regex_replace(line, std::regex(markup), "");
        }
        lines.insert(line);
    }
    return lines;
}

TEST_F(LyrctlCommands, EveryCommandHasHelpPageAndCompletion) {
    const std::set<std::string> page = PageLines();
    const std::vector<std::string> commands = Lines(Shell(LYRCTL " --list-commands").out);
    const std::string overview = Shell(LYRCTL " --help").out;
    for (const std::string &line : commands) {
        const size_t tab = line.find('\t');
        const std::string name = line.substr(0, tab), usage = line.substr(tab + 1);
        EXPECT_THAT(overview, HasSubstr("\n  " + name));
        const std::string help = Shell(LYRCTL " " + name + " --help").out;
        EXPECT_THAT(help, HasSubstr("lyrctl " + name + (usage.empty() ? "" : " ") + usage + "\n"));
        EXPECT_THAT(help, HasSubstr("e.g. lyrctl " + name));
        const std::string unspaced = std::regex_replace(name + usage, std::regex(" "), "");
        EXPECT_TRUE(page.contains(unspaced)) << line << " is not in the manual page";
    }
    EXPECT_GT(commands.size(), 30u);

    const struct {
        const char *words;
        const char *choices;
    } cases[] = {{"tunnel l", "list"},
                 {"--json trace ''", "clear follow set show"},
                 {"wapi ''", "show"},
                 {"--control socket wapi ''", "0 1 show"},
                 {"inspect g_lyrKesMsg", "g_lyrKesMsgDropStat g_lyrKesMsgDropStatTimer"},
                 {"msgtype select = ech", "echo-request echo-response"},
                 {"recon confirm tunnel 1 2 3 4 --node 3 --", "--help --json --vpn"},
                 {"explain --capture " TEST_DATA "/ap", TEST_DATA "/ap-session.pcap"}};
    for (const auto &c : cases) {
        const Outcome run =
            Shell(std::string("bash -c '. " LYRCTL_COMPLETION "; COMP_WORDS=(") + LYRCTL + " " +
                  std::regex_replace(c.words, std::regex("''"), "\"\"") +
                  "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _lyrctl; "
                  "echo \"${COMPREPLY[*]}\"'");
        EXPECT_EQ(run.out, std::string(c.choices) + "\n") << c.words << run.err;
    }
}

TEST_F(LyrctlCommands, RefusalsAreToldWithTheirReason) {
    engine.PutReplies(MUND_OP_CwpTunnel, {{.result = 1}});
    engine.PutReplies(MUND_OP_KaTunnel, {{.status = MUND_WIRE_NO_SERVICE}});
    engine.PutObject(MUND_OBJECT_TRACE, Bytes(sizeof trace - 1));
    const struct {
        const char *arguments;
        const char *reason;
        const char *json;
    } cases[] = {
        {"tunnel default --node 1", "failed (1): no memory, or the instance is beyond",
         R"("operation":"CwpTunnel","ok":false,"result":1,)"},
        {"tunnel default --node 2", "instance 2 is beyond the service instances, 0 to 1",
         R"("operation":"CwpTunnel","ok":false,"result":null,)"},
        {"session del 00112233445566778899aabbccddeeff", "not open", R"("ok":false,"result":null)"},
        {"inspect g_nix", "no object g_nix", R"("ok":false,"meaning":"no object g_nix"})"},
        {"trace show", "g_lyrKesDebugTrace has 67 bytes, not 68", R"("ok":false)"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(std::string("--json ") + c.arguments);
        EXPECT_EQ(run.status, 1) << c.arguments;
        EXPECT_THAT(run.err, HasSubstr(c.arguments));
        EXPECT_THAT(run.err, HasSubstr(c.reason));
        EXPECT_THAT(run.out, HasSubstr(c.json));
        EXPECT_EQ(Do(c.arguments).out, "") << c.arguments;
    }
    EXPECT_EQ(Do("stats show > /dev/full").status, 1);
}

TEST_F(LyrctlCommands, ARealEngineUnderstandsThem) {
    Write("commands",
          "source add 1 192.168.10.9 --if 7\n"
          "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n");
    const std::string socket = Path("real");
    Process kesEngine(KES_ENGINE " --serve --rx-port 7 --replay " TEST_DATA
                                 "/ap-session.pcap --log /dev/null --exec " +
                      Path("commands") + " --control " + socket);
    EXPECT_TRUE(Becomes([&] { return Do("stats show", socket).out.starts_with("class"); }));
    const struct {
        const char *arguments;
        const char *part;
    } cases[] = {
        {"source show", "\n0         1     address   192.168.10.9  7\n"},
        {"channels show", "\ncwp   3         yes       6        0x"},
        {"trace set --level 2 --dst 2001:db8::5", "ok\n"},
        {"trace show", "\ndestination       2001:db8::5\n"},
        {"wapi 1 2", "ok\n"},
        {"wapi show", "service instances 1 to 2"},
        {"msgtype select echo-request", "ok\n"},
        {"inspect g_LyrHostPktMsgTypeStat", "\nmessageTypeName  Echo Request\n"},
        {"metrics", "\nlyr_host_table_entries{table=\"ipv4\"} 1\n"},
        {"metrics", "\nlyr_host_message_type_handoffs_total{message_type=\"Echo Request\","},
        {"top --once", "\ntotal                  422"},
        {"inspect g_LyrHostCwpTrace", "head   0\n"},
        {"explain --capture " TEST_DATA "/ap-session.pcap --rx-port 7 --frame 1",
         "no source has the destination address 192.168.10.10"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(c.arguments, socket);
        EXPECT_EQ(run.status, 0) << c.arguments << ": " << run.err;
        EXPECT_THAT(run.out, HasSubstr(c.part)) << c.arguments;
    }
    EXPECT_EQ(kesEngine.Stop(SIGTERM).status, 0);
}

}  // namespace
}  // namespace programs
