// lyrctl as a process: against an engine of canned answers, and against a real one.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "mund/module_objects.h"
#include "mund/wire.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

template <typename Message>
Bytes BytesOf(const Message &message) {
    const auto *first = reinterpret_cast<const uint8_t *>(&message);
    return {first, first + sizeof message};
}

Bytes BytesOfText(const std::string &text) {
    return {text.begin(), text.end()};
}

std::string Path(const std::string &name) {
    return testing::TempDir() + "lyrctl_" + std::to_string(getpid()) + "_" + name;
}

std::string ReadText(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// Runs a command of the shell, with times in UTC.
Outcome Shell(const std::string &command) {
    const std::string out = Path("out");
    const std::string err = Path("err");
    const int status =
        std::system(("export TZ=UTC; (" + command + ") >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(out), ReadText(err)};
}

Outcome Lyrctl(const std::string &socket, const std::string &arguments) {
    return Shell(LYRCTL " --control " + socket + " " + arguments);
}

// An engine that answers what it is told to.
class CannedEngine {
  public:
    struct Reply {
        uint32_t status = MUND_WIRE_OK;
        Bytes payload = {};
        uint32_t result = 0;
    };

    CannedEngine() : path_(Path("socket")), listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path_.c_str());
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        acceptor_ = std::thread([this] { Accept(); });
    }
    ~CannedEngine() {
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        for (std::thread &thread : threads_) {
            thread.join();
        }
        close(listener_);
    }

    const std::string &Socket() const {
        return path_;
    }
    // The requests of an operation so far.
    std::vector<Bytes> Requests(uint16_t code) {
        const std::lock_guard lock(mutex_);
        return requests_[code];
    }

    // By name, or by "NAME SLOT".
    void PutObject(const std::string &name, const Bytes &bytes) {
        const std::lock_guard lock(mutex_);
        objects_[name] = bytes;
    }
    // One answer each, and the last one for all that follow.
    void PutReplies(uint16_t code, const std::vector<Reply> &replies) {
        const std::lock_guard lock(mutex_);
        replies_[code].assign(replies.begin(), replies.end());
    }
    void PutReply(uint16_t code, const Reply &reply) {
        PutReplies(code, {reply});
    }
    // What followers get; then the engine goes away, unless it stays up.
    using Lines = std::vector<std::pair<MundWireLine, std::string>>;
    void PutLines(const Lines &lines, bool staysUp) {
        const std::lock_guard lock(mutex_);
        lines_ = lines;
        staysUp_ = staysUp;
    }

  private:
    void Accept() {
        for (int client; (client = accept(listener_, nullptr, nullptr)) >= 0;) {
            threads_.emplace_back([this, client] {
                Serve(client);
                close(client);
            });
        }
    }

    void Serve(int client) {
        MundWireHeader header;
        while (recv(client, &header, sizeof header, MSG_WAITALL) == sizeof header) {
            Bytes payload(header.length);
            if (!payload.empty()) {
                recv(client, payload.data(), payload.size(), MSG_WAITALL);
            }
            const Reply reply = ReplyTo(header.code, payload);
            Send(client, header.code, reply);
            if (header.code == MUND_WIRE_FOLLOW && !SendLines(client)) {
                return;
            }
        }
    }

    bool SendLines(int client) {
        const std::lock_guard lock(mutex_);
        for (const auto &[line, text] : lines_) {
            Bytes bytes = BytesOf(line);
            bytes.insert(bytes.end(), text.begin(), text.end());
            Send(client, MUND_WIRE_FOLLOW, {.payload = bytes});
        }
        return staysUp_;
    }

    Reply ReplyTo(uint16_t code, const Bytes &payload) {
        const std::lock_guard lock(mutex_);
        requests_[code].push_back(payload);
        if (code != MUND_WIRE_OBJECT) {
            std::deque<Reply> &replies = replies_[code];
            const Reply reply = replies.empty() ? Reply{} : replies.front();
            if (replies.size() > 1) {
                replies.pop_front();
            }
            return reply;
        }
        MundWireObjectReq request;
        std::memcpy(&request, payload.data(), sizeof request);
        std::string name = request.name;
        if (request.slot != MUND_WIRE_NO_SLOT) {
            name += " " + std::to_string(request.slot);
        }
        return objects_.contains(name) ? Reply{.payload = objects_[name]}
                                       : Reply{MUND_WIRE_REFUSED, BytesOfText("no object " + name)};
    }

    static void Send(int client, uint16_t code, const Reply &reply) {
        Bytes frame = BytesOf(MundWireHeader{MUND_WIRE_VERSION, code,
                                             static_cast<uint32_t>(reply.payload.size()),
                                             reply.status, reply.result});
        frame.insert(frame.end(), reply.payload.begin(), reply.payload.end());
        send(client, frame.data(), frame.size(), MSG_NOSIGNAL);
    }

    std::string path_;
    int listener_;
    std::mutex mutex_;
    std::map<uint16_t, std::vector<Bytes>> requests_;
    std::thread acceptor_;
    std::vector<std::thread> threads_;  // the acceptor's
    std::map<std::string, Bytes> objects_;
    std::map<uint16_t, std::deque<Reply>> replies_;
    Lines lines_;
    bool staysUp_ = false;
};

Bytes State(uint64_t taken) {
    return BytesOfText(json{{"received", 1000 + taken},
                            {"returned", 900},
                            {"taken", taken},
                            {"undelivered", 100},
                            {"transmitted", 7},
                            {"instances",
                             {{{"instance", 0}, {"cwp", taken}, {"wapi", 0}},
                              {{"instance", 3}, {"cwp", 40}, {"wapi", 2}},
                              {{"instance", 5}, {"cwp", 0}, {"wapi", 0}}}},
                            {"workers", 2},
                            {"capture", "site.pcap"},
                            {"memory",
                             {{{"tag", "LyrKes_DistAddIPv4Tunnel"}, {"blocks", 300}, {"bytes", 9}},
                              {{"tag", "a\"b\\c"}, {"blocks", 1}, {"bytes", 2}}}}}
                           .dump());
}

// A module with a little of everything.
class LyrctlTest : public testing::Test {
  protected:
    void SetUp() override {
        MundSourceRecord sources[LYR_KES_CWP_SRC_NUM] = {};
        for (MundSourceRecord &source : sources) {
            source.srcType = MUND_SOURCE_FREE;
        }
        sources[1] = {MUND_SOURCE_INTERFACE_A, 7, {4, {}, {0x0A0000FE}}};
        sources[6] = {9, 8, {6, {}, {0x20010DB8, 0, 0, 0xFE}}};
        engine.PutObject(MUND_OBJECT_SOURCES, BytesOf(sources));
        engine.PutObject(MUND_OBJECT_TRACE, BytesOf(trace));
        engine.PutObject(MUND_OBJECT_STATION_SERVICE, BytesOf(uint64_t{4} << 32 | 2));
        engine.PutObject(MUND_OBJECT_LAST_INSTANCE, BytesOf(uint32_t{1}));
        using Ids = std::array<uint32_t, 2>;
        using Threads = std::array<uint64_t, 2>;
        engine.PutObject(MUND_OBJECT_CHANNELS " 0", BytesOf(Ids{6, MUND_NO_CHANNEL}));
        engine.PutObject(MUND_OBJECT_CHANNELS " 1", BytesOf(Ids{MUND_NO_CHANNEL, MUND_NO_CHANNEL}));
        engine.PutObject(MUND_OBJECT_THREADS " 0", BytesOf(Threads{0x7F0012345678, 0}));
        engine.PutObject(MUND_OBJECT_THREADS " 1", BytesOf(Threads{}));
        for (const char *name :
             {MUND_OBJECT_IPV4_BUCKETS, MUND_OBJECT_IPV6_BUCKETS, MUND_OBJECT_KA_BUCKETS,
              MUND_OBJECT_WAPI_FRAMES, MUND_OBJECT_WAPI_FAILED}) {
            engine.PutObject(name, BytesOf(uint32_t{600}));
        }
        engine.PutObject(MUND_OBJECT_HANDED_OVER, BytesOf(std::array<uint32_t, 2>{11, 12}));
        engine.PutObject(MUND_OBJECT_HAND_OFF_FAILED, BytesOf(std::array<uint32_t, 2>{13, 14}));
        engine.PutObject(MUND_OBJECT_DROP_WATCH,
                         BytesOf(MundDropWatch{20, 15, 345, 0, 2, 1'700'000'000, 1, {}}));
        MundPingStat ping = {};
        ping.counters[KES_HOOK_RXIN] = {uint64_t{1} << 33, 5, 6};
        engine.PutObject(MUND_OBJECT_PING, BytesOf(ping));
        engine.PutObject(MUND_OBJECT_MSG_TYPE, BytesOf(MundMsgTypeStat{13, 0, 1, 2, 3, 4}));
        for (uint32_t slot = 1; slot <= 4; ++slot) {
            engine.PutObject(MUND_OBJECT_MSG_TYPE " " + std::to_string(slot),
                             BytesOf(std::array<uint32_t, 2>{slot, 10 * slot}));
        }
        LyrKesGetPktStatisticsRsp stats = {};
        stats.rowNum = LYR_KES_PKT_STAT_ROW_NUM;
        stats.counterNum = LYR_KES_PKT_STAT_COUNTER_NUM;
        stats.rows[LYR_KES_PKT_STAT_DTLS_HANDSHAKE] = {70, 60, 3, 7, 4, 2, 1};
        engine.PutReply(MUND_OP_GetPktStatistics, {.payload = BytesOf(stats)});
        engine.PutReply(MUND_WIRE_STATE, {.payload = State(2000)});
    }

    Outcome Do(const std::string &arguments) {
        return Lyrctl(engine.Socket(), arguments);
    }

    static MundTraceConfig EchoRequestsOfOnePeer() {
        MundTraceConfig config = {};
        config.enable = 1;
        config.debugLevel = 2;
        config.srcIpFamily = 6;
        config.srcIp[0] = 0x20010DB8;
        config.srcIp[3] = 1;
        config.srcPort = 5246;
        config.mac[5] = 1;
        config.capwapMsgType = 13;
        return config;
    }

    MundTraceConfig trace = EchoRequestsOfOnePeer();
    CannedEngine engine;
};

TEST_F(LyrctlTest, MistakesAreUsageAndNeedNoEngine) {
    const struct {
        const char *arguments;
        const char *complaint;
    } cases[] = {
        {"", "there is no command"},
        {"tunel list", "unknown command 'tunel'; there are: tunnel, session, wapi, source"},
        {"tunnel", "unfinished command 'tunnel'; there are: tunnel add, tunnel del"},
        {"tunnel add 10.0.0.1", "SRC-PORT is missing; usage: tunnel add SRC-IP"},
        {"tunnel list --port 70000", "--port '70000' is not a number from 0 to 65535"},
        {"source show all", "unexpected word 'all'; usage: source show"},
        {"inspect --slot x g_a", "--slot 'x' is not a number"},
        {"trace follow --grep '('", "--grep '(' is not a regular expression"},
        {"explain --capture " TEST_DATA "/none.pcap", "none.pcap': No such file"},
        {"explain --frame 0 --capture " TEST_DATA "/ap-session.pcap", "counted from 1"},
        {"top", "top needs a terminal"},
        {"recon run 3 /none", "cannot read commands from '/none'"},
    };
    for (const auto &c : cases) {
        const Outcome run = Lyrctl("/none/such.sock", c.arguments);
        EXPECT_EQ(run.status, 2) << c.arguments;
        EXPECT_EQ(run.out, "") << c.arguments;
        EXPECT_NE(run.err.find(c.complaint), std::string::npos) << run.err;
        EXPECT_EQ(std::ranges::count(run.err, '\n'), 1) << run.err;
    }
    for (const char *command : {"stats show", "source show", "trace follow", "top --once",
                                "explain --capture " TEST_DATA "/ap-session.pcap"}) {
        const Outcome run = Lyrctl("/none/such.sock", command);
        EXPECT_EQ(run.status, 3) << command;
        EXPECT_NE(run.err.find("/none/such.sock"), std::string::npos) << run.err;
    }
}

TEST_F(LyrctlTest, EveryCommandHasHelpPageAndCompletion) {
    const std::string page = ReadText(LYRCTL_PAGE);
    std::istringstream lines(Shell(LYRCTL " --list-commands").out);
    const std::string overview = Shell(LYRCTL " --help").out;
    size_t commands = 0;
    for (std::string name, usage; std::getline(std::getline(lines, name, '\t'), usage);) {
        ++commands;
        EXPECT_NE(overview.find("\n  " + name), std::string::npos) << name;
        const std::string help = Shell(LYRCTL " " + name + " --help").out;
        EXPECT_NE(help.find("lyrctl " + name + (usage.empty() ? "\n" : " " + usage + "\n")),
                  std::string::npos)
            << help;
        EXPECT_NE(help.find("e.g. lyrctl " + name), std::string::npos) << help;
        EXPECT_TRUE(std::regex_search(page, std::regex("\\n\\.BI? \"?" + name + "[ \"\\n]")) ||
                    std::regex_search(page, std::regex("\\n\\.BR \"" + name + " \"")))
            << name << " is not in the manual page";
    }
    EXPECT_GT(commands, 30u);

    const struct {
        const char *words;
        const char *choices;
    } cases[] = {{"tunnel l", "list"},
                 {"--json trace ''", "clear follow set show"},
                 {"wapi ''", "show"},
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

TEST_F(LyrctlTest, ObjectsAreLaidOut) {
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
         "messages             345\n"
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
                             R"("reply":{"firstInstance":2,"instances":4}})"
                             "\n"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(c.arguments);
        EXPECT_EQ(run.out, c.out) << c.arguments;
        EXPECT_EQ(run.status, 0) << run.err;
    }
}

TEST_F(LyrctlTest, RefusalsAreToldWithTheirReason) {
    engine.PutReply(MUND_OP_CwpTunnel, {.result = 1});
    engine.PutReply(MUND_OP_KaTunnel, {.status = MUND_WIRE_NO_SERVICE});
    engine.PutObject(MUND_OBJECT_TRACE, Bytes(sizeof trace - 1));
    const struct {
        const char *arguments;
        const char *reason;
        const char *json;
    } cases[] = {
        {"tunnel default --node 99", "failed (1): no memory, or the node is beyond",
         R"("operation":"CwpTunnel","ok":false,"result":1,)"},
        {"session del 00112233445566778899aabbccddeeff", "not open", R"("ok":false,"result":null)"},
        {"inspect g_nix", "no object g_nix", R"("ok":false,"meaning":"no object g_nix"})"},
        {"trace show", "g_lyrKesDebugTrace has 67 bytes, not 68", R"("ok":false)"},
    };
    for (const auto &c : cases) {
        const Outcome run = Do(std::string("--json ") + c.arguments);
        EXPECT_EQ(run.status, 1) << c.arguments;
        EXPECT_NE(run.err.find(c.arguments), std::string::npos) << run.err;
        EXPECT_NE(run.err.find(c.reason), std::string::npos) << run.err;
        EXPECT_NE(run.out.find(c.json), std::string::npos) << run.out;
        EXPECT_EQ(Do(c.arguments).out, "") << c.arguments;
    }
    EXPECT_EQ(Do("stats show > /dev/full").status, 1);
}

TEST_F(LyrctlTest, LinesAreFollowed) {
    constexpr uint64_t kTime = 1'700'000'000'012'345'678;
    const CannedEngine::Lines lines = {
        {{0, 0, kTime}, "one"}, {{3, 2, kTime}, "two \033[2J"}, {{9, 5, kTime}, "ten"}};
    engine.PutLines(lines, false);
    Outcome run = Do("trace follow --grep 't[we]'");
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out,
              "-- 2 lines lost: they came faster than they were read\n"
              "2023-11-14T22:13:20.012+00:00  alarm      two ?[2J\n"
              "-- 5 lines lost: they came faster than they were read\n"
              "2023-11-14T22:13:20.012+00:00  line       ten\n");
    EXPECT_EQ(Do("--json trace follow --grep one").out,
              R"({"time":"2023-11-14T22:13:20.012+00:00","kind":"report","lost":0,"text":"one"})"
              "\n");
    EXPECT_TRUE(engine.Requests(MUND_OP_DebugTraceSet).empty());

    // The level is set for the time of the following, and nothing but the level.
    engine.PutLines(lines, true);
    for (const uint8_t enable : {uint8_t{1}, uint8_t{0}}) {
        trace.enable = enable;
        engine.PutObject(MUND_OBJECT_TRACE, BytesOf(trace));
        const std::string shown = engine.Socket() + (enable == 1 ? ".on" : ".off");
        run = Do("trace follow --level 3 >" + shown + " & pid=$!; until test -s " + shown +
                 "; do sleep 0.05; done; kill -" + (enable == 1 ? "INT" : "HUP") +
                 " $pid; wait $pid; exit $?");
        EXPECT_EQ(run.status, 0) << run.err;
        const std::vector<Bytes> requests = engine.Requests(MUND_OP_DebugTraceSet);
        ASSERT_EQ(requests.size(), enable == 1 ? 2u : 4u);
        LyrKesDebugTraceReq sent[2];
        for (size_t i = 0; i < 2; ++i) {
            std::memcpy(&sent[i], requests[requests.size() - 2 + i].data(), sizeof sent[i]);
            EXPECT_EQ(sent[i].srcAddr.ipVer, 2u);
            EXPECT_EQ(sent[i].srcPort, 5246u);
            EXPECT_EQ(sent[i].capwapMsgType, 13u);
            EXPECT_EQ(sent[i].mac[5], 1);
        }
        EXPECT_EQ(sent[0].debugLevel, 3u);
        EXPECT_EQ(sent[1].debugLevel, 2u);
        EXPECT_EQ(sent[1].msgType, uint32_t{enable == 1 ? LYR_KES_TRACE_SET : LYR_KES_TRACE_CLEAR});
    }
}

TEST_F(LyrctlTest, TopShowsWhatHappensInASecond) {
    Outcome run = Do("top --once");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.substr(run.out.find('\n')),
              R"(

packets           received     returned        taken  undelivered  transmitted
per second               0            0            0            0            0
total                 3000          900         2000          100            7

per second     received     sent  unsent  failed  by source  by table by session
control               0        0       0       0          0         0          0
keepalive             0        0       0       0          0         0          0
DTLS handshake        0        0       0       0          0         0          0

table              entries     buckets        a bucket
IPv4                   300         600           0.500
IPv6                     0         600           0.000
session                  0         600           0.000

drops         20 of 345 packets; ALARM RAISED, 2 of 5 quiet periods

instance       cwp/s      wapi/s         total    share
       0           0           0          2000    0.0 %
       3           0           0            42    0.0 %
)");

    // A second later there is more; one counter has begun anew at its end, one was set to zero.
    LyrKesGetPktStatisticsRsp stats[2] = {};
    for (LyrKesGetPktStatisticsRsp &reply : stats) {
        reply.rowNum = LYR_KES_PKT_STAT_ROW_NUM;
        reply.counterNum = LYR_KES_PKT_STAT_COUNTER_NUM;
    }
    stats[0].rows[0].rxCnt = UINT32_MAX - 99;
    stats[1].rows[0].rxCnt = 400;
    stats[0].rows[1].rxCnt = 5000;
    stats[1].rows[1].rxCnt = 30;
    engine.PutReplies(MUND_WIRE_STATE, {{.payload = State(1000)}, {.payload = State(3000)}});
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
    expect(top["classes"][0]["received"], 500);
    expect(top["classes"][1]["received"], 30);
    expect(top["instances"][0]["cwpPerSecond"], 2000);
    EXPECT_EQ(top["instances"][0]["share"], 1.0);
    EXPECT_EQ(top["drops"]["alarmRaised"], true);
    engine.PutReplies(MUND_WIRE_STATE, {{.payload = State(1000)}, {.payload = State(3000)}});
    run = Do("top --once");
    EXPECT_TRUE(std::regex_search(run.out, std::regex("\n       0  +(1[0-9]{3}|2000)  +0  +3000 "
                                                      " 100.0 %  #{43}\n")))
        << run.out;

    engine.PutReply(MUND_WIRE_STATE, {.payload = BytesOfText("{}")});
    run = Do("top --once");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("the engine's state is not understood"), std::string::npos) << run.err;
}

// What a program writes to a terminal of this size, until it ends; keys are what is typed after a
// second and a half.
struct Screen {
    int status;
    bool restored;
    std::string output;
};

Screen OnTerminal(const std::string &socket, const std::string &keys) {
    winsize size = {12, 60, 0, 0};
    int terminal = -1;
    int program = -1;
    EXPECT_EQ(openpty(&terminal, &program, nullptr, nullptr, &size), 0);
    termios before;
    tcgetattr(program, &before);
    const pid_t child = fork();
    if (child == 0) {
        login_tty(program);
        execl(LYRCTL, LYRCTL, "--control", socket.c_str(), "top", nullptr);
        _exit(127);
    }
    Screen screen = {};
    const auto start = std::chrono::steady_clock::now();
    bool typed = false;
    while (waitpid(child, &screen.status, WNOHANG) == 0) {
        pollfd output = {terminal, POLLIN, 0};
        char bytes[4096];
        if (poll(&output, 1, 20) == 1) {
            screen.output.append(bytes, static_cast<size_t>(read(terminal, bytes, sizeof bytes)));
        }
        const auto passed = std::chrono::steady_clock::now() - start;
        if (!typed && passed > 1500ms) {
            typed = write(terminal, keys.data(), keys.size()) > 0;
        }
        if (passed > 10s) {
            ADD_FAILURE() << "top does not end";
            kill(child, SIGKILL);
        }
    }
    for (pollfd output = {terminal, POLLIN, 0}; poll(&output, 1, 0) == 1;) {
        char bytes[4096];
        screen.output.append(bytes, static_cast<size_t>(read(terminal, bytes, sizeof bytes)));
    }
    termios after;
    tcgetattr(program, &after);
    screen.restored = after.c_lflag == before.c_lflag;
    close(program);
    close(terminal);
    return screen;
}

TEST_F(LyrctlTest, TopGivesTheTerminalBack) {
    for (const char *keys : {"q", "\x03"}) {
        const Screen screen = OnTerminal(engine.Socket(), keys);
        EXPECT_EQ(screen.status, 0) << screen.output;
        EXPECT_TRUE(screen.restored);
        EXPECT_TRUE(screen.output.starts_with("\033[?1049h")) << screen.output;
        EXPECT_TRUE(screen.output.ends_with("\033[?25h\033[?1049l")) << screen.output;
        // What has not changed is sent once, and what does not fit is not sent.
        const size_t heading = screen.output.find("packets           received");
        ASSERT_NE(heading, std::string::npos) << screen.output;
        EXPECT_EQ(screen.output.find("packets           received", heading + 1), std::string::npos);
        EXPECT_EQ(screen.output.find("transmitted"), std::string::npos) << screen.output;
        EXPECT_EQ(screen.output.find("\033[13;1H"), std::string::npos) << screen.output;
    }
}

TEST_F(LyrctlTest, MetricsAreInTheExpositionFormat) {
    const Outcome run = Do("metrics");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::regex declaration("# TYPE ([a-z_]+) (counter|gauge)");
    const std::regex sample(R"re(([a-z_]+)(\{([a-z_]+="([^"\\]|\\.)*",?)+\})? [0-9]+)re");
    std::istringstream lines(run.out);
    std::string family;
    std::set<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
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
         R"(lyr_host_handoffs_total{type="wapi",result="failed"} 14)",
         R"(lyr_host_drop_alarm_raised 1)", R"(lyr_host_table_entries{table="ipv4"} 300)",
         R"(lyr_host_sources 2)", R"(lyr_host_service_instances 2)",
         R"(lyr_host_ping_packets_total{point="rx_in"} 8589934592)",
         R"(lyr_host_message_type_handoffs_total{message_type="Echo Response",instance="1",result="failed"} 40)",
         R"(lyr_host_memory_blocks{tag="a\"b\\c"} 1)",
         R"(lyr_engine_packets_total{fate="undelivered"} 100)",
         R"(lyr_engine_instance_packets_total{instance="3",type="wapi"} 2)"}) {
        EXPECT_NE(run.out.find(std::string("\n") + line + "\n"), std::string::npos) << line;
    }
}

