// The service by the control socket: what clients get, what broken ones cannot do to
// others.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "control/connection.h"
#include "mund/call.h"
#include "mund/server.h"
#include "service_fixture.h"

namespace {

using namespace std::chrono_literals;

void CallAndCheck(control::Connection &connection, uint32_t operation, uint32_t seed) {
    const Bytes request = RequestOf(operation, seed);
    const control::Answer answer = connection.Call(static_cast<MundOperation>(operation), request);
    EXPECT_EQ(answer.failure, "");
    ExpectAnswer(operation, request, answer.result, answer.reply);
}

Bytes Frame(uint32_t code, const Bytes &payload = {}) {
    Bytes frame;
    mund::AppendFrame(frame, static_cast<uint16_t>(code), payload);
    return frame;
}

struct Reply {
    MundWireHeader header;
    Bytes payload;
};

// A client that may do as it likes.
class RawClient {
  public:
    RawClient() : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    explicit RawClient(const std::string &path) : RawClient() {
        EXPECT_EQ(Connect(path), 0);
    }
    int Connect(const std::string &path) const {
        sockaddr_un address;
        EXPECT_EQ(mund::SetAddress(address, path), "");
        return connect(socket_.Number(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
    bool Send(const Bytes &bytes) const {
        return mund::SendAll(socket_.Number(), bytes);
    }
    void CloseSending() const {
        shutdown(socket_.Number(), SHUT_WR);
    }
    // Nothing when the server has closed.
    std::optional<Reply> Receive() const {
        Reply reply;
        if (!mund::ReceiveHeader(socket_.Number(), reply.header)) {
            return std::nullopt;
        }
        EXPECT_TRUE(mund::ReceivePayload(socket_.Number(), reply.header, reply.payload));
        return reply;
    }
    // The status that a frame is answered with.
    uint32_t StatusOf(const Bytes &frame) const {
        EXPECT_TRUE(Send(frame));
        return Receive().value().header.status;
    }
    int Socket() const {
        return socket_.Number();
    }

  private:
    mund::Descriptor socket_;
};

template <typename Function>
std::string ErrorOf(Function function) {
    try {
        function();
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "";
}

mund::WireHandler Says(const std::string &text) {
    return [text](auto) { return mund::WireReply{MUND_WIRE_OK, {text.begin(), text.end()}}; };
}

mund::WireHandler Passes(Gate &gate) {
    return [&gate](auto) {
        gate.Pass();
        return mund::WireReply{};
    };
}

class ControlSocket : public Service {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "control.XXXXXX";
        directory_ = mkdtemp(name.data());
        path_ = directory_ / "socket";
        Service::SetUp();
    }
    void TearDown() override {
        server_.reset();
        Service::TearDown();
        std::filesystem::remove_all(directory_);
    }
    void Serve(std::map<uint16_t, mund::WireHandler> handlers = {},
               const mund::ControlLimits &limits = {}) {
        server_ = std::make_unique<mund::ControlServer>(path_, std::move(handlers), limits);
    }
    std::string ServingFails() {
        return ErrorOf([&] { Serve(); });
    }
    std::string ConnectingFails() const {
        return ErrorOf([&] { control::Connection connection(path_); });
    }
    void ExpectServing() const {
        EXPECT_EQ(control::Connection(path_).Call(MUND_OP_VerifyRcdReset, {}).failure, "");
    }
    // As an engine does that is killed.
    void LeaveSocketBehind() const {
        sockaddr_un address;
        ASSERT_EQ(mund::SetAddress(address, path_), "");
        const RawClient dead;
        ASSERT_EQ(bind(dead.Socket(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }

    std::filesystem::path directory_;
    std::string path_;
    std::unique_ptr<mund::ControlServer> server_;
};

TEST_F(ControlSocket, PassesOnWhatServiceAndEngineSay) {
    std::string tooLong(MUND_WIRE_MAX_PAYLOAD + 1, 'x');
    Serve({{MUND_WIRE_STATE, Says(R"({"packets": 3})")},
           {MUND_WIRE_EXPLAIN,
            [](std::span<const uint8_t> request) -> mund::WireReply {
                if (request.size() == 16) {
                    throw std::invalid_argument("a frame of no bytes");
                }
                return Says("{\"port\": " + std::to_string(request[0]) + "}")({});
            }},
           {0x200, Says(tooLong)}});
    control::Connection connection(path_);
    EXPECT_EQ(connection.State().at("packets"), 3);
    const MundWireExplainReq arrival = {.rxPort = 5, .vrf = 0, .causeAction = 0, .reserved = 0};
    EXPECT_EQ(connection.Explain(arrival, Bytes(60)).at("port"), 5);
    EXPECT_EQ(ErrorOf([&] { connection.Explain(arrival, {}); }), "a frame of no bytes");
    EXPECT_EQ(ErrorOf([&] { connection.Object("g_any"); }), "no such operation");
    EXPECT_NE(ErrorOf([&] { connection.Object(std::string(60, 'n')); }).find("60 bytes"),
              std::string::npos);
    EXPECT_EQ(RawClient(path_).StatusOf(Frame(0x200)), MUND_WIRE_REPLY_TOO_LONG);

    EXPECT_EQ(connection.Call(MUND_OP_KaTunnel, Bytes(23)).failure,
              MundStatusText(MUND_STATUS_BAD_LENGTH));
    EXPECT_NE(connection.Call(MUND_OP_KaTunnel, Bytes(MUND_WIRE_MAX_PAYLOAD + 1))
                  .failure.find("has 8388609 bytes"),
              std::string::npos);
    ASSERT_EQ(RavelRpcServerUnReg(MUND_SERVICE_NAME), 0u);
    EXPECT_EQ(connection.Call(MUND_OP_KaTunnel, Bytes(24)).failure,
              MundStatusText(MUND_STATUS_NO_SERVICE));
    EXPECT_EQ(calls, 0u);
}

TEST_F(ControlSocket, FiftyClientsGetTheirOwnAnswers) {
    Serve();
    std::latch start(50);
    std::vector<std::thread> clients;
    for (uint32_t client = 0; client < 50; ++client) {
        clients.emplace_back([&, client] {
            control::Connection connection(path_);
            start.arrive_and_wait();
            for (uint32_t i = 0; i < 200; ++i) {
                CallAndCheck(connection, (client + i) % MUND_OPERATION_COUNT, client << 16 | i);
            }
        });
    }
    for (std::thread &client : clients) {
        client.join();
    }
    EXPECT_EQ(calls, 50u * 200u);
}

TEST_F(ControlSocket, WhoNeverReadsHoldsUpNobodyAndLosesNothing) {
    constexpr uint32_t kRequests = 20'000;
    Serve();
    const RawClient hanging(path_);
    std::atomic<uint32_t> sent{0};
    std::thread sender([&] {
        for (uint32_t i = 0; i < kRequests; ++i, ++sent) {
            ASSERT_TRUE(
                hanging.Send(Frame(MUND_OP_CwpMsgTypeStat, RequestOf(MUND_OP_CwpMsgTypeStat, i))));
        }
    });
    control::Connection other(path_);
    for (uint32_t i = 0; i < 2000; ++i) {
        CallAndCheck(other, i % MUND_OPERATION_COUNT, i);
    }
    EXPECT_LT(sent, kRequests) << "its requests are not read without end";
    for (uint32_t i = 0; i < kRequests; ++i) {
        const std::optional<Reply> reply = hanging.Receive();
        ASSERT_TRUE(reply) << i;
        ExpectAnswer(MUND_OP_CwpMsgTypeStat, RequestOf(MUND_OP_CwpMsgTypeStat, i),
                     reply->header.result, reply->payload);
    }
    sender.join();
}

// Sees lines "0", "1", ... and what was lost between them.
struct LineCheck {
    std::optional<uint64_t> next;
    uint64_t lost = 0;

    void See(const MundWireLine &header, std::string_view text) {
        const uint64_t index = std::stoull(std::string(text));
        EXPECT_EQ(index, next ? *next + header.lost : index);
        EXPECT_EQ(header.kind, 3u);
        lost += header.lost;
        next = index + 1;
    }
};

TEST_F(ControlSocket, FollowersGetEveryLineOrAreToldOfTheLoss) {
    constexpr uint64_t kLines = 50'000;
    Serve();
    server_->Publish(3, "before anyone follows");
    const RawClient slow(path_);
    const RawClient neverReads(path_);
    for (const RawClient *client : {&slow, &neverReads}) {
        ASSERT_TRUE(client->Send(Frame(MUND_WIRE_FOLLOW)));
        EXPECT_EQ(client->Receive()->header.length, 0u);
    }
    const mund::Descriptor end(eventfd(0, EFD_CLOEXEC));
    std::atomic<bool> following{false};
    std::thread fast([&] {
        LineCheck check;
        control::Connection(path_).Follow([&](const MundWireLine &header, std::string_view text) {
            check.See(header, text);
            following = true;
            return check.next < kLines;
        });
        control::Connection(path_).Follow([](auto, auto) { return true; }, end.Number());
    });
    for (uint64_t i = 0; i < kLines; ++i) {
        server_->Publish(3, std::to_string(i));
        std::this_thread::sleep_for(following ? 0ms : 1ms);
    }
    LineCheck check{.next = 0};
    while (check.next < kLines) {
        const std::optional<Reply> line = slow.Receive();
        ASSERT_TRUE(line && line->header.code == MUND_WIRE_FOLLOW);
        MundWireLine header;
        std::memcpy(&header, line->payload.data(), sizeof header);
        check.See(header, std::string(line->payload.begin() + sizeof header, line->payload.end()));
    }
    EXPECT_GT(check.lost, 0u);
    eventfd_write(end.Number(), 1);
    fast.join();

    server_->Publish(3, std::string(2 * MUND_WIRE_MAX_LINE, 'l'));
    EXPECT_EQ(slow.Receive()->payload.size(), sizeof(MundWireLine) + MUND_WIRE_MAX_LINE);
    slow.Send(Frame(MUND_WIRE_STATE));
    EXPECT_FALSE(slow.Receive()) << "a follower has nothing more to say";
}

TEST_F(ControlSocket, TakesThePlaceOfTheDeadOnly) {
    for (const mode_t mask : {0777u, 0u}) {
        server_.reset();
        const mode_t before = umask(mask);
        Serve();
        umask(before);
        struct stat file {};
        ASSERT_EQ(lstat(path_.c_str(), &file), 0);
        EXPECT_EQ(file.st_mode, S_IFSOCK | 0600u);
    }
    EXPECT_EQ(ErrorOf([&] { mund::ControlServer(path_, {}); }),
              "control socket " + path_ + ": another engine is serving it");
    ExpectServing();
    server_.reset();
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_EQ(ConnectingFails(), "no engine at " + path_ + ": No such file or directory");

    LeaveSocketBehind();
    EXPECT_EQ(ConnectingFails(), "no engine at " + path_ + ": the one that served it has ended");
    Serve();
    ExpectServing();

    // What replaces the socket is not ours to remove.
    std::filesystem::remove(path_);
    std::ofstream(path_) << "mine";
    server_.reset();
    EXPECT_NE(ServingFails().find("it is no socket"), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(path_), 4u);
    EXPECT_EQ(ConnectingFails(), "no engine at " + path_ + ": it is no socket");
    std::filesystem::remove(path_);
    std::filesystem::create_symlink("nowhere", path_);
    EXPECT_NE(ServingFails().find("it is no socket"), std::string::npos);

    path_ = directory_ / "absent" / "socket";
    EXPECT_NE(ServingFails().find(path_), std::string::npos);
    path_ = directory_ / std::string(107 - directory_.string().size(), 'p');
    for (const std::string &error : {ServingFails(), ConnectingFails()}) {
        EXPECT_NE(error.find(path_ + ": the path has 108 bytes"), std::string::npos) << error;
        EXPECT_NE(error.find("at most 107"), std::string::npos);
    }
    path_.pop_back();
    Serve();
}

TEST_F(ControlSocket, OneOfManyStartingEnginesServes) {
    const std::map<uint16_t, mund::WireHandler> none;
    for (int round = 0; round < 50; ++round) {
        LeaveSocketBehind();
        std::atomic<int> serving{0};
        std::latch start(16);
        std::latch done(16);
        std::vector<std::thread> engines;
        for (int i = 0; i < 16; ++i) {
            engines.emplace_back([&] {
                start.arrive_and_wait();
                std::unique_ptr<mund::ControlServer> server;
                ErrorOf([&] { server = std::make_unique<mund::ControlServer>(path_, none); });
                serving += server != nullptr ? 1 : 0;
                done.arrive_and_wait();
            });
        }
        for (std::thread &engine : engines) {
            engine.join();
        }
        EXPECT_EQ(serving, 1);
    }
}

// What another user's program meets. The kernel's call changes the user of the calling thread only.
std::string ConnectAsNobody(const std::string &path) {
    std::string met;
    std::thread([&] {
        const RawClient client;
        char byte;
        if (syscall(SYS_setresuid, 65534, 65534, 65534) != 0) {
            met = "no other user";
        } else if (client.Connect(path) != 0) {
            met = strerror(errno);
        } else {
            met = recv(client.Socket(), &byte, 1, 0) == 0 ? "closed" : "served";
        }
    }).join();
    prctl(PR_SET_DUMPABLE, 1);  // cleared for the process with a thread's user; leak checks need it
    return met;
}

TEST_F(ControlSocket, OtherUsersAreNotServed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be somebody else";
    }
    std::filesystem::permissions(directory_, std::filesystem::perms(0755));
    Serve();
    EXPECT_EQ(ConnectAsNobody(path_), "Permission denied") << "the file's mode";
    std::filesystem::permissions(path_, std::filesystem::perms(0666));
    EXPECT_EQ(ConnectAsNobody(path_), "closed") << "the peer's user";
    ExpectServing();
}

// What another process of the same user meets.
bool InAnotherProcess(const std::function<void()> &meet) {
    const pid_t child = fork();
    if (child == 0) {
        meet();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status == 0;
}

TEST_F(ControlSocket, LimitsClientsAndStalledFrames) {
    Serve({}, {.clients = 3, .stall = 50ms, .lastIdle = 1s, .lines = 1});
    const RawClient stalled(path_);
    ASSERT_TRUE(stalled.Send(Bytes(5, 1)));
    control::Connection idle(path_);
    EXPECT_FALSE(stalled.Receive()) << "half a frame is not waited for";
    std::optional<RawClient> neverReads;
    do {
        neverReads.emplace(path_);
        neverReads->Send(Frame(MUND_OP_VerifyRcdReset));  // fails if it is turned away at once
    } while (neverReads->Receive().value().header.status != MUND_WIRE_OK);
    EXPECT_EQ(control::Connection(path_).Call(MUND_OP_VerifyRcdReset, {}).failure,
              "no more than 3 clients at once")
        << "the last place is for a process that has none";
    EXPECT_TRUE(InAnotherProcess([&] {
        const RawClient last(path_);
        EXPECT_EQ(last.StatusOf(Frame(MUND_OP_VerifyRcdReset)), MUND_WIRE_OK);
        EXPECT_EQ(last.StatusOf(Frame(MUND_WIRE_FOLLOW)), MUND_WIRE_REFUSED);
        EXPECT_EQ(RawClient(path_).Receive().value().header.status, MUND_WIRE_REFUSED);
        EXPECT_FALSE(last.Receive()) << "it does not keep the place";
    }));
    EXPECT_EQ(idle.Call(MUND_OP_VerifyRcdReset, {}).failure, "") << "idling is no stalling";
    // Ends because a reply is not offered for ever.
    while (neverReads->Send(Frame(MUND_OP_CwpTraceRecord, Bytes(8)))) {
    }
}

TEST_F(ControlSocket, IdleAndSlowClientsGoAndFollowersStay) {
    Serve({}, {.stall = 50ms, .idle = 50ms});
    std::optional<RawClient> follower;
    do {
        follower.emplace(path_);
        follower->Send(Frame(MUND_WIRE_FOLLOW));
    } while (!follower->Receive());
    EXPECT_FALSE(RawClient(path_).Receive());
    const RawClient slow(path_);
    const MundWireHeader longest = {MUND_WIRE_VERSION, MUND_WIRE_STATE, MUND_WIRE_MAX_PAYLOAD, 0,
                                    0};
    mund::SendAll(slow.Socket(), {reinterpret_cast<const uint8_t *>(&longest), sizeof longest});
    int crumbs = 0;
    for (; crumbs < 3000 && slow.Send(Bytes(1)); ++crumbs) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_LT(crumbs, 3000);
    server_->Publish(3, "line");
    EXPECT_TRUE(follower->Receive());
}

TEST_F(ControlSocket, BoundsTheBytesOfRequestsInHand) {
    Gate gate;
    Serve({{MUND_WIRE_EXPLAIN, Passes(gate)}}, {.requestBytes = 100'000});
    const RawClient first(path_);
    ASSERT_TRUE(first.Send(Frame(MUND_WIRE_EXPLAIN, Bytes(98'000))));
    gate.entered.wait();
    control::Connection second(path_);
    const Bytes small = RequestOf(MUND_OP_BatchReconciliation, 49);
    const auto batch = [&] {
        Bytes request(8 + 80 * 0x200);
        request[1] = 2;
        return second.Call(MUND_OP_BatchReconciliation, request).failure;
    };
    EXPECT_EQ(batch(), "the engine holds as many bytes of requests as it may; try again later");
    EXPECT_EQ(calls, 0u);
    EXPECT_EQ(second.Call(MUND_OP_BatchReconciliation, small).failure, "") << "it is small";
    gate.mayLeave.count_down();
    EXPECT_TRUE(first.Receive());
    EXPECT_EQ(batch(), "");
}

TEST_F(ControlSocket, WaitsForDescriptorsWithoutSpinning) {
    Serve();
    const RawClient client;
    const int firstFree = dup(client.Socket());
    close(firstFree);
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {.rlim_cur = static_cast<rlim_t>(firstFree), .rlim_max = limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(client.Connect(path_), 0);
    EXPECT_TRUE(client.Send(Frame(MUND_OP_VerifyRcdReset)));
    const clock_t before = clock();
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 10) << "of processor time";
    EXPECT_EQ(calls, 0u);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(client.Receive()->header.status, MUND_WIRE_OK);
}

TEST_F(ControlSocket, ClosingWaitsForRequestsAndEndsConnections) {
    Gate gate;
    Serve({{MUND_WIRE_STATE, Passes(gate)}});
    const RawClient waiting(path_);
    ASSERT_TRUE(waiting.Send(Frame(MUND_WIRE_STATE)));
    gate.entered.wait();
    control::Connection idle(path_);
    ExpectWaitsFor([&] { gate.mayLeave.count_down(); }, [&] { server_.reset(); });
    EXPECT_FALSE(waiting.Receive());
    EXPECT_EQ(ErrorOf([&] { idle.Call(MUND_OP_VerifyRcdReset, {}); }),
              "the engine at " + path_ + " has closed the connection");
}

}  // namespace
