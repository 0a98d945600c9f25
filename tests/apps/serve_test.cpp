// An engine that stays up: clients, signals, and live traffic.
#include <fcntl.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <memory>

#include "capture.h"
#include "control/command.h"
#include "control/connection.h"
#include "mund/control_socket.h"
#include "program.h"

namespace programs {
namespace {

using control::Connection;
using nlohmann::ordered_json;

class Serving : public testing::Test, protected Directory {
  protected:
    void SetUp() override {
        Write("commands",
              "source add 1 192.168.10.9 --if 7\n"
              "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n"
              "tunnel default --node 0\n"
              "session add f6e7ecdab5b1461aa50b58d6d3f83e8d --node 3\n");
    }
    // How every engine of these tests is started.
    std::string Command(const std::string &arguments, const std::string &log = "/dev/null") const {
        return KES_ENGINE " --report json --control " + socket_ + " --exec " + Path("commands") +
               " --rx-port 7 --log " + log + " " + arguments;
    }
    // A client, once there is an engine; null if none comes up.
    std::unique_ptr<Connection> Connect() const {
        std::unique_ptr<Connection> connection;
        Becomes([&] {
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
        return control::Execute(control::ParseCommands(text, "test").at(0),
                                [&](MundOperation operation, std::span<const uint8_t> request) {
                                    return connection.Call(operation, request);
                                });
    }
    // What an instance got, by the engine's state or report.
    static uint64_t TakenBy(int instance, const ordered_json &state) {
        for (const ordered_json &entry : state["instances"]) {
            if (entry["instance"] == instance) {
                return entry["cwp"];
            }
        }
        return 0;
    }

    const std::string socket_ = Path("control");
};

TEST_F(Serving, ClientsMeetARunningReplay) {
    Process engine(Command("--serve --loop 0 --rate 50000 --replay " TEST_DATA "/ap-session.pcap"));
    const std::unique_ptr<Connection> client = Connect();
    ASSERT_NE(client, nullptr) << engine.Errors();
    EXPECT_TRUE(Becomes([&] { return client->State()["taken"] > 345; }));
    EXPECT_EQ(Run(*client, "tunnel count --port 5246").reply["count"], 2);
    EXPECT_EQ(client->Object("g_lyrHostsvcNum"), (control::Bytes{27, 0, 0, 0}));
    EXPECT_EQ(client->Object("g_kes2lyrHostChnMap", 0).size(), 28 * sizeof(uint32_t));
    EXPECT_EQ(client->State()["tables"].dump(),
              R"([{"table":"IPv4","entries":2,"buckets":23397},)"
              R"({"table":"IPv6","entries":0,"buckets":23397},)"
              R"({"table":"session","entries":1,"buckets":11699}])");
    EXPECT_THROW(client->Object("no_such_object"), control::Refused);

    // What the access point sends goes elsewhere from one moment to the next.
    EXPECT_TRUE(Run(*client, "tunnel add 192.168.10.11 12380 192.168.10.9 5246 --node 5").Ok());
    EXPECT_TRUE(Run(*client, "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 5").Ok());
    EXPECT_TRUE(Becomes([&] { return TakenBy(5, client->State()) > 0; }));
    // Lines come to those who follow.
    EXPECT_TRUE(Run(*client, "trace set --level 2").Ok());
    Connection follower(socket_);
    int lines = 0;
    follower.Follow([&](const MundWireLine &, std::string_view text) {
        EXPECT_FALSE(text.empty());
        return ++lines < 50;
    });
    EXPECT_EQ(lines, 50);

    const Outcome second = Process(Command("--serve")).Stop(0);
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, testing::HasSubstr(socket_));

    const Outcome outcome = engine.Stop(SIGTERM);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const auto report = ordered_json::parse(outcome.out);
    EXPECT_EQ(report["conserved"], true);
    EXPECT_GT(report["received"], 3 * 422);
    EXPECT_FALSE(fs::exists(socket_));
    EXPECT_THROW(client->State(), control::NoEngine);
}

TEST_F(Serving, AHangUpOpensTheLogAnew) {
    const std::string log = Path("log");
    const auto hasLines = [&] { return !ReadText(log).empty(); };
    Process engine(
        Command("--serve --loop 0 --rate 1000 --diag --replay " TEST_DATA "/ap-session.pcap", log));
    ASSERT_TRUE(Becomes(hasLines)) << engine.Errors();
    for (const char *old : {"log.1", "log.2"}) {
        fs::rename(log, Path(old));
        engine.Signal(SIGHUP);
        EXPECT_TRUE(Becomes(hasLines)) << engine.Errors();
        EXPECT_TRUE(Read(old).ends_with('\n'));
    }
    EXPECT_EQ(engine.Stop(SIGTERM).status, 0);
}

TEST_F(Serving, OneInterruptEndsAReplayThatWaitsForItsCapture) {
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(Process(Command("--replay " + Path("pipe"))).Stop(SIGINT).status, -SIGINT);

    const mund::Descriptor writer(open(Path("pipe").c_str(), O_RDWR));
    Process engine(Command("--replay " + Path("pipe")));
    const std::string part = ReadText(TEST_DATA "/ap-session.pcap").substr(0, 30000);
    ASSERT_EQ(write(writer.Number(), part.data(), part.size()), 30000);
    const std::unique_ptr<Connection> client = Connect();
    ASSERT_NE(client, nullptr) << engine.Errors();
    EXPECT_TRUE(Becomes([&] {
        const ordered_json state = client->State();
        return state["received"] == 79 &&
               state["taken"].get<int>() + state["returned"].get<int>() == 79;
    }));
    const Outcome outcome = engine.Stop(SIGINT);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(ordered_json::parse(outcome.out)["received"], 79);
}

// --- live traffic ---

// A network of the test's own: a cable from va to vb.
bool EnterNetwork() {
    return unshare(CLONE_NEWNET) == 0 &&
           std::system(
               "(ip link add va type veth peer name vb && ip link set va up && "
               "ip link set vb up) >/dev/null 2>&1") == 0;
}

void SendFrom(const char *interface, const std::vector<capwap::Bytes> &frames) {
    const mund::Descriptor out(socket(AF_PACKET, SOCK_RAW, 0));
    sockaddr_ll to = {};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    for (const capwap::Bytes &frame : frames) {
        ASSERT_EQ(sendto(out.Number(), frame.data(), frame.size(), 0,
                         reinterpret_cast<sockaddr *>(&to), sizeof to),
                  static_cast<ssize_t>(frame.size()));
    }
}

TEST_F(Serving, LiveTrafficArrivesAtItsInstances) {
    if (!EnterNetwork()) {
        GTEST_SKIP() << "no network namespaces here";
    }
    Process engine(Command("--listen vb"));
    const std::unique_ptr<Connection> client = Connect();
    ASSERT_NE(client, nullptr) << engine.Errors();
    const capwap::Bytes echo = capwap::ControlMessage(13, 1, {});
    std::vector<capwap::Bytes> frames(
        200, BuildFrame(capwap::UdpFrame("192.168.10.11", 5000, "192.168.10.9", 5246, echo)));
    frames.resize(300,
                  BuildFrame(capwap::UdpFrame("192.168.10.10", 12380, "192.168.10.9", 5246, echo)));
    SendFrom("va", frames);
    EXPECT_TRUE(Becomes([&] { return client->State()["taken"] == 300; }));
    const Outcome outcome = engine.Stop(SIGINT);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const auto report = ordered_json::parse(outcome.out);
    EXPECT_EQ(TakenBy(0, report), 200u);
    EXPECT_EQ(TakenBy(3, report), 100u);
    EXPECT_EQ(report["instances"].size(), 2u);
}

}  // namespace
}  // namespace programs