TEST_F(LyrctlTest, FramesAreExplained) {
    const std::string capture = "explain --capture " TEST_DATA "/ap-session.pcap";
    engine.PutReply(
        MUND_WIRE_EXPLAIN,
        {.payload = BytesOfText(
             R"({"steps":[{"step":"class","text":"control"},{"step":"instance","text":"3"}],)"
             R"("result":"handed over","fate":"taken","instance":3})")});
    Outcome run = Do(capture + " --frame 2 --rx-port 7 --vrf 8 --cause 9");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "frame 2\n  1. class     control\n  2. instance  3\n  => handed over\n");
    MundWireExplainReq arrival;
    const Bytes request = engine.Requests(MUND_WIRE_EXPLAIN).at(0);
    ASSERT_GT(request.size(), sizeof arrival);
    std::memcpy(&arrival, request.data(), sizeof arrival);
    EXPECT_EQ(arrival.rxPort, 7u);
    EXPECT_EQ(arrival.vrf, 8u);
    EXPECT_EQ(arrival.causeAction, 9u);

    run = Do("--json " + capture);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(std::ranges::count(run.out, '\n'), 422);
    EXPECT_EQ(json::parse(run.out.substr(0, run.out.find('\n')))["frame"], 1);
    run = Do(capture + " --frame 423");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("has 422 frames"), std::string::npos) << run.err;
}

