// An engine of canned answers for lyrctl, and runs of lyrctl against it.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "control/message_bytes.h"
#include "mund/control_socket.h"
#include "mund/module_objects.h"
#include "program.h"

namespace programs {

using control::Bytes;
using control::BytesOf;
using control::MessageOf;
using nlohmann::json;

inline Bytes BytesOfText(const std::string &text) {
    return {text.begin(), text.end()};
}

// Answers what it is told to.
class CannedEngine {
  public:
    struct Reply {
        uint32_t status = MUND_WIRE_OK;
        Bytes payload = {};
        uint32_t result = 0;
    };
    using Lines = std::vector<std::pair<MundWireLine, std::string>>;

    explicit CannedEngine(const std::string &path) : listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address;
        EXPECT_EQ(mund::SetAddress(address, path), "");
        EXPECT_EQ(bind(listener_.Number(), reinterpret_cast<sockaddr *>(&address), sizeof address),
                  0);
        EXPECT_EQ(listen(listener_.Number(), 8), 0);
        acceptor_ = std::thread([this] { Accept(); });
    }
    ~CannedEngine() {
        shutdown(listener_.Number(), SHUT_RDWR);
        acceptor_.join();
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
    void PutReplies(uint16_t code, const std::deque<Reply> &replies) {
        const std::lock_guard lock(mutex_);
        replies_[code] = replies;
    }
    // What followers get; then the engine goes away, unless it stays up.
    void PutLines(const Lines &lines, bool staysUp) {
        const std::lock_guard lock(mutex_);
        lines_ = lines;
        staysUp_ = staysUp;
    }

  private:
    void Accept() {
        std::vector<std::jthread> clients;
        for (int client; (client = accept(listener_.Number(), nullptr, nullptr)) >= 0;) {
            clients.emplace_back([this, client] { Serve(mund::Descriptor(client).Number()); });
        }
    }

    void Serve(int client) {
        MundWireHeader header;
        Bytes payload;
        while (mund::ReceiveHeader(client, header) &&
               mund::ReceivePayload(client, header, payload)) {
            const std::lock_guard lock(mutex_);
            requests_[header.code].push_back(payload);
            Send(client, header.code,
                 header.code == MUND_WIRE_OBJECT ? Object(MessageOf<MundWireObjectReq>(payload))
                                                 : NextReply(replies_[header.code]));
            if (header.code == MUND_WIRE_FOLLOW) {
                for (const auto &[line, text] : lines_) {
                    Bytes bytes = BytesOf(line);
                    bytes.insert(bytes.end(), text.begin(), text.end());
                    Send(client, MUND_WIRE_FOLLOW, {.payload = bytes});
                }
                if (!staysUp_) {
                    return;
                }
            }
        }
    }

    Reply Object(const MundWireObjectReq &request) const {
        std::string name = request.name;
        if (request.slot != MUND_WIRE_NO_SLOT) {
            name += " " + std::to_string(request.slot);
        }
        const auto found = objects_.find(name);
        return found != objects_.end() ? Reply{.payload = found->second}
                                       : Reply{MUND_WIRE_REFUSED, BytesOfText("no object " + name)};
    }

    static Reply NextReply(std::deque<Reply> &replies) {
        const Reply reply = replies.empty() ? Reply{} : replies.front();
        if (replies.size() > 1) {
            replies.pop_front();
        }
        return reply;
    }

    static void Send(int client, uint16_t code, const Reply &reply) {
        Bytes frame = BytesOf(MundWireHeader{MUND_WIRE_VERSION, code,
                                             static_cast<uint32_t>(reply.payload.size()),
                                             reply.status, reply.result});
        frame.insert(frame.end(), reply.payload.begin(), reply.payload.end());
        mund::SendAll(client, frame);
    }

    mund::Descriptor listener_;
    std::mutex mutex_;
    std::map<uint16_t, std::vector<Bytes>> requests_;
    std::map<std::string, Bytes> objects_;
    std::map<uint16_t, std::deque<Reply>> replies_;
    Lines lines_;
    bool staysUp_ = false;
    std::thread acceptor_;
};

inline CannedEngine::Reply State(uint64_t taken) {
    const json state = {{"received", 1000 + taken},
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
                        {"tables",
                         {{{"table", "IPv4"}, {"entries", 300}, {"buckets", 600}},
                          {{"table", "IPv6"}, {"entries", 0}, {"buckets", 600}},
                          {{"table", "session"}, {"entries", 0}, {"buckets", 600}}}},
                        {"memory", {{{"function", "a\"b\\c"}, {"blocks", 1}, {"bytes", 2}}}}};
    return {.payload = BytesOfText(state.dump())};
}

// Counters of all classes, zero.
inline LyrKesGetPktStatisticsRsp NoPackets() {
    return {.rowNum = LYR_KES_PKT_STAT_ROW_NUM,
            .counterNum = LYR_KES_PKT_STAT_COUNTER_NUM,
            .rows = {},
            .reserved = {}};
}

// A trace of one peer's echo requests.
inline MundTraceConfig EchoRequests() {
    MundTraceConfig config = {};
    config.enable = 1;
    config.debugLevel = 2;
    config.srcIpFamily = 6;
    std::ranges::copy(std::array{0x20010DB8u, 0u, 0u, 1u}, config.srcIp);
    config.srcPort = 5246;
    config.mac[5] = 1;
    config.capwapMsgType = 13;
    return config;
}

// lyrctl, and an engine whose module has a little of everything.
class Lyrctl : public testing::Test, protected Directory {
  protected:
    void SetUp() override {
        using Ids = std::array<uint32_t, 2>;
        using Threads = std::array<uint64_t, 2>;
        MundSourceRecord sources[LYR_KES_CWP_SRC_NUM] = {};
        for (MundSourceRecord &source : sources) {
            source.srcType = MUND_SOURCE_FREE;
        }
        sources[1] = {MUND_SOURCE_INTERFACE_A, 7, {4, {}, {0x0A0000FE}}};
        sources[6] = {9, 8, {6, {}, {0x20010DB8, 0, 0, 0xFE}}};
        MundPingStat ping = {};
        ping.counters[KES_HOOK_RXIN] = {uint64_t{1} << 33, 5, 6};
        const std::pair<const char *, Bytes> objects[] = {
            {MUND_OBJECT_SOURCES, BytesOf(sources)},
            {MUND_OBJECT_TRACE, BytesOf(trace)},
            {MUND_OBJECT_STATION_SERVICE, BytesOf(uint64_t{4} << 32 | 2)},
            {MUND_OBJECT_LAST_INSTANCE, BytesOf(uint32_t{1})},
            {MUND_OBJECT_CHANNELS " 0", BytesOf(Ids{6, MUND_NO_CHANNEL})},
            {MUND_OBJECT_CHANNELS " 1", BytesOf(Ids{MUND_NO_CHANNEL, MUND_NO_CHANNEL})},
            {MUND_OBJECT_THREADS " 0", BytesOf(Threads{0x7F0012345678, 0})},
            {MUND_OBJECT_THREADS " 1", BytesOf(Threads{})},
            {MUND_OBJECT_WAPI_FRAMES, BytesOf(uint32_t{600})},
            {MUND_OBJECT_WAPI_FAILED, BytesOf(uint32_t{600})},
            {MUND_OBJECT_HANDED_OVER, BytesOf(Ids{11, 12})},
            {MUND_OBJECT_HAND_OFF_FAILED, BytesOf(Ids{13, 14})},
            {MUND_OBJECT_DROP_WATCH,
             BytesOf(MundDropWatch{20, 15, 345, 0, 2, 1'700'000'000, 1, {}})},
            {MUND_OBJECT_PING, BytesOf(ping)},
            {MUND_OBJECT_MSG_TYPE, BytesOf(MundMsgTypeStat{13, 0, 1, 2, 3, 4})},
            {MUND_OBJECT_MSG_TYPE " 1", BytesOf(Ids{1, 10})},
            {MUND_OBJECT_MSG_TYPE " 2", BytesOf(Ids{2, 20})},
            {MUND_OBJECT_MSG_TYPE " 3", BytesOf(Ids{3, 30})},
            {MUND_OBJECT_MSG_TYPE " 4", BytesOf(Ids{4, 40})},
        };
        for (const auto &[name, bytes] : objects) {
            engine.PutObject(name, bytes);
        }
        LyrKesGetPktStatisticsRsp stats = NoPackets();
        stats.rows[LYR_KES_PKT_STAT_DTLS_HANDSHAKE] = {70, 60, 3, 7, 4, 2, 1};
        engine.PutReplies(MUND_OP_GetPktStatistics, {{.payload = BytesOf(stats)}});
        engine.PutReplies(MUND_WIRE_STATE, {State(2000)});
    }

    Outcome Do(const std::string &arguments, const std::string &socket = "socket") const {
        return Shell("TZ=UTC " LYRCTL " --control " + socket + " " + arguments);
    }

    MundTraceConfig trace = EchoRequests();
    CannedEngine engine{Path("socket")};
};

}  // namespace programs
