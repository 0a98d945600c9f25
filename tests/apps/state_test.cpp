// What the module has been told: listed, saved, compared, kept over restarts, and audited.
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "program.h"

namespace programs {
namespace {

using testing::HasSubstr;

constexpr const char *kSite =
    "source set 0=1,10.0.0.1,7 2=4,2001:db8::1\n"
    "wapi 1 2\n"
    "tunnel default --node 0\ntunnel default --node 3 --ipv6\n"
    "tunnel add 10.64.0.10 5000 10.0.0.1 5246 --node 2\n"
    "tunnel add 10.64.0.9 5000 10.0.0.1 5246 --node 1 --vpn 70000\n"
    "tunnel add 10.64.0.9 5000 10.0.0.1 5246 --node 2\n"
    "tunnel add 2001:db8:1::8 5001 2001:db8::1 5247 --node 2\n"
    "session add ffeeddccbbaa99887766554433221100 --node 2\n"
    "session add 00112233445566778899aabbccddeeff --node 1\n"
    "trace set --level 3 --src 10.64.0.9 --dst 2001:db8::1 --sport 5000 --type echo-request "
    "--mac 02:00:5e:10:00:01\n"
    "msgtype select 77\nping set 2001:db8:1::8\n";

class State : public testing::Test, protected Directory {
  protected:
    State() {
        Write("site", kSite);
    }
    std::string Engine(const std::string &arguments, const std::string &socket = "socket") const {
        return KES_ENGINE " --serve --capability WCWP_SPEC_SVC_NUM=3 --log " + Path("log") +
               " --control " + Path(socket) + " " + arguments;
    }
    Outcome Do(const std::string &arguments) const {
        return Shell(LYRCTL " --control " + Path("socket") + " " + arguments);
    }
};

TEST_F(State, IsListedSortedAndByChoice) {
    Process engine(Engine("--exec " + Path("site")));
    ASSERT_TRUE(Becomes([&] { return Do("diff site").status == 0; })) << engine.Errors();
    const struct {
        const char *arguments;
        const char *key;  // of each row
        std::vector<std::string> wanted;
    } cases[] = {
        {"tunnel list",
         "source",
         {"10.64.0.9", "10.64.0.9", "10.64.0.10", "255.255.255.255", "2001:db8:1::8",
          "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}},
        {"tunnel list --node 2 --ipv4", "source", {"10.64.0.9", "10.64.0.10"}},
        {"tunnel list --src 10.64.0.9", "vpn", {"0", "70000"}},
        {"tunnel list --dst 2001:db8::1 --port 5247", "source", {"2001:db8:1::8"}},
        {"tunnel list --port 5247 --ipv6", "source", {"2001:db8:1::8"}},
        {"session list",
         "session",
         {"00112233445566778899aabbccddeeff", "ffeeddccbbaa99887766554433221100"}},
        {"session list --node 2", "instance", {"2"}},
        {"node show", "ipv4Tunnels", {"1", "1", "2", "0"}},
        {"node show", "stations", {"false", "true", "true", "false"}},
        {"node show 3", "cwpResolved", {"true"}},
    };
    for (const auto &c : cases) {
        const auto reply =
            nlohmann::json::parse(Do(std::string("--json ") + c.arguments).out)["reply"];
        std::vector<std::string> values;
        for (const char *rows : {"tunnels", "sessions", "instances"}) {
            for (const auto &row : reply.value(rows, nlohmann::json::array())) {
                const auto &value = row.at(c.key);
                values.push_back(value.is_string() ? value.get<std::string>() : value.dump());
            }
        }
        EXPECT_EQ(values, c.wanted) << c.arguments;
    }
    EXPECT_EQ(Do("tunnel count --node 2").out, "tunnels: 3\n");
    EXPECT_EQ(Do("session count").out, "sessions: 2\n");
    EXPECT_EQ(Do("tunnel list --ipv6 --src 10.0.0.1").status, 2);
    EXPECT_THAT(Do("session list --node 4").err, HasSubstr("instance 4 is beyond the service"));
}

TEST_F(State, IsKeptOverRestartsAndCrashes) {
    const std::string start = Engine("--state " + Path("state"));
    {
        Process first(start + " --exec " + Path("site"));
        ASSERT_TRUE(Becomes([&] { return Do("diff state").status == 0; })) << first.Errors();
        EXPECT_EQ(Do("diff site").status, 0);
        const Outcome second = Shell(Engine("--state " + Path("state"), "other"));
        EXPECT_EQ(second.status, 2);
        EXPECT_THAT(second.err, HasSubstr("another engine keeps its state there"));
        EXPECT_EQ(Do("tunnel del 10.64.0.10 5000 10.0.0.1 5246").status, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        first.Stop(SIGKILL);
    }
    const std::string saved = Read("state");
    EXPECT_THAT(saved, HasSubstr("\nsource set 0=1,10.0.0.1,7 2=4,2001:db8::1\n"));
    EXPECT_EQ(Count(saved, "10.64.0.10"), 0u);
    fs::last_write_time(Path("state"), fs::file_time_type());
    {
        Process again(start);
        ASSERT_TRUE(Becomes([&] { return Do("diff state").status == 0; })) << again.Errors();
        EXPECT_EQ(Do("save").out, saved);
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        EXPECT_EQ(again.Stop(SIGTERM).status, 0);
    }
    EXPECT_EQ(Read("state"), saved);
    EXPECT_EQ(fs::last_write_time(Path("state")), fs::file_time_type()) << "written in vain";
    {
        Process last(start);
        ASSERT_TRUE(Becomes([&] { return Do("session del " + std::string(32, '0')).status == 0; }));
        // What is changed just before an orderly stop is saved, too.
        Do("tunnel default --node 2");
        fs::remove(Path("state"));
        EXPECT_EQ(last.Stop(SIGTERM).status, 0);
    }
    EXPECT_THAT(Read("state"), HasSubstr("\ntunnel default --node 2\n"));
}

TEST_F(State, OfAnotherModuleOrCutIsRefusedWhole) {
    {
        Process engine(Engine("--exec " + Path("site")));
        ASSERT_TRUE(Becomes([&] { return Do("diff site").status == 0; })) << engine.Errors();
        EXPECT_EQ(Do("save good").out, "ok; commands saved: 13\n");
    }
    const struct {
        const char *change;
        const char *complaint;
    } cases[] = {
        {"head -c 700 good",
         "27: the file is cut short, or was changed: it has 11 commands, and ends with 'tra'"},
        {"head -n 12 good", ":12: the file is cut short, or was changed: it has 4 commands, and"},
        {"grep -v 70000 good",
         "it has 12 commands, and ends with '# end: 13 commands' instead of '# end: 12 commands'"},
        {"sed 's/IPv6 [0-9]*/IPv6 31/' good",
         ":2: the state is that of tables of another size, "
         "'# buckets: IPv4 23397, IPv6 31, session 11699'"},
        {"sed 's/node 3/node 4/' good", "12: instance 4 is beyond the service instances, 0 to 3"},
        {"sed 's/70000/x/' good", "16: --vpn 'x' is not a number"},
        {"cat site", ":1: 'source set 0=1,10.0.0.1,7 2=4,2001:db8::1' does not begin a saved"},
        {"true", ":1: '' does not begin a saved state"},
    };
    for (const auto &c : cases) {
        Shell(std::string(c.change) + " > state");
        const std::string before = Read("state");
        const Outcome run = Shell("timeout 20 " + Engine("--state state"));
        EXPECT_EQ(run.status, 2) << c.change << run.out;
        EXPECT_THAT(run.err, HasSubstr("kes_engine: state:"));
        EXPECT_THAT(run.err, HasSubstr(c.complaint));
        EXPECT_EQ(Read("state"), before) << c.change;
    }
    for (const char *path : {"/none/state", "/dev/full", "."}) {
        EXPECT_EQ(Shell("timeout 20 " + Engine(std::string("--state ") + path)).status, 2) << path;
    }
}

TEST_F(State, IsWrittenWholeOrNotAtAll) {
    Process engine(Engine("--exec " + Path("site")));
    ASSERT_TRUE(Becomes([&] { return Do("diff site").status == 0; })) << engine.Errors();
    Write("kept", "before");
    fs::create_symlink("kept", Path("link"));
    chmod(Path("kept").c_str(), 0640);
    EXPECT_EQ(Do("save link").status, 0);
    EXPECT_TRUE(fs::is_symlink(Path("link")));
    struct stat status = {};
    EXPECT_EQ(stat(Path("kept").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(Read("kept"), Do("save").out);
    EXPECT_EQ(Do("save /dev/stdout | cat").out, Read("kept") + "ok; commands saved: 13\n");

    Write("kept", "before");
    const struct {
        const char *command;
        const char *complaint;
    } cases[] = {
        {"save .", "cannot write '.': Is a directory"},
        {"save /none/x", "cannot write '/none/x': a file beside it cannot be made: No such"},
        {"save /dev/full", "cannot write '/dev/full': No space left on device"},
        {"save > /dev/full", "cannot write the answer"}};
    for (const auto &c : cases) {
        const Outcome run = Do(c.command);
        EXPECT_EQ(run.status, 1) << c.command;
        EXPECT_THAT(run.err, HasSubstr(c.complaint));
    }
    // A file that may grow no further leaves the old one as it was, and nothing beside it.
    const auto files = [&] { return std::distance(fs::directory_iterator(Path()), {}); };
    const auto before = files();
    EXPECT_NE(Shell("ulimit -f 1; " LYRCTL " --control " + Path("socket") + " save kept").status,
              0);
    EXPECT_EQ(Read("kept"), "before");
    EXPECT_EQ(files(), before);
}

TEST_F(State, IsComparedWithFilesAndAudited) {
    Process engine(Engine("--exec " + Path("site")));
    ASSERT_TRUE(Becomes([&] { return Do("diff site").status == 0; })) << engine.Errors();
    EXPECT_EQ(Do("diff site").out, "no differences\n");
    Shell(
        "sed -e 's/ 70000/ 7/' -e 's/0011223344/1111223344/' -e 's/wapi 1 2/wapi 0 2/'"
        "    -e '/64.0.10/s/node 2/node 0/' site > other");
    const struct {
        const char *command;
        std::vector<std::string> lines;  // kind and what it is about
    } cases[] = {
        {"diff other",
         {"otherwise", "less.*70000", "more.*--vpn 7 ", "less.*session add 0011", "otherwise",
          "more.*session add 1111"}},
        {"recon diff 2 other", {"removed.*64.0.10 .*--node 0.*64.0.10 .*--node 2"}},
        {"recon diff 1 other",
         {"removed.*70000", "missing.*--vpn 7 ", "removed.*session add 0011",
          "missing.*session add 1111"}},
        {"recon diff 0 other", {"elsewhere.*64.0.10 .*--node 0.*64.0.10 .*--node 2"}},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(c.command);
        EXPECT_EQ(run.status, 1) << c.command << run.err;
        std::vector<std::string> lines = Lines(run.out);
        ASSERT_EQ(lines.size(), c.lines.size() + 1) << run.out;
        for (const std::string &wanted : c.lines) {
            EXPECT_TRUE(std::ranges::any_of(
                lines,
                [&](const std::string &line) {
                    return Shell("echo '" + line + "' | grep -qe '" + wanted + "'").status == 0;
                }))
                << wanted << "\n"
                << run.out;
        }
    }
    EXPECT_EQ(Do("diff none").status, 2);
    EXPECT_EQ(Do("recon diff 4 other").status, 2);
    EXPECT_THAT(Do("recon run 4 other").err, HasSubstr("instance 4 is beyond"));
    EXPECT_EQ(Do("diff - < other").out, Do("diff other").out);

    // An audit is through when the command is, and tells what is gone.
    EXPECT_THAT(Do("recon run 2 other --verbose").out,
                testing::EndsWith("; removed: 1 tunnels, 0 sessions\n"
                                  "removed tunnel add 10.64.0.10 5000 10.0.0.1 5246 --node 2\n"));
    EXPECT_EQ(Do("recon diff 2 other").out, "no differences\n");
    const auto json = nlohmann::json::parse(Do("recon run 1 other --json --verbose").out);
    EXPECT_EQ(json["reply"]["removedTunnels"], 1);
    EXPECT_EQ(json["reply"]["removedSessions"], 1);
    EXPECT_EQ(json["reply"]["removed"].size(), 2u);
    EXPECT_EQ(Count(Do("recon run 0 other --no-wait").out, "removed"), 0u);
}

}  // namespace
}  // namespace programs