TEST(LyrctlAndEngine, UnderstandEachOther) {
    const std::string socket = Path("real");
    const std::string commands = Path("commands");
    std::ofstream(commands) << "source add 1 192.168.10.9 --if 7\n"
                               "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n";
    const pid_t engine = fork();
    if (engine == 0) {
        const std::string log = Path("log");
        if (std::freopen("/dev/null", "w", stdout) == nullptr ||
            std::freopen("/dev/null", "w", stderr) == nullptr) {
            _exit(126);
        }
        execl(KES_ENGINE, KES_ENGINE, "--control", socket.c_str(), "--serve", "--exec",
              commands.c_str(), "--rx-port", "7", "--replay", TEST_DATA "/ap-session.pcap", "--log",
              log.c_str(), nullptr);
        _exit(127);
    }
    Outcome run = {};
    for (int i = 0; i < 200 && !run.out.starts_with("class"); ++i) {
        std::this_thread::sleep_for(50ms);
        run = Lyrctl(socket, "stats show");
    }
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
        run = Lyrctl(socket, c.arguments);
        EXPECT_EQ(run.status, 0) << c.arguments << ": " << run.err;
        EXPECT_NE(run.out.find(c.part), std::string::npos) << c.arguments << ":\n" << run.out;
    }
    kill(engine, SIGTERM);
    int status = -1;
    waitpid(engine, &status, 0);
    EXPECT_EQ(status, 0);
}

}  // namespace
