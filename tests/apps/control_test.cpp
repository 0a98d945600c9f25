// Control commands: from text to requests, and from answers to text and JSON.
#include <gtest/gtest.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <set>

#include "control/command.h"
#include "control/line_decoder.h"
#include "control/message_bytes.h"
#include "mund/statistics_messages.h"
#include "program.h"

namespace control {
namespace {

// A message of zeros but for the fields given as "OFFSET:BYTES=VALUE", in little-endian order;
// eight equal 16-bit groups are "OFFSET:8x2=VALUE".
Bytes Packed(size_t size, const std::string &fields) {
    Bytes message(size);
    std::istringstream words(fields);
    for (std::string word; words >> word;) {
        const size_t colon = word.find(':');
        const size_t equals = word.find('=');
        size_t offset = std::stoul(word);
        const std::string width = word.substr(colon + 1, equals - colon - 1);
        const auto value = static_cast<uint32_t>(std::stoul(word.substr(equals + 1), nullptr, 0));
        const bool groups = width == "8x2";
        const size_t bytes = groups ? 2 : std::stoul(width);
        for (int i = 0; i < (groups ? 8 : 1); ++i, offset += bytes) {
            std::memcpy(&message.at(offset), &value, bytes);
        }
    }
    return message;
}

std::vector<Command> Parse(const std::string &text) {
    std::istringstream stream(text);
    return ParseCommands(stream, "cmds");
}

std::string ErrorOf(const std::string &text) {
    try {
        Parse(text);
    } catch (const InputError &error) {
        return error.what();
    }
    return "no error";
}

Answer Result(uint32_t result, const Bytes &reply = {}) {
    return {"", result, reply};
}

// A reply of success, packed.
Answer Reply(size_t size, const std::string &fields) {
    return Result(MUND_RESULT_OK, Packed(size, fields));
}

// What comes of a command when the module gives these answers one after the other.
Outcome Answered(const std::string &line, const std::vector<Answer> &answers) {
    const Command command = Parse(line).at(0);
    size_t asked = 0;
    std::set<Bytes> requests;
    const Outcome outcome = Execute(command, [&](MundOperation operation,
                                                 std::span<const uint8_t> request) {
        EXPECT_EQ(operation, command.spec->operation);
        EXPECT_EQ(request.size(), command.request.bytes.size());
        EXPECT_TRUE(requests.emplace(request.begin(), request.end()).second) << "asked again";
        EXPECT_TRUE(requests.contains(command.request.bytes)) << "first";
        return asked < answers.size() ? answers[asked++] : Answer{"one request too many", 0, {}};
    });
    EXPECT_EQ(asked, answers.size()) << line;
    return outcome;
}

TEST(ControlCommand, BecomesARequest) {
#define REQUEST_SIZE(name, requestSize, replySize) requestSize,
    constexpr size_t kRequestSizes[] = {MUND_OPERATIONS(REQUEST_SIZE)};
#undef REQUEST_SIZE
    const struct {
        std::string line;
        MundOperation operation;
        std::string fields;
    } cases[] = {
        {"tunnel add 10.0.0.1 12380 10.0.0.254 5246 --node 3", MUND_OP_CwpTunnel,
         "8:4=0x0A000001 32:4=0x0A0000FE 52:2=12380 54:2=5246 60:4=3"},
        {"tunnel add 2001:db8::1 0 ff02::18c 65535 --vpn 0x10 --node 4294967295", MUND_OP_CwpTunnel,
         "4:4=1 12:2=0x2001 14:2=0x0DB8 26:2=1 28:4=1 36:2=0xFF02 50:2=0x018C 54:2=65535 56:4=16 "
         "60:4=0xFFFFFFFF"},
        {"tunnel del --vpn 7 10.0.0.1 1 10.0.0.2 2", MUND_OP_CwpTunnel,
         "0:4=1 8:4=0x0A000001 32:4=0x0A000002 52:2=1 54:2=2 56:4=7"},
        {"tunnel default --node 5", MUND_OP_CwpTunnel,
         "8:4=0xFFFFFFFF 32:4=0xFFFFFFFF 52:2=0xFFFF 54:2=5246 56:4=65535 60:4=5"},
        {"tunnel default --ipv6 --node=5", MUND_OP_CwpTunnel,
         "4:4=1 28:4=1 52:2=0xFFFF 54:2=5246 56:4=65535 60:4=5 12:8x2=0xFFFF 36:8x2=0xFFFF"},
        {"session add 00112233445566778899aabbCCDDEEFF --node 2", MUND_OP_KaTunnel,
         "4:4=0x00112233 8:4=0x44556677 12:4=0x8899AABB 16:4=0xCCDDEEFF 20:4=2"},
        {"session del 00000000000000000000000000000001", MUND_OP_KaTunnel, "0:4=1 16:4=1"},
        {"wapi 20 8", MUND_OP_WapiTunnel, "0:4=20 4:4=8"},
        {"source add 1 192.168.10.9 --if 7", MUND_OP_CwpSrc, "4:4=1 12:4=0xC0A80A09 32:4=7"},
        {"source del 4 ::1", MUND_OP_CwpSrc, "0:4=1 4:4=4 8:4=1 30:2=1"},
        {"source set 7=1,10.0.0.1,9 0=2,fe80::5", MUND_OP_CwpSrcReconciliation,
         "0:4=2 4:4=1 12:2=0xFE80 26:2=5 224:4=1 232:4=0x0A000001 252:4=9"},
        // A filter that is not given goes as the IPv6 address of all zeros: that clears it.
        {"trace set --level 3", MUND_OP_DebugTraceSet, "4:4=3 16:4=1 40:4=1"},
        {"trace set --level 2 --src 10.0.0.1 --dst 0.0.0.0 --sport 1 --dport 65535 "
         "--type Discovery-Request --mac 02:00:5e:10:a0:FF",
         MUND_OP_DebugTraceSet,
         "4:4=2 8:4=0x105E0002 12:2=0xFFA0 20:4=0x0A000001 40:4=1 64:4=1 68:4=65535 72:4=1"},
        {"trace set --level=1 --src=2001:db8::1 --type=0x1234", MUND_OP_DebugTraceSet,
         "4:4=1 16:4=1 24:2=0x2001 26:2=0x0DB8 38:2=1 40:4=1 72:4=0x1234"},
        {"trace clear", MUND_OP_DebugTraceSet, "0:4=1"},
        {"recon begin 3", MUND_OP_Reconciliation, "76:4=3"},
        {"recon finish 0xFFFFFFFF", MUND_OP_Reconciliation, "0:4=3 76:4=0xFFFFFFFF"},
        {"recon confirm tunnel 10.0.0.1 12380 10.0.0.254 5246 --node 3 --vpn 9",
         MUND_OP_Reconciliation,
         "0:4=1 8:4=0x0A000001 32:4=0x0A0000FE 52:2=12380 54:2=5246 56:4=9 76:4=3"},
        {"recon confirm session 00112233445566778899aabbCCDDEEFF --node 2", MUND_OP_Reconciliation,
         "0:4=2 60:4=0x00112233 64:4=0x44556677 68:4=0x8899AABB 72:4=0xCCDDEEFF 76:4=2"},
        {"verify show", MUND_OP_VerifyRcdGet, ""},
        {"verify show --list 1", MUND_OP_VerifyRcdGet, "2:1=1"},
        {"verify clear", MUND_OP_VerifyRcdReset, ""},
        {"tunnel count --port 5246", MUND_OP_LoadBalanceDfx, "6:2=5246"},
        {"tunnel list --ipv6 --port 65535", MUND_OP_LoadBalanceDfx, "0:4=1 6:2=65535 8:1=1"},
        {"stats show", MUND_OP_GetPktStatistics, ""},
        {"stats reset", MUND_OP_ResetPktStatistics, ""},
        {"msgtype select WTP-Event_Request", MUND_OP_CwpMsgTypeStat, "0:4=1 4:4=9"},
        {"msgtype select 0xFFFFFFFE", MUND_OP_CwpMsgTypeStat, "0:4=1 4:4=0xFFFFFFFE"},
        {"msgtype select off", MUND_OP_CwpMsgTypeStat, "0:4=1 4:4=0xFFFFFFFF"},
        {"msgtype show", MUND_OP_CwpMsgTypeStat, ""},
        {"msgtype reset", MUND_OP_CwpMsgTypeStat, "0:4=2"},
        {"ping set 10.0.0.1", MUND_OP_CwpPingStat, "0:4=2 8:4=0x0A000001"},
        {"ping set 2001:db8::1", MUND_OP_CwpPingStat, "0:4=2 4:4=1 12:2=0x2001 14:2=0x0DB8 26:2=1"},
        {"ping set off", MUND_OP_CwpPingStat, "0:4=2"},
        {"ping show", MUND_OP_CwpPingStat, ""},
        {"ping reset", MUND_OP_CwpPingStat, "0:4=1"},
        {"probe show", MUND_OP_CwpTraceRecord, ""},
        {"probe show --from 0x100", MUND_OP_CwpTraceRecord, "0:4=256"},
        {"probe clear", MUND_OP_CwpTraceRecord, "4:4=1"},
    };
    for (const auto &c : cases) {
        const Command command = Parse(c.line).at(0);
        EXPECT_EQ(command.spec->operation, c.operation) << c.line;
        EXPECT_EQ(command.request.bytes, Packed(kRequestSizes[c.operation], c.fields)) << c.line;
    }
}

TEST(ControlCommand, MistakesAreNamed) {
    const std::string usage = "; usage: tunnel default --node N [--ipv6]";
    const std::string noNumber = " is not a number from 0 to 4294967295";
    const std::string noAddress = " is not an IPv4 or IPv6 address";
    const std::string noMac = " is not a MAC address such as 02:00:5e:10:00:01";
    const std::string noSession = " is not a session id of 32 hexadecimal digits";
    const std::string noLevel =
        " is not a level of the trace: 1 (failures), 2 (packets) or 3 (both)";
    const std::string noSource =
        " is not a type of source: 1 (known by its address), 2 or 3 (by interface and IP version) "
        "or 4 (by its address, and broadcasts reach it on all interfaces)";
    const std::string noType =
        " is not a CAPWAP message type: a number, or a name of RFC 5415, section 4.5.1.1, such as "
        "discovery-request";
    const struct {
        std::string line;
        std::string error;
    } cases[] = {
        {"tunnel add 10.0.0 1 10.0.0.2 2 --node 3", "SRC-IP '10.0.0'" + noAddress},
        {"tunnel add 10.0.0.1 65536 10.0.0.2 2 --node 3",
         "SRC-PORT '65536' is not a number from 0 to 65535"},
        {"tunnel del 10.0.0.1 1 10.0.0.2 -2", "DST-PORT '-2' is not a number from 0 to 65535"},
        {"tunnel del 10.0.0.1 1 ::2 2",
         "SRC-IP '10.0.0.1' and DST-IP '::2' are not of one address family"},
        {"tunnel del 10.0.0.1 1 10.0.0.2",
         "DST-PORT is missing; usage: tunnel del SRC-IP SRC-PORT DST-IP DST-PORT [--vpn N]"},
        {"tunnel default --node 4294967296", "--node '4294967296'" + noNumber},
        {"tunnel default --node 0x", "--node '0x'" + noNumber},
        {"tunnel default --node 3x", "--node '3x'" + noNumber},
        {"tunnel default --ipv6", "--node is missing" + usage},
        {"tunnel default --node", "--node has no value" + usage},
        {"tunnel default --node 3 --node 4", "--node is given twice" + usage},
        {"tunnel default 3 --node 3", "unexpected word '3'" + usage},
        {"tunnel default --nod 3", "unknown option '--nod'" + usage},
        {"tunnel default --nod=3", "unknown option '--nod'" + usage},
        {"tunnel default --node=3 --node 4", "--node is given twice" + usage},
        {"tunnel default --node= --ipv6", "--node ''" + noNumber},
        {"tunnel default --node 3 --ipv6=1", "--ipv6 takes no value" + usage},
        {"tunnel list --ipv6", "--port is missing; usage: tunnel list --port N [--ipv6]"},
        {"trace clear now", "unexpected word 'now'; usage: trace clear"},
        {"session add 0011 --node 1", "HEX32 '0011'" + noSession},
        {"session del 0011223344556677x899aabbccddeeff",
         "HEX32 '0011223344556677x899aabbccddeeff'" + noSession},
        {"source set",
         "POSITION=TYPE,IP[,IF] is missing; usage: source set POSITION=TYPE,IP[,IF] ..."},
        {"source add 0 10.0.0.1", "TYPE '0'" + noSource},
        {"source add 5 10.0.0.1", "TYPE '5'" + noSource},
        {"source set 1=5,10.0.0.1", "TYPE '5'" + noSource},
        {"trace set --level 0", "--level '0'" + noLevel},
        {"trace set --level 4", "--level '4'" + noLevel},
        {"source set 8=1,10.0.0.1", "POSITION '8' is not a number from 0 to 7"},
        {"source set 3=1,10.0.0.1 3=1,10.0.0.2", "position 3 is given twice"},
        {"source set 3=1", "IP ''" + noAddress},
        {"source set 3=1,10.0.0.1,7,8", "IF '7,8'" + noNumber},
        {"trace set --level 1 --mac 02:00:5e:10:a0", "--mac '02:00:5e:10:a0'" + noMac},
        {"trace set --level 1 --mac 02:00:5e:10-a0:00", "--mac '02:00:5e:10-a0:00'" + noMac},
        {"trace set --level 1 --type hello", "--type 'hello'" + noType},
        {"msgtype select echo", "TYPE|off 'echo'" + noType},
        {"recon run 3 /tmp", "cannot read commands from '/tmp': Is a directory"},
        {"verify show --list 2", "--list '2' is not a number from 0 to 1"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(ErrorOf("\n" + c.line), "cmds:2: " + c.error) << c.line;
    }
}

TEST(ControlCommand, LinesAreCountedAndCommentsSkipped) {
    const std::vector<Command> commands =
        Parse("\xEF\xBB\xBFstats show\r\n\n  wapi\t1 2  # two of them\r\n\ntrace   clear");
    std::string lines;
    for (const Command &command : commands) {
        lines += command.Where() + command.text + "\n";
    }
    EXPECT_EQ(lines, "cmds:1: stats show\ncmds:3: wapi 1 2\ncmds:5: trace clear\n");
}

TEST(ControlCommand, AnAuditSendsWhatAFileGivesToTheNode) {
    const programs::Directory directory;
    const std::string path = directory.Path("site.commands");
    const std::string run = "recon run 3 " + path;
    const std::string session = "00112233445566778899aabbccddeeff";
    const std::string tunnel = " 10.0.0.1 1 10.0.0.254 5246 --vpn 9";
    const std::string tunnel6 = " 2001:db8::1 1 2001:db8::fe 5246 --node 3\n";
    std::ofstream(path) << "# The site.\nsource add 1 10.0.0.254 --if 7\ntunnel add" << tunnel
                        << " --node 0x3  # ours\ntunnel add 10.0.0.2 1 10.0.0.254 5246 --node 4\n"
                        << "tunnel del" << tunnel << "\nsession add " << session << " --node 3\n"
                        << "session add " << session << " --node 5\nsession del " << session
                        << "\ntunnel default --node 3\ntunnel default --node 0 --ipv6\n"
                        << run << "\nrecon begin 3\nverify clear\ntunnel add" << tunnel6;
    Bytes records;
    for (const Command &command :
         Parse("recon begin 3\nrecon confirm tunnel" + tunnel + " --node 3\n" +
               "recon confirm session " + session + " --node 3\nrecon confirm tunnel " +
               "255.255.255.255 65535 255.255.255.255 5246 --vpn 65535 --node 3\n" +
               "recon confirm tunnel" + tunnel6 + "recon finish 3")) {
        records.insert(records.end(), command.request.bytes.begin(), command.request.bytes.end());
    }
    const Bytes batch = Parse(run).at(0).request.bytes;
    EXPECT_EQ(Bytes(batch.begin(), batch.begin() + 8), (Bytes{6, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Bytes(batch.begin() + 8, batch.end()), records);

    const Outcome done = Answered(run, {Result(0)});
    EXPECT_EQ(done.ToText(), run + ": ok; records sent: 6, entries of other instances left out: 3");
    EXPECT_EQ(nlohmann::json::parse(done.ToJson())["batch"].dump(), R"({"leftOut":3,"records":6})");
    EXPECT_EQ(Answered(run, {Result(1)}).ToText(),
              run + ": failed (1): no memory, or the queue of the audits is full");

    const std::string nothing = "recon run 9 " + path;
    EXPECT_EQ(ErrorOf(nothing), "cmds:1: '" + path +
                                    "' has nothing for instance 9, and the audit would take away "
                                    "all that the instance has; --empty says that this is meant");
    EXPECT_EQ(Answered(nothing + " --empty", {Result(0)}).tally->records, 2u);

    for (const char *line : {"source add 1 10.0.0", "recon run 3", "tunnel add"}) {
        std::ofstream(path) << "\n\n" << line << "\n";
        EXPECT_TRUE(ErrorOf(run).starts_with("cmds:1: " + path + ":3: ")) << ErrorOf(run);
    }
}

TEST(ControlCommand, AnInstanceThatThereIsNotIsNotAskedFor) {
    const programs::Directory directory;
    const std::string file = directory.Path("site.commands");
    directory.Write("site.commands", "tunnel default --node 28\n");
    const std::string tunnel = " 10.0.0.1 1 10.0.0.2 2 --node 28", key = std::string(32, '0');
    for (const std::string &line :
         {"tunnel add" + tunnel, std::string("tunnel default --node 28"),
          "session add " + key + " --node 28", std::string("wapi 27 2"), std::string("wapi 28 1"),
          std::string("recon begin 28"), "recon confirm tunnel" + tunnel,
          "recon confirm session " + key + " --node 28", std::string("recon finish 28"),
          "recon run 28 " + file}) {
        const Command command = Parse(line).at(0);
        size_t asked = 0;
        const auto module = [&](MundOperation, std::span<const uint8_t>) {
            ++asked;
            return Result(MUND_RESULT_OK, Bytes(command.spec->reply != nullptr ? 4 : 0));
        };
        const std::string text = Execute(command, module, 27).ToText();
        EXPECT_EQ(asked, 0u) << line;
        EXPECT_TRUE(
            text.starts_with(line + ": instance 28 is beyond the service instances, 0 to 27"))
            << text;
        EXPECT_TRUE(Execute(command, module, 28).Ok()) << line;
        EXPECT_TRUE(Execute(command, module).Ok()) << line;
    }
    EXPECT_TRUE(Execute(
                    Parse("wapi 28 0").at(0),
                    [](auto, auto) { return Result(MUND_RESULT_OK, Bytes(4)); }, 27)
                    .Ok());
}

TEST(ControlCommand, AnswersAreTold) {
    const std::string rejected = "failed (1): the range is beyond the service instances";
    const std::string noReply = "failed (1): no memory for the reply";
    const std::string stuck = "the listing does not move on: next index ";
    const std::string endless = "the trace does not end: more is said to follow the ";
    const std::string list = "tunnel list --port 1";
    const auto tunnels = [](const char *fields) { return Reply(14340, fields); };
    const auto probes = [](const char *fields) { return Reply(16392, fields); };
    const Answer to10 = tunnels("14336:2=11");
    const std::string unknown = "refused (2): the module does not know such a request";
    const struct {
        std::string line;
        std::vector<Answer> answers;
        std::string meaning;
        std::string reply = "";  // JSON
    } cases[] = {
        {"trace clear", {Result(0)}, "ok"},
        {"source add 1 10.0.0.1", {Result(1)}, "failed (1): all eight sources are in use"},
        {"source del 1 10.0.0.1", {Result(1)}, "failed (1)"},
        {"trace clear", {Result(2)}, unknown},
        {"tunnel default --node 1",
         {Result(0xFFFFFFFF)},
         "failed (0xFFFFFFFF): no table, or a broken chain in it"},
        {"trace clear", {Result(77)}, "result 77"},
        {"trace clear", {{"the service is not open", 0, {}}}, "the service is not open"},
        {"wapi 0 4", {Result(0, {0, 0, 0, 0})}, "ok", R"({"accepted":true})"},
        {"wapi 0 4", {Result(1, {1, 0, 0, 0})}, rejected, R"({"accepted":false})"},
        {"wapi 0 4", {Result(1)}, rejected},
        {"wapi 0 4", {Result(0)}, "the reply has 0 bytes, not 4"},
        {"wapi 0 4", {Result(1, {1, 0})}, "the reply has 2 bytes, not 4"},
        {"trace clear", {Result(0, {1})}, "the reply has 1 bytes, not 0"},
        {"stats reset", {Reply(4, "")}, "ok"},
        {"stats reset", {Reply(4, "0:4=1")}, noReply},
        {"stats show",
         {Reply(264, "0:4=3 4:4=8")},
         "the reply has 3 classes of 8 counters, not 3 of 7"},
        {"msgtype select off", {Reply(520, "")}, "ok"},
        {"msgtype reset", {Reply(520, "0:4=2")}, unknown},
        {"msgtype show", {Reply(520, "0:4=1")}, "failed (1): the module has no counters"},
        {"msgtype show",
         {Reply(520, "0:4=1 4:4=33 8:4=5")},
         "failed (1): the counters of more than 32 service instances cannot be read, and there are "
         "33"},
        {"ping set off", {Reply(52, "")}, "ok"},
        {"ping reset", {Result(1)}, noReply},
        {"ping show", {Reply(52, "48:4=2")}, unknown},
        {"probe clear", {probes("0:4=3")}, "ok"},
        {"probe clear", {probes("0:4=2")}, "the reply's result is 2, not 3"},
        {"probe show", {probes("")}, "the reply's result is 0, neither 2 nor 3"},
        {"probe show", {probes("0:4=3 4:4=257")}, "the reply has 257 records, of 256 at most"},
        {"probe show --from 9", {probes("0:4=2")}, endless + "0 records from 9"},
        {"tunnel count --port 1", {Result(1, Bytes(14340))}, noReply},
        {"probe show --from 4294967295",
         {probes("0:4=2 4:4=1")},
         endless + "1 records from 4294967295"},
        // A listing that goes astray.
        {list, {tunnels("14336:2=1")}, stuck + "1 in the reply for index 0"},
        {list, {to10, to10}, stuck + "11 in the reply for index 10"},
        {list, {to10, tunnels("14336:2=5")}, stuck + "5 in the reply for index 10"},
        {list, {to10, Result(1)}, noReply},
        {list, {to10, {"the service is gone", 0, {}}}, "the service is gone"},
        {list, {to10, Result(0, Bytes(14339))}, "the reply has 14339 bytes, not 14340"},
        {list,
         {tunnels("44:2=1 100:2=7 102:2=8 14336:2=65535")},
         "the listing of port 1 has a tunnel of ports 7 and 8"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line + " -> " + c.meaning);
        const Outcome outcome = Answered(c.line, c.answers);
        EXPECT_EQ(outcome.ToText(), c.line + ": " + c.meaning);
        const auto json = nlohmann::json::parse(outcome.ToJson());
        EXPECT_EQ(json.at("ok"), c.meaning == "ok");
        EXPECT_EQ(json.contains("reply") ? json["reply"].dump() : "", c.reply);
    }
    EXPECT_EQ(Answered("source set 0=1,10.0.0.1", {Result(1)}).ToJson(),
              R"({"command":"source set 0=1,10.0.0.1","operation":"CwpSrcReconciliation",)"
              R"("ok":false,"result":1,"meaning":"failed (1): the sources could not be stored"})");
}

TEST(ControlCommand, RepliesAreLaidOut) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const struct {
        std::string line;
        std::vector<Answer> answers;
        std::string text;
    } cases[] = {
        {"verify show",
         {Reply(5604,
                "4:4=0x0A000001 8:4=0x0A0000FE 44:2=12380 46:2=5246 48:4=1700000000 52:1=1 "
                "56:4=1 68:8x2=0x20 84:8x2=0x20 100:2=1 102:2=65535 104:4=1720000000 108:1=7 "
                "5600:2=5604 5602:2=2")},
         R"(
time                       type           source                   port   destination              port
2023-11-14T23:13:20+01:00  not confirmed  10.0.0.1                 12380  10.0.0.254               5246
2024-07-03T11:46:40+02:00  type 7         20:20:20:20:20:20:20:20  1      20:20:20:20:20:20:20:20  65535)"},
        {"verify show", {Reply(5604, "")}, "\nno tunnels"},
        {"stats show",
         {Reply(264,
                "0:4=3 4:4=7 8:4=222 12:4=115 20:4=107 24:4=107 36:4=5 80:4=4294967295 88:4=9")},
         R"(
class           received  sent  send failed  processing failed  source mismatch  not distributed  session id failed
control         222       115   0            107                107              0                0
keepalive       5         0     0            0                  0                0                0
DTLS handshake  0         0     0            0                  4294967295       0                9)"},
        {"msgtype show",
         {Reply(520, "4:4=32 8:4=7 20:4=4294967295 132:4=1 148:4=2 264:4=3 516:4=4")},
         R"(
instance  sent        send failed  next type sent  next type send failed
0         7           0            3               0
3         4294967295  2            0               0
31        1           0            0               4
all 32    4294967303  2            3               4)"},
        {"msgtype show", {Reply(520, "4:4=28")}, "\nnothing counted for any of 28 instances"},
        {"ping show",
         {Reply(52, "0:4=1 4:4=2 8:4=64 20:4=5 24:4=4294967295 40:4=7 44:4=8")},
         R"(
point   packets     fragments  bytes
tx in   1           2          64
tx out  0           0          5
rx in   4294967295  0          0
rx out  0           7          8)"},
        {"probe show --from 7",
         {Reply(16392,
                "0:4=2 4:4=1 8:4=0x105E0002 12:2=0x0700 14:4=0x76726553 18:4=0x65527265 22:1=0x71 "
                "32:4=0x07E8020A 36:4=0x00170005 48:4=0x0A000001 68:4=1"),
          Reply(16392, "0:4=3 4:4=2 14:8x2=0x4141 44:4=1 52:8x2=0x20 68:4=2 132:4=4")},
         R"(
position  time                 name              point    MAC                peer
7         2024-02-10T23:00:05  ServerReq         tx out   02:00:5e:10:00:07  10.0.0.1
8         0000-00-00T00:00:00  AAAAAAAAAAAAAAAA  rx in    00:00:00:00:00:00  20:20:20:20:20:20:20:20
9         0000-00-00T00:00:00                    point 4  00:00:00:00:00:00  0.0.0.0)"},
        {"probe show", {Reply(16392, "0:4=3")}, "\nno probes"},
        {"tunnel count --port 1", {Reply(14340, "14338:2=65535")}, "\ntunnels: 65535"},
        {"tunnel list --port 5246",
         {Reply(14340,
                "4:4=0x0A000001 8:4=0x0A0000FE 44:2=12380 46:2=5246 48:4=9 52:4=3 14336:2=7"),
          Reply(14340, "4:4=0xFFFFFFFF 8:4=0xFFFFFFFF 44:2=5246 46:2=1 14336:2=65535"),
          Reply(14340, "14338:2=2")},
         R"(
source           port   destination      port  vpn  instance
10.0.0.1         12380  10.0.0.254       5246  9    3
255.255.255.255  5246   255.255.255.255  1     0    0)"},
        {"tunnel list --port 1 --ipv6",
         {Reply(14340, "0:4=1 12:8x2=0x20 28:8x2=0x21 44:2=1 14336:2=65535"),
          Reply(14340, "14338:2=1")},
         R"(
source                   port  destination              port  vpn  instance
20:20:20:20:20:20:20:20  1     21:21:21:21:21:21:21:21  0     0    0)"},
        {"tunnel list --port 1", {Reply(14340, "14336:2=65535"), Reply(14340, "")}, "\nno tunnels"},
        // A tunnel of zeros is told from the unused part of a page by what comes behind it.
        {"tunnel list --port 0",
         {Reply(14340, "108:4=1 14336:2=65535"), Reply(14340, "14338:2=3")},
         R"(
source   port  destination  port  vpn  instance
0.0.0.0  0     0.0.0.0      0     0    0
0.0.0.0  0     0.0.0.0      0     0    1
note: 2 listed where the count, modulo 65536, is 3: the table has changed meanwhile, or has more than 65534 buckets and cannot be listed to its end, or holds a tunnel of zeros only, which a listing does not show)"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Answered(c.line, c.answers).ToText(), c.line + ": ok" + c.text);
    }
    unsetenv("TZ");
    tzset();
    // More than there is room for.
    EXPECT_EQ(Answered("verify show", {Reply(5604, "5602:2=101")}).reply["records"].size(), 100u);
    EXPECT_EQ(
        Answered("verify show", {Reply(5604, "5602:2=1")}).reply.dump(),
        R"({"records":[{"time":"1970-01-01T00:00:00+00:00","type":"type 0",)"
        R"("source":"0.0.0.0","sourcePort":0,"destination":"0.0.0.0","destinationPort":0}]})");
}

TEST(LineDecoder, ValuesAreInWordsAndTheRestStays) {
    setenv("TZ", "CET-1", 1);
    tzset();
    const std::pair<const char *, const char *> cases[] = {
        {"IP not match, ipVer 6, badIp [0x20010db8|20010db8:0:0:0], firstSrcIp "
         "[0xa000001|a000001:0:0:0]",
         "IP not match, ipVer 6, badIp [2001:db8::], firstSrcIp [10.0.0.1]"},
        {"IP not match, ipVer 4, badIp [0xe000018c|e000018c:0:0:0], firstSrcIp [0xfd|fd:0:0:1]",
         "IP not match, ipVer 4, badIp [224.0.1.140], firstSrcIp [0:fd::1]"},
        {"[LYR-HOST][CTRL CAPWAP-MSGTYPE=1][MAC=d2a9-0000-0002][SRC-IP=10.64.0.3][SRC-PORT=57320]",
         "[LYR-HOST][CTRL CAPWAP-MSGTYPE=Discovery Request (1)][MAC=d2:a9:00:00:00:02]"
         "[SRC-IP=10.64.0.3][SRC-PORT=57320]"},
        {"[dbgPkt][1][ServerResp][ip-ver:4, src-ip: a000001|a000001:0:0:0, dst-ip: "
         "a40000b|a40000b:0:0:0][time: 2026/11/23 01:38:53]",
         "[dbgPkt][tx out][ServerResp][ip-ver:4, src-ip: 10.0.0.1, dst-ip: 10.64.0.11]"
         "[time: 2026-11-23T01:38:53+01:00]"},
        {"lb key 4294967295 out of bound, svc num 4, pkt type 1",
         "lb key none out of bound, svc num 4, pkt type wapi"},
        {"recon del IPv6 tunnel: nodeId:2, srcipv6:20010db8:0:0:1, dstipv6:20010db8:0:0:fe, "
         "srcport:5",
         "recon del IPv6 tunnel: nodeId:2, srcipv6:2001:db8::1, dstipv6:2001:db8::fe, srcport:5"},
        {"recon del IPv4 tunnel: nodeId:2 srcip:0xa400063, srcport:50124, dstip:0xa000001, vpnId:0",
         "recon del IPv4 tunnel: nodeId:2 srcip:10.64.0.99, srcport:50124, dstip:10.0.0.1, "
         "vpnId:0"},
        {"recon del KA tunnel: nodeId:2, session: 112233-44556677-0-ff",
         "recon del KA tunnel: nodeId:2, session: 001122334455667700000000000000ff"},
        {"raise id=0x0F2C2004 type=1 time=2026-11-23T01:43:47.205Z weekday=1",
         "raise id=0x0F2C2004 type=1 time=2026-11-23T02:43:47.205+01:00 weekday=1"},
        {"[LYR_HOST]LyrKes_PktProc, ethType:34996",
         "[LYR_HOST]LyrKes_PktProc, ethType:0x88b4 (WAPI)"},
        {"lb key 3 out of bound, svc num 4", nullptr},
        {"CAPWAP-MSGTYPE=99999 badIp [0x1|2:0:0:0], srcip:0x1ffffffff, mac:1-2-3", nullptr},
        {"msg drop happened, dropNum=204, session: 1-2-3 ip:0x", nullptr},
        {"time=2026-99-23T01:43:47.205Z [time: 2026/1", nullptr},
    };
    for (const auto &[line, decoded] : cases) {
        EXPECT_EQ(DecodeLine(line),
                  decoded == nullptr ? std::nullopt : std::optional<std::string>(decoded))
            << line;
    }
}

}  // namespace
}  // namespace control
