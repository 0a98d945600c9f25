// The client library against a running engine, and the example that the documents show.
#include "lyr/client.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include "mund/control_socket.h"
#include "program.h"

namespace programs {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Client = std::unique_ptr<LyrClient, decltype(&LyrClientFree)>;

class ClientLibrary : public testing::Test, protected Directory {
  protected:
    void SetUp() override {
        Write("commands",
              "source add 1 192.168.10.9 --if 7\n"
              "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n");
        EXPECT_TRUE(Becomes([&] { return LyrClientConnect(client_.get(), socket_.c_str()) == 0; }))
            << LyrClientError(client_.get()) << engine_.Errors();
    }

    const std::string socket_ = Path("control");
    Process engine_{KES_ENGINE " --serve --rx-port 7 --log /dev/null --replay " TEST_DATA
                               "/ap-session.pcap --exec " +
                    Path("commands") + " --control " + socket_};
    Client client_{LyrClientNew(), LyrClientFree};
};

TEST_F(ClientLibrary, EveryOperationRuns) {
    LyrClient *client = client_.get();
    LyrKesCwpTunnelReq tunnel = {};
    LyrClientAddressFromText("2001:db8::1", &tunnel.srcAddr);
    LyrClientAddressFromText("2001:db8::fe", &tunnel.dstAddr);
    tunnel.srcPort = tunnel.dstPort = 5246;
    tunnel.nodeId = 5;
    const LyrKesKaTunnelReq session = {LYR_KES_OPERATION_ADD, {1, 2, 3, 4}, 5};
    const LyrKesCwpSrcReq source = {LYR_KES_OPERATION_ADD, {1, tunnel.dstAddr, 7}};
    LyrKesCwpSrcReconReq table = {};
    table.entries[2] = source.source;
    LyrKesDebugTraceReq trace = {};
    trace.debugLevel = 3;
    LyrKesReconRecord records[2] = {};
    records[0].nodeId = records[1].nodeId = 9;
    records[1].reconType = LYR_KES_RECON_FINISH;
    const LyrKesWapiTunnelReq stations = {1, 2};
    const LyrKesLbDfxReq count = {1, 0, 5246, LYR_KES_LB_COUNT, {}};
    const LyrKesVerifyRcdGetReq list = {};
    LyrKesCwpPingStatReq ping = {LYR_KES_PING_SET, tunnel.srcAddr};
    const LyrKesCwpTraceRecordReq probes = {0, LYR_KES_PROBE_GET};
    const LyrKesCwpMsgTypeStatReq select = {LYR_KES_MSG_TYPE_SELECT, 13};
    LyrKesWapiTunnelRsp served;
    LyrKesLbDfxRsp page;
    LyrKesVerifyRcdGetRsp gone;
    LyrKesCwpPingStatRsp pings;
    LyrKesCwpTraceRecordRsp probed;
    LyrKesCwpMsgTypeStatRsp types;
    LyrKesGetPktStatisticsRsp packets;
    LyrKesResetPktStatisticsRsp reset;
    EXPECT_TRUE(Becomes([&] {
        return LyrClientGetPktStatistics(client, &packets) == LYR_CLIENT_OK &&
               packets.rows[LYR_KES_PKT_STAT_CONTROL].rxCnt == 222;
    }));
    const LyrClientOutcome outcomes[] = {
        LyrClientCwpTunnel(client, &tunnel),
        LyrClientKaTunnel(client, &session),
        LyrClientWapiTunnel(client, &stations, &served),
        LyrClientLoadBalanceDfx(client, &count, &page),
        LyrClientCwpSrc(client, &source),
        LyrClientCwpSrcReconciliation(client, &table),
        LyrClientDebugTraceSet(client, &trace),
        LyrClientReconciliation(client, &records[0]),
        LyrClientBatchReconciliation(client, records, 2),
        LyrClientVerifyRcdGet(client, &list, &gone),
        LyrClientVerifyRcdReset(client),
        LyrClientCwpPingStat(client, &ping, &pings),
        LyrClientCwpTraceRecord(client, &probes, &probed),
        LyrClientCwpMsgTypeStat(client, &select, &types),
        LyrClientResetPktStatistics(client, &reset),
    };
    EXPECT_THAT(outcomes, testing::Each(LYR_CLIENT_OK));
    EXPECT_EQ(page.entryNum, 1u);

    MundSourceRecord sources[LYR_KES_CWP_SRC_NUM];
    MundTraceConfig traced;
    MundPingStat pinged;
    uint64_t range = 0;
    uint32_t channels[8] = {};
    size_t instances = 0;
    EXPECT_EQ(LyrClientGetSources(client, sources), LYR_CLIENT_OK);
    EXPECT_EQ(sources[2].address.words[3], 0xFEu);
    EXPECT_EQ(LyrClientGetTrace(client, &traced), LYR_CLIENT_OK);
    EXPECT_EQ(traced.debugLevel, 3u);
    EXPECT_EQ(LyrClientGetPing(client, &pinged), LYR_CLIENT_OK);
    EXPECT_EQ(pinged.pingAddr.words[0], 0x20010DB8u);
    EXPECT_EQ(LyrClientGetStationService(client, &range), LYR_CLIENT_OK);
    EXPECT_EQ(range, uint64_t{2} << 32 | 1);
    EXPECT_EQ(LyrClientGetChannels(client, MUND_PACKET_CAPWAP, channels, 8, &instances), 0);
    EXPECT_EQ(instances, 28u);
    EXPECT_EQ(channels[0], MUND_NO_CHANNEL);
    EXPECT_NE(channels[3], MUND_NO_CHANNEL);
    const char *json = nullptr;
    EXPECT_EQ(LyrClientState(client, &json), LYR_CLIENT_OK);
    EXPECT_THAT(json, HasSubstr("\"received\":422"));
    int settled = 0;
    EXPECT_EQ(LyrClientSettle(client, &settled), LYR_CLIENT_OK);
    EXPECT_EQ(settled, 1);
    const uint8_t frame[60] = {};
    const MundWireExplainReq arrival = {};
    EXPECT_EQ(LyrClientExplain(client, &arrival, frame, sizeof frame, &json), LYR_CLIENT_OK);
    EXPECT_THAT(json, HasSubstr("\"fate\":\"returned\""));
}

TEST_F(ClientLibrary, QueriesGoThroughTheirPagesAndStopWhenTold) {
    LyrKesCwpTunnelReq tunnel = {};
    tunnel.dstAddr.ipv4Addr = 9;
    tunnel.dstPort = 5246;
    for (uint32_t i = 1; i <= 600; ++i) {
        tunnel.srcAddr.ipv4Addr = i;
        ASSERT_EQ(LyrClientCwpTunnel(client_.get(), &tunnel), LYR_CLIENT_OK);
    }
    struct Seen {
        uint32_t tunnels;
        uint32_t limit;
    };
    const LyrClientTunnelVisitor visit = [](void *context, const LyrKesLbDfxEntry *) {
        auto *seen = static_cast<Seen *>(context);
        return ++seen->tunnels == seen->limit ? 1 : 0;
    };
    for (const auto &[limit, wanted] : {std::pair{0u, 601u}, {300u, 300u}}) {
        Seen seen = {0, limit};
        EXPECT_EQ(LyrClientVisitTunnels(client_.get(), 0, 5246, visit, &seen), LYR_CLIENT_OK);
        EXPECT_EQ(seen.tunnels, wanted);
    }
}

// Pages of buckets: of the 6,000 tunnels, more than one page has.
TEST_F(ClientLibrary, TablesAreGoneThroughEntryByEntry) {
    LyrClient *client = client_.get();
    LyrKesCwpTunnelReq tunnel = {};
    tunnel.dstPort = 5246;
    for (uint32_t i = 1; i <= 6000; ++i) {
        tunnel.srcAddr.ipv4Addr = i;
        ASSERT_EQ(LyrClientCwpTunnel(client, &tunnel), LYR_CLIENT_OK);
    }
    LyrClientAddressFromText("2001:db8::1", &tunnel.srcAddr);
    LyrClientAddressFromText("2001:db8::fe", &tunnel.dstAddr);
    tunnel.nodeId = 5;
    const LyrKesKaTunnelReq session = {LYR_KES_OPERATION_ADD, {1, 2, 3, 4}, 7};
    ASSERT_EQ(LyrClientCwpTunnel(client, &tunnel), LYR_CLIENT_OK);
    ASSERT_EQ(LyrClientKaTunnel(client, &session), LYR_CLIENT_OK);

    std::vector<uint32_t> sources;
    const auto visitIpv4 = [](void *context, const MundIpv4Tunnel *entry) {
        auto *seen = static_cast<std::vector<uint32_t> *>(context);
        seen->push_back(entry->key.srcIp);
        return seen->size() == 6001 + 10 ? 1 : 0;
    };
    EXPECT_EQ(LyrClientVisitIpv4Tunnels(client, visitIpv4, &sources), LYR_CLIENT_OK);
    std::ranges::sort(sources);
    std::vector<uint32_t> wanted(6000);
    std::iota(wanted.begin(), wanted.end(), 1);
    wanted.push_back(0xC0A80A0A);
    EXPECT_EQ(sources, wanted);
    // Ten more, and the visitor has enough.
    EXPECT_EQ(LyrClientVisitIpv4Tunnels(client, visitIpv4, &sources), LYR_CLIENT_OK);
    EXPECT_EQ(sources.size(), 6011u);

    MundIpv6Tunnel ipv6 = {};
    MundSession held = {};
    const auto keepIpv6 = [](void *context, const MundIpv6Tunnel *entry) {
        *static_cast<MundIpv6Tunnel *>(context) = *entry;
        return 0;
    };
    const auto keepSession = [](void *context, const MundSession *entry) {
        *static_cast<MundSession *>(context) = *entry;
        return 0;
    };
    EXPECT_EQ(LyrClientVisitIpv6Tunnels(client, keepIpv6, &ipv6), LYR_CLIENT_OK);
    EXPECT_EQ(ipv6.key.dstIpv6[3], 0xFEu);
    EXPECT_EQ(ipv6.nodeId, 5u);
    EXPECT_EQ(LyrClientVisitSessions(client, keepSession, &held), LYR_CLIENT_OK);
    EXPECT_EQ(held.key.sessionId[3], 4u);
    EXPECT_EQ(held.nodeId, 7u);
}

TEST_F(ClientLibrary, SaysWhyNothingCameOfACall) {
    LyrClient *client = client_.get();
    LyrKesCwpTunnelReq tunnel = {};
    tunnel.nodeId = 1000;
    uint32_t number = 0;
    const void *bytes = nullptr;
    size_t size = 0;
    LyrClientLine line;
    const std::string longName(60, 'x');
    const std::string longPath(200, 'x');
    const auto lost = [&] {
        engine_.Stop(SIGTERM);
        return LyrClientVerifyRcdReset(client);
    };
    const auto silent = [&] {
        const mund::Descriptor deaf(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address;
        mund::SetAddress(address, Path("deaf"));
        bind(deaf.Number(), reinterpret_cast<sockaddr *>(&address), sizeof address);
        listen(deaf.Number(), 1);
        LyrClientSetLimits(client, 300, 300);
        LyrClientConnect(client, Path("deaf").c_str());
        return LyrClientVerifyRcdReset(client);
    };
    const struct {
        std::function<LyrClientOutcome()> call;
        LyrClientOutcome outcome;
        std::string error;
    } cases[] = {
        {[&] { return LyrClientCwpTunnel(client, &tunnel); }, LYR_CLIENT_FAILED, "failed (1)"},
        {[&] { return LyrClientAsk(client, 3, "", 1, &bytes, &size); }, LYR_CLIENT_REFUSED,
         "wrong length of the request"},
        {[&] { return LyrClientReadObject(client, "g_no", &number, 4); }, LYR_CLIENT_REFUSED,
         "g_no"},
        {[&] { return LyrClientReadObject(client, MUND_OBJECT_TRACE, &number, 4); },
         LYR_CLIENT_BAD_REPLY, "g_lyrKesDebugTrace has 68 bytes, not 4"},
        {[&] { return LyrClientReadObject(client, longName.c_str(), &number, 4); },
         LYR_CLIENT_INVALID, "has 60 bytes, and an object's at most 59"},
        {[&] { return LyrClientNextLine(client, 0, &line); }, LYR_CLIENT_INVALID,
         "this connection does not follow"},
        {[&] { return LyrClientFollow(client); }, LYR_CLIENT_OK, ""},
        {[&] { return LyrClientNextLine(client, 1, &line); }, LYR_CLIENT_NOTHING, ""},
        {[&] { return LyrClientVerifyRcdReset(client); }, LYR_CLIENT_INVALID,
         "this connection follows"},
        {[&] { return LyrClientConnect(client, longPath.c_str()); }, LYR_CLIENT_INVALID,
         "the path has 200 bytes"},
        {[&] { return LyrClientVerifyRcdReset(client); }, LYR_CLIENT_NO_ENGINE,
         "there is no connection"},
        {[&] { return LyrClientConnect(client, socket_.c_str()); }, LYR_CLIENT_OK, ""},
        {lost, LYR_CLIENT_NO_ENGINE, "has closed the connection"},
        {[&] { return LyrClientConnect(client, socket_.c_str()); }, LYR_CLIENT_NO_ENGINE,
         "no engine at " + socket_},
        {silent, LYR_CLIENT_NO_ENGINE, "deaf has not answered for 300 milliseconds"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(cases[i].call(), cases[i].outcome) << i;
        EXPECT_THAT(LyrClientError(client), HasSubstr(cases[i].error)) << i;
    }
}

TEST_F(ClientLibrary, TheExamplesRunAndTheDocumentsShowThem) {
    const std::string page = ReadText(SOURCE_DIR "/docs/interfaces.md");
    const struct {
        const char *file;
        const char *language;
        const char *command;
    } examples[] = {
        {"tunnels.c", "c", EXAMPLE_C " "},
        {"tunnels.py", "python",
         "PYTHONPATH=" SOURCE_DIR "/python python3 -B " SOURCE_DIR "/examples/tunnels.py "}};
    for (const auto &example : examples) {
        const std::string text = ReadText(SOURCE_DIR "/examples/" + std::string(example.file));
        EXPECT_THAT(page, HasSubstr("```" + std::string(example.language) + "\n" + text + "```\n"));
        const Outcome run = Shell(example.command + socket_);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_THAT(run.out, HasSubstr("192.168.10.10 port 12380: instance 3\n"));
        EXPECT_THAT(run.out, HasSubstr("192.168.10.11 port 12380: instance 4\n"));
        EXPECT_THAT(run.out, HasSubstr("2 tunnels; the first source is of type 1\n"));
        EXPECT_EQ(Shell(example.command + Path("none")).status, 3);
    }
    const Outcome symbols = Shell("nm -D --defined-only " CLIENT_LIBRARY " | grep -v ' LyrClient'");
    EXPECT_THAT(symbols.out, testing::EndsWith(" A LYRCLIENT_1\n"));
}

}  // namespace
}  // namespace programs
