// Many commands at a time: exec, and the shell.
#include <poll.h>
#include <pty.h>

#include <chrono>
#include <thread>

#include "canned_engine.h"

namespace programs {
namespace {

using testing::HasSubstr;
using LyrctlExec = Lyrctl;

TEST_F(LyrctlExec, RunsFilesUntilSomethingFails) {
    engine.PutReplies(MUND_OP_KaTunnel, {{.result = 1}});
    engine.PutReplies(MUND_OP_WapiTunnel, {{.payload = BytesOf(LyrKesWapiTunnelRsp{})}});
    Write("good", "# comment\nwapi 0 1\ntunnel add 1.1.1.1 1 2.2.2.2 5246 --node 1\n\nwapi show\n");
    Write("bad",
          "wapi 0 1\nsession del 00112233445566778899aabbccddeeff\nwapi 0 3\ninspect no\n"
          "tunnel default --node 0\n");
    const struct {
        const char *arguments;
        int status;
        std::string out;
        std::string err;
    } cases[] = {
        {"exec good", 0, "service instances 2 to 5 serve stations\n3 commands done\n", ""},
        {"--json exec good", 0, R"({"file":"good","line":2,"command":"wapi 0 1",)", ""},
        {"exec bad good", 1, "",
         "lyrctl: bad:2: session del 00112233445566778899aabbccddeeff: failed (1)\n"
         "lyrctl: 1 command done, 1 failed, 6 not run\n"},
        {"exec --keep-going bad", 1, "",
         "lyrctl: bad:2: session del 00112233445566778899aabbccddeeff: failed (1)\n"
         "lyrctl: bad:3: wapi 0 3: instance 2 is beyond the service instances, 0 to 1\n"
         "lyrctl: bad:4: inspect no: no object no\n"
         "lyrctl: 2 commands done, 3 failed\n"},
        {"exec - < good", 0, "service instances 2 to 5 serve stations\n3 commands done\n", ""},
        {"exec - < /dev/null", 0, "0 commands done\n", ""},
        {"exec - -", 2, "", "lyrctl: the standard input ('-') can be read only once\n"},
        {"exec good none", 2, "",
         "lyrctl: cannot read commands from 'none': No such file or directory\n"},
        {"exec good", 3, "",
         "lyrctl: good:2: no engine at none: No such file or directory\n"
         "lyrctl: 0 commands done, 1 failed, 2 not run\n"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(c.arguments, c.status == 3 ? "none" : "socket");
        EXPECT_EQ(run.status, c.status) << c.arguments << run.err;
        EXPECT_EQ(run.out.substr(0, c.out.size()), c.out) << c.arguments;
        EXPECT_EQ(run.err, c.err) << c.arguments;
    }
    const size_t before = engine.Requests(MUND_OP_WapiTunnel).size();
    for (const auto &[line, complaint] :
         {std::pair{"trace follow --grep 'a b", "the quote ' is not"},
          {"inspect --slot 'x y' g_a", "--slot 'x y' is not"},
          {"exec good", "a file that is run runs no others"},
          {"tunel", "unknown command"}}) {
        Write("wrong", "wapi 0 1\n" + std::string(line) + "\n");
        const Outcome run = Do("exec good --keep-going wrong");
        EXPECT_EQ(run.status, 2);
        EXPECT_THAT(run.err, testing::StartsWith("lyrctl: wrong:2: " + std::string(complaint)));
    }
    EXPECT_EQ(engine.Requests(MUND_OP_WapiTunnel).size(), before) << "nothing is sent";
}

// lyrctl on a terminal, with someone who types.
class Typist {
  public:
    Typist(const std::string &home, const std::string &socket) {
        pid_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            alarm(30);
            setenv("TERM", "xterm", 1);
            setenv("XDG_STATE_HOME", home.c_str(), 1);
            execl(LYRCTL, LYRCTL, "--control", socket.c_str(), nullptr);
            _exit(127);
        }
    }

    // What has been shown, once it has the text, since the keys before.
    std::string Type(const std::string &keys, const std::string &text) {
        AwaitEditing();
        EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        std::string shown;
        pollfd waiting = {terminal_, POLLIN, 0};
        std::array<char, 4096> part;
        while (shown.find(text) == std::string::npos && poll(&waiting, 1, 10'000) == 1) {
            const ssize_t size = read(terminal_, part.data(), part.size());
            if (size <= 0) {
                break;
            }
            shown.append(part.data(), static_cast<size_t>(size));
        }
        EXPECT_THAT(shown, HasSubstr(text)) << keys;
        return shown;
    }
    int End() const {
        int status = 0;
        waitpid(pid_, &status, 0);
        close(terminal_);
        return ExitStatus(status);
    }

  private:
    // The prompt comes before the terminal is set for editing, which forgets the keys typed until
    // then. A command that runs leaves the terminal as it is.
    void AwaitEditing() const {
        termios settings = {};
        for (int i = 0;
             i < 100 && tcgetattr(terminal_, &settings) == 0 && (settings.c_lflag & ICANON) != 0;
             ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    int terminal_ = -1;
    pid_t pid_;
};

TEST_F(LyrctlExec, TheShellEditsCompletesAndRemembers) {
    if (!LYRCTL_HAS_SHELL) {
        GTEST_SKIP() << "built without libedit";
    }
    engine.PutLines({{{1, 0, 0}, "a line"}}, true);
    const std::string prompt = "lyrctl> ";
    Typist first(Path(), Path("socket"));
    first.Type("", prompt);
    first.Type("wapi sh\t\r", "service instances 2 to 5 serve stations");
    first.Type("msgtype select ech\t\t", "echo-response");
    first.Type("\x03", "^C\r\n" + prompt);
    first.Type("tunnel default --node \t\t", "0  1");
    first.Type("\x03trace follow\r", "a line");
    first.Type("\x03", prompt);
    first.Type("tunel\r", "unknown command 'tunel'");
    first.Type("help wapi show\r", "e.g. lyrctl wapi show");
    first.Type("quit\r", "quit");
    EXPECT_EQ(first.End(), 0);
    EXPECT_EQ(Read("lyrctl/history"), "wapi show \ntrace follow\ntunel\nhelp wapi show\nquit\n");
    Typist second(Path(), Path("socket"));
    second.Type("", prompt);
    second.Type("\033[A\033[A\033[A\033[A\033[A\r", "serve stations\r\n" + prompt);
    second.Type("\x04", "\n");
    EXPECT_EQ(second.End(), 0);
}

}  // namespace
}  // namespace programs
