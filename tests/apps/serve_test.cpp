// An engine that stays up: clients, signals, and live traffic.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include "capwap/packet_builder.h"
#include "control/command.h"
#include "control/connection.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using control::Connection;
using nlohmann::ordered_json;

constexpr const char *kSession = TEST_DATA "/ap-session.pcap";
constexpr const char *kCommands =
    "source add 1 192.168.10.9 --if 7\n"
    "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n"
    "tunnel default --node 0\n";

bool Within(std::chrono::seconds time, const std::function<bool()> &holds) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::string ReadText(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// An engine in a process of its own.
class Process {
  public:
    Process(const std::string &directory, const std::string &arguments,
            const std::string &prefix = "")
        : directory_(directory) {
        const std::string command = "exec " + prefix + KES_ENGINE + " --report json " + arguments +
                                    " >" + directory + "/out 2>" + directory + "/err";
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Process() {
        if (pid_ > 0) {
            Stop(SIGKILL);
        }
    }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    // Sends a signal (0: none) and waits for the end; the exit status, or the signal below zero.
    int Stop(int signal) {
        kill(pid_, signal);
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    ordered_json Report() const {
        return ordered_json::parse(ReadText(directory_ + "/out"), nullptr, false);
    }
    std::string Errors() const {
        return ReadText(directory_ + "/err");
    }

  private:
    const std::string directory_;
    pid_t pid_;
};

class Serving : public testing::Test {
  protected:
    void SetUp() override {
        directory_ = testing::TempDir() + "serve.XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        socket_ = directory_ + "/control";
        std::ofstream(directory_ + "/commands") << kCommands;
    }
    void TearDown() override {
        fs::remove_all(directory_);
    }
    // What every engine of these tests is started with.
    std::string Served() const {
        return "--control " + socket_ + " --exec " + directory_ + "/commands --rx-port 7 --log " +
               directory_ + "/log ";
    }
    // A client, once there is an engine; null if none comes up.
    std::unique_ptr<Connection> Connect() const {
        std::unique_ptr<Connection> connection;
        Within(20s, [&] {
            try {
                connection = std::make_unique<Connection>(socket_);
            } catch (const control::NoEngine &) {
            }
            return connection != nullptr;
        });
        return connection;
    }
    static control::Outcome Run(Connection &connection, const std::string &line) {
        std::istringstream text(line);
        const std::vector<control::Command> commands = control::ParseCommands(text, "test");
        return control::Execute(commands.at(0), [&connection](MundOperation operation,
                                                              std::span<const uint8_t> request) {
            return connection.Call(operation, request);
        });
    }

    std::string directory_;
    std::string socket_;
};

TEST_F(Serving, ClientsMeetARunningReplay) {
    Process engine(directory_, Served() + "--serve --loop 0 --rate 50000 --replay " + kSession);
    const std::unique_ptr<Connection> client = Connect();
    ASSERT_NE(client, nullptr) << engine.Errors();
    EXPECT_TRUE(Within(20s, [&] { return client->State()["taken"] > 345; }));
    EXPECT_EQ(Run(*client, "tunnel count --port 5246").reply["count"], 2);
    EXPECT_EQ(client->Object("g_lyrHostsvcNum"), (control::Bytes{27, 0, 0, 0}));
    EXPECT_THROW(client->Object("no_such_object"), control::Refused);

    // What the access point sends goes elsewhere from one moment to the next.
    EXPECT_TRUE(Run(*client, "tunnel add 192.168.10.11 12380 192.168.10.9 5246 --node 5").Ok());
    EXPECT_TRUE(Run(*client, "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 5").Ok());
    EXPECT_TRUE(Within(20s, [&] {
        const ordered_json instances = client->State()["instances"];
        return std::ranges::any_of(instances, [](const ordered_json &entry) {
            return entry["instance"] == 5 && entry["cwp"] > 0;
        });
    }));
    // Lines come to those who follow.
    EXPECT_TRUE(Run(*client, "trace set --level 2").Ok());
    Connection follower(socket_);
    int lines = 0;
    follower.Follow([&](const MundWireLine &, std::string_view text) {
        EXPECT_FALSE(text.empty());
        return ++lines < 50;
    });
    EXPECT_EQ(lines, 50);

    EXPECT_EQ(engine.Stop(SIGTERM), 0) << engine.Errors();
    const ordered_json report = engine.Report();
    EXPECT_EQ(report["conserved"], true);
    EXPECT_GT(report["received"], 3 * 422);
    EXPECT_FALSE(fs::exists(socket_));
    EXPECT_THROW(client->State(), control::NoEngine);
}

TEST_F(Serving, OneEngineASocket) {
    auto first = std::make_unique<Process>(directory_, Served() + "--serve");
    ASSERT_NE(Connect(), nullptr) << first->Errors();
    EXPECT_EQ(fs::status(socket_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const std::string elsewhere = directory_ + "/second";
    fs::create_directory(elsewhere);
    Process second(elsewhere, Served() + "--serve");
    EXPECT_EQ(second.Stop(0), 1);
    EXPECT_NE(second.Errors().find(socket_), std::string::npos) << second.Errors();

    first->Stop(SIGKILL);
    EXPECT_TRUE(fs::exists(socket_)) << "what a dead engine leaves";
    Process third(directory_, Served() + "--serve");
    EXPECT_NE(Connect(), nullptr) << third.Errors();
    EXPECT_EQ(third.Stop(SIGINT), 0);
}

TEST_F(Serving, BadOptions) {
    const struct {
        const char *arguments, *names;
        int status;
    } cases[] = {
        {"", "--replay, --listen and --serve", 2},
        {"--serve --rate 0", "--rate '0'", 2},
        {"--serve --rate fast", "'fast'", 2},
        {"--serve --loop -1", "--loop", 2},
        {"--listen no-such-interface", "'no-such-interface'", 1},
        {"--serve --control /no/such/directory/socket", "/no/such/directory/socket", 1},
    };
    for (const auto &[arguments, names, status] : cases) {
        SCOPED_TRACE(arguments);
        Process engine(directory_, arguments);
        EXPECT_EQ(engine.Stop(0), status);
        const std::string errors = engine.Errors();
        EXPECT_NE(errors.find(names), std::string::npos) << errors;
        EXPECT_EQ(std::ranges::count(errors, '\n'), 1) << errors;
    }
}

// --- live traffic, on a network of the test's own ---

class Network {
  public:
    Network() : name_("lyrtest" + std::to_string(getpid())) {
        made_ = Shell("ip netns add " + name_) &&
                Shell(Prefix() + "ip link add va type veth peer name vb") &&
                Shell(Prefix() + "ip link set va up") && Shell(Prefix() + "ip link set vb up");
    }
    ~Network() {
        Shell("ip netns del " + name_);
    }
    Network(const Network &) = delete;
    Network &operator=(const Network &) = delete;

    bool Made() const {
        return made_;
    }
    std::string Prefix() const {
        return "ip netns exec " + name_ + " ";
    }
    // Sends frames from the other end, in a process that lives in the network.
    bool Send(const std::vector<capwap::Bytes> &frames) const {
        const pid_t child = fork();
        if (child == 0) {
            const int space = open(("/run/netns/" + name_).c_str(), O_RDONLY);
            sockaddr_ll to = {};
            to.sll_family = AF_PACKET;
            const bool entered = setns(space, CLONE_NEWNET) == 0;
            to.sll_ifindex = static_cast<int>(if_nametoindex("va"));
            const int out = socket(AF_PACKET, SOCK_RAW, 0);
            bool sent = entered && out >= 0;
            for (const capwap::Bytes &frame : frames) {
                sent = sent &&
                       sendto(out, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr *>(&to),
                              sizeof to) == static_cast<ssize_t>(frame.size());
            }
            _exit(sent ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return status == 0;
    }

  private:
    static bool Shell(const std::string &command) {
        return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
    }
    const std::string name_;
    bool made_;
};

TEST_F(Serving, LiveTrafficArrivesAtItsInstances) {
    const Network network;
    if (!network.Made()) {
        GTEST_SKIP() << "no network namespaces here";
    }
    Process engine(directory_, Served() + "--listen vb", network.Prefix());
    const std::unique_ptr<Connection> client = Connect();
    ASSERT_NE(client, nullptr) << engine.Errors();

    capwap::FrameSpec spec;
    spec.dstIp = capwap::Ipv4("192.168.10.9");
    spec.payload = capwap::ControlMessage(13, 1, {});
    std::vector<capwap::Bytes> frames;
    for (int i = 0; i < 300; ++i) {
        const bool known = i % 3 == 0;
        spec.srcIp = capwap::Ipv4(known ? "192.168.10.10" : "192.168.10.11");
        spec.srcPort = known ? 12380 : 5000;
        frames.push_back(capwap::BuildFrame(spec));
    }
    ASSERT_TRUE(network.Send(frames));
    EXPECT_TRUE(Within(20s, [&] { return client->State()["taken"] == 300; }));
    EXPECT_EQ(engine.Stop(SIGINT), 0) << engine.Errors();
    std::map<int, int> got;
    const ordered_json report = engine.Report();
    for (const ordered_json &entry : report["instances"]) {
        got[entry["instance"]] = entry["cwp"];
    }
    EXPECT_EQ(got, (std::map<int, int>{{0, 200}, {3, 100}}));
}

}  // namespace
