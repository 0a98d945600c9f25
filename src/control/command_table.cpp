#include "control/command_table.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "control/input_error.h"
#include "control/message_bytes.h"
#include "control/recon_batch.h"
#include "control/reply_format.h"
#include "control/values.h"
#include "mund/messages.h"
#include "mund/statistics_messages.h"

namespace control {
namespace {

constexpr uint16_t kCapwapControlPort = 5246;
constexpr uint16_t kDefaultVpn = 0xFFFF;

template <typename Message>
Request RequestOf(const Message &message, std::optional<uint64_t> instance = std::nullopt) {
    return {BytesOf(message), instance};
}

uint32_t Number(const Arguments &arguments, std::string_view name, uint32_t max = UINT32_MAX) {
    return ParseNumber(name, arguments[name], max);
}

uint32_t NumberOr(const Arguments &arguments, std::string_view option, uint32_t absent,
                  uint32_t max = UINT32_MAX) {
    const std::string *text = arguments.Find(option);
    return text != nullptr ? ParseNumber(option, *text, max) : absent;
}

uint16_t Port(const Arguments &arguments, std::string_view name) {
    return static_cast<uint16_t>(Number(arguments, name, UINT16_MAX));
}

LyrKesCwpTunnelReq Tunnel(const Arguments &arguments, uint32_t operation) {
    const std::string &src = arguments["SRC-IP"];
    const std::string &dst = arguments["DST-IP"];
    LyrKesCwpTunnelReq request = {};
    request.operation = operation;
    request.srcAddr = ParseAddress("SRC-IP", src);
    request.dstAddr = ParseAddress("DST-IP", dst);
    if (request.srcAddr.ipVer != request.dstAddr.ipVer) {
        throw InputError("SRC-IP '" + src + "' and DST-IP '" + dst +
                         "' are not of one address family");
    }
    request.srcPort = Port(arguments, "SRC-PORT");
    request.dstPort = Port(arguments, "DST-PORT");
    request.vpnId = NumberOr(arguments, "--vpn", 0);
    return request;
}

LyrKesCwpTunnelReq TunnelOfNode(const Arguments &arguments) {
    LyrKesCwpTunnelReq request = Tunnel(arguments, LYR_KES_OPERATION_ADD);
    request.nodeId = Number(arguments, "--node");
    return request;
}

Request EncodeTunnelAdd(const Arguments &arguments) {
    const LyrKesCwpTunnelReq request = TunnelOfNode(arguments);
    return RequestOf(request, request.nodeId);
}

Request EncodeTunnelDel(const Arguments &arguments) {
    return RequestOf(Tunnel(arguments, LYR_KES_OPERATION_DELETE));
}

Request EncodeTunnelDefault(const Arguments &arguments) {
    LyrKesCwpTunnelReq request = {};
    request.operation = LYR_KES_OPERATION_ADD;
    for (LyrKesRpcIpAddr *address : {&request.srcAddr, &request.dstAddr}) {
        if (arguments.Find("--ipv6") != nullptr) {
            address->ipVer = 1;
            std::ranges::fill(address->ipv6Addr, uint16_t{UINT16_MAX});
        } else {
            address->ipv4Addr = UINT32_MAX;
        }
    }
    request.srcPort = UINT16_MAX;
    request.dstPort = kCapwapControlPort;
    request.vpnId = kDefaultVpn;
    request.nodeId = Number(arguments, "--node");
    return RequestOf(request, request.nodeId);
}

LyrKesKaTunnelReq Session(const Arguments &arguments, uint32_t operation) {
    LyrKesKaTunnelReq request = {};
    request.operation = operation;
    std::ranges::copy(ParseSessionId("HEX32", arguments["HEX32"]), request.sessionId);
    return request;
}

LyrKesKaTunnelReq SessionOfNode(const Arguments &arguments) {
    LyrKesKaTunnelReq request = Session(arguments, LYR_KES_OPERATION_ADD);
    request.nodeId = Number(arguments, "--node");
    return request;
}

Request EncodeSessionAdd(const Arguments &arguments) {
    const LyrKesKaTunnelReq request = SessionOfNode(arguments);
    return RequestOf(request, request.nodeId);
}

Request EncodeSessionDel(const Arguments &arguments) {
    return RequestOf(Session(arguments, LYR_KES_OPERATION_DELETE));
}

Request EncodeWapi(const Arguments &arguments) {
    const LyrKesWapiTunnelReq request = {.startVcpuId = Number(arguments, "START"),
                                         .instSpec = Number(arguments, "COUNT")};
    if (request.instSpec == 0) {
        return RequestOf(request);
    }
    return RequestOf(request, uint64_t{request.startVcpuId} + request.instSpec - 1);
}

template <uint32_t operation>
Request EncodeSource(const Arguments &arguments) {
    LyrKesCwpSrcReq request = {};
    request.operation = operation;
    request.source.cwpType = ParseSourceType("TYPE", arguments["TYPE"]);
    request.source.srcAddr = ParseAddress("IP", arguments["IP"]);
    request.source.srcIf = NumberOr(arguments, "--if", 0);
    return RequestOf(request);
}

// The text up to the separator, which is taken away with it.
std::string_view TakeField(std::string_view &text, char separator) {
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view field = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return field;
}

void AddSourceEntry(LyrKesCwpSrcReconReq &request, uint32_t &positionsSeen, std::string_view text) {
    const uint32_t position =
        ParseNumber("POSITION", TakeField(text, '='), LYR_KES_CWP_SRC_NUM - 1);
    if ((positionsSeen & 1u << position) != 0) {
        throw InputError("position " + std::to_string(position) + " is given twice");
    }
    positionsSeen |= 1u << position;
    LyrKesCwpSrcEntry &entry = request.entries[position];
    entry.cwpType = ParseSourceType("TYPE", TakeField(text, ','));
    entry.srcAddr = ParseAddress("IP", TakeField(text, ','));
    if (!text.empty()) {
        entry.srcIf = ParseNumber("IF", text);
    }
}

Request EncodeSourceSet(const Arguments &arguments) {
    LyrKesCwpSrcReconReq request = {};
    uint32_t positionsSeen = 0;
    for (const std::string &entry : arguments.Repeated()) {
        AddSourceEntry(request, positionsSeen, entry);
    }
    return RequestOf(request);
}

// A filter that is not given goes as the IPv6 address of all zeros, which clears the stored filter
// whole; the IPv4 one would leave the tail of an earlier IPv6 filter behind, and so match nothing.
LyrKesRpcIpAddr TraceAddress(const Arguments &arguments, std::string_view option) {
    const std::string *text = arguments.Find(option);
    LyrKesRpcIpAddr address = {};
    if (text != nullptr) {
        address = ParseAddress(option, *text);
    }
    if (IsUnspecified(address)) {
        address.ipVer = 1;
    }
    return address;
}

Request EncodeTraceSet(const Arguments &arguments) {
    LyrKesDebugTraceReq request = {};
    request.msgType = LYR_KES_TRACE_SET;
    request.debugLevel = ParseTraceLevel("--level", arguments["--level"]);
    request.srcAddr = TraceAddress(arguments, "--src");
    request.dstAddr = TraceAddress(arguments, "--dst");
    request.srcPort = NumberOr(arguments, "--sport", 0, UINT16_MAX);
    request.dstPort = NumberOr(arguments, "--dport", 0, UINT16_MAX);
    if (const std::string *type = arguments.Find("--type")) {
        request.capwapMsgType = ParseMessageType("--type", *type);
    }
    if (const std::string *mac = arguments.Find("--mac")) {
        std::ranges::copy(ParseMac("--mac", *mac), request.mac);
    }
    return RequestOf(request);
}

Request EncodeTraceClear(const Arguments &) {
    LyrKesDebugTraceReq request = {};
    request.msgType = LYR_KES_TRACE_CLEAR;
    return RequestOf(request);
}

template <uint32_t reconType>
Request EncodeAuditStep(const Arguments &arguments) {
    const uint32_t node = Number(arguments, "N");
    return RequestOf(AuditRecord(reconType, node), node);
}

Request EncodeConfirmTunnel(const Arguments &arguments) {
    const LyrKesReconRecord record = Confirmation(TunnelOfNode(arguments));
    return RequestOf(record, record.nodeId);
}

Request EncodeConfirmSession(const Arguments &arguments) {
    const LyrKesReconRecord record = Confirmation(SessionOfNode(arguments));
    return RequestOf(record, record.nodeId);
}

Request EncodeReconRun(const Arguments &arguments) {
    return ReconBatch(Number(arguments, "N"), arguments["FILE"],
                      arguments.Find("--empty") != nullptr);
}

Request EncodeVerifyShow(const Arguments &arguments) {
    LyrKesVerifyRcdGetReq request = {};
    request.listIndex = static_cast<uint8_t>(NumberOr(arguments, "--list", 0, 1));
    return RequestOf(request);
}

Request EncodeNothing(const Arguments &) {
    return {};
}

// The value of a word that switches something on, or off.
template <typename Value, typename Parse>
Value OrOff(const Arguments &arguments, std::string_view name, Value off, Parse parse) {
    const std::string &text = arguments[name];
    return text == "off" ? off : parse(name, text);
}

Request EncodeMsgTypeSelect(const Arguments &arguments) {
    return RequestOf(LyrKesCwpMsgTypeStatReq{
        .msgType = LYR_KES_MSG_TYPE_SELECT,
        .cwpMsgType = OrOff(arguments, "TYPE|off", LYR_KES_MSG_TYPE_OFF, ParseMessageType)});
}

template <uint32_t msgType>
Request EncodeMsgType(const Arguments &) {
    return RequestOf(LyrKesCwpMsgTypeStatReq{.msgType = msgType, .cwpMsgType = 0});
}

Request EncodePingSet(const Arguments &arguments) {
    return RequestOf(LyrKesCwpPingStatReq{
        .msgType = LYR_KES_PING_SET,
        .peerAddr = OrOff(arguments, "IP|off", LyrKesRpcIpAddr{}, ParseAddress)});
}

template <uint32_t msgType>
Request EncodePing(const Arguments &) {
    return RequestOf(LyrKesCwpPingStatReq{.msgType = msgType, .peerAddr = {}});
}

Request EncodeProbeShow(const Arguments &arguments) {
    return RequestOf(LyrKesCwpTraceRecordReq{.startIdx = NumberOr(arguments, "--from", 0),
                                             .msgType = LYR_KES_PROBE_GET});
}

Request EncodeProbeClear(const Arguments &) {
    return RequestOf(LyrKesCwpTraceRecordReq{.startIdx = 0, .msgType = LYR_KES_PROBE_CLEAR});
}

template <uint8_t msgType>
Request EncodeTunnelQuery(const Arguments &arguments) {
    LyrKesLbDfxReq request = {};
    request.ipVer = arguments.Find("--ipv6") != nullptr ? 1 : 0;
    request.tunnelPort = Port(arguments, "--port");
    request.msgType = msgType;
    return RequestOf(request);
}

constexpr std::string_view kQueueFailed = "no memory, or the queue of the audits is full";
constexpr std::string_view kNoReply = "no memory for the reply";
constexpr std::string_view kAddFailed =
    "no memory, or the instance is beyond the last service instance";

constexpr CommandSpec kCommands[] = {
    {.text = {.name = "tunnel add",
              .usage = "SRC-IP SRC-PORT DST-IP DST-PORT --node N [--vpn N]",
              .help = "Give a CAPWAP tunnel, seen from the access point, to a service instance.",
              .example = "10.0.0.1 12380 10.0.0.254 5246 --node 3"},
     .operation = MUND_OP_CwpTunnel,
     .encode = EncodeTunnelAdd,
     .failure = kAddFailed,
     .reply = nullptr},
    {.text = {.name = "tunnel del",
              .usage = "SRC-IP SRC-PORT DST-IP DST-PORT [--vpn N]",
              .help = "Forget a CAPWAP tunnel.",
              .example = "10.0.0.1 12380 10.0.0.254 5246"},
     .operation = MUND_OP_CwpTunnel,
     .encode = EncodeTunnelDel,
     .failure = "",
     .reply = nullptr},
    {.text = {.name = "tunnel default",
              .usage = "--node N [--ipv6]",
              .help = "Give the packets of tunnels that are not registered to a service instance.",
              .example = "--node 0"},
     .operation = MUND_OP_CwpTunnel,
     .encode = EncodeTunnelDefault,
     .failure = kAddFailed,
     .reply = nullptr},
    {.text = {.name = "tunnel count",
              .usage = "--port N [--ipv6]",
              .help =
                  "Count the IPv4 or IPv6 tunnels that have port N at either end, modulo 65536.",
              .example = "--port 5246"},
     .operation = MUND_OP_LoadBalanceDfx,
     .encode = EncodeTunnelQuery<LYR_KES_LB_COUNT>,
     .failure = kNoReply,
     .reply = &kTunnelCountReply},
    {.text = {.name = "tunnel list",
              .usage = "--port N [--ipv6]",
              .help =
                  "List the IPv4 or IPv6 tunnels that have port N at either end, and compare their "
                  "number with the count. Buckets of a table beyond the first 65534 may be out of "
                  "reach.",
              .example = "--port 5246 --ipv6"},
     .operation = MUND_OP_LoadBalanceDfx,
     .encode = EncodeTunnelQuery<LYR_KES_LB_LIST>,
     .failure = kNoReply,
     .reply = &kTunnelListReply},
    {.text = {.name = "session add",
              .usage = "HEX32 --node N",
              .help = "Give a keepalive session to a service instance, which is reached once it "
                      "has a tunnel.",
              .example = "00112233445566778899aabbccddeeff --node 3"},
     .operation = MUND_OP_KaTunnel,
     .encode = EncodeSessionAdd,
     .failure = kAddFailed,
     .reply = nullptr},
    {.text = {.name = "session del",
              .usage = "HEX32",
              .help = "Forget a keepalive session.",
              .example = "00112233445566778899aabbccddeeff"},
     .operation = MUND_OP_KaTunnel,
     .encode = EncodeSessionDel,
     .failure = "",
     .reply = nullptr},
    {.text = {.name = "wapi",
              .usage = "START COUNT",
              .help =
                  "Let COUNT service instances from START on serve stations; 0 of them: none does.",
              .example = "0 4"},
     .operation = MUND_OP_WapiTunnel,
     .encode = EncodeWapi,
     .failure = "the range is beyond the service instances",
     .reply = &kWapiReply},
    {.text =
         {.name = "source add",
          .usage = "TYPE IP [--if N]",
          .help =
              "Declare an address and interface of the controller as a CAPWAP source. It is known "
              "by "
              "its address (TYPE 1), by interface and IP version (2 and 3), or by an address that "
              "broadcasts reach on all interfaces (4).",
          .example = "1 10.0.0.254 --if 7"},
     .operation = MUND_OP_CwpSrc,
     .encode = EncodeSource<LYR_KES_OPERATION_ADD>,
     .failure = "all eight sources are in use",
     .reply = nullptr},
    {.text = {.name = "source del",
              .usage = "TYPE IP [--if N]",
              .help = "Withdraw a CAPWAP source.",
              .example = "1 10.0.0.254 --if 7"},
     .operation = MUND_OP_CwpSrc,
     .encode = EncodeSource<LYR_KES_OPERATION_DELETE>,
     .failure = "",
     .reply = nullptr},
    {.text = {.name = "source set",
              .usage = "POSITION=TYPE,IP[,IF] ...",
              .help =
                  "Replace all CAPWAP sources; positions (0 to 7) that are not named become free.",
              .example = "0=1,10.0.0.254,7 1=1,2001:db8::fe"},
     .operation = MUND_OP_CwpSrcReconciliation,
     .encode = EncodeSourceSet,
     .failure = "the sources could not be stored",
     .reply = nullptr},
    {.text = {.name = "trace set",
              .usage =
                  "--level N [--src IP] [--dst IP] [--sport N] [--dport N] [--type N] [--mac MAC]",
              .help =
                  "Trace failures (level 1), packets (2) or both (3) that pass the filters given; "
                  "filters of an earlier set are gone. A MAC address is kept, not filtered by.",
              .example = "--level 3 --src 10.0.0.1 --type discovery-request"},
     .operation = MUND_OP_DebugTraceSet,
     .encode = EncodeTraceSet,
     .failure = "",
     .reply = nullptr},
    {.text = {.name = "trace clear",
              .usage = "",
              .help = "Switch the trace off and forget its filters.",
              .example = ""},
     .operation = MUND_OP_DebugTraceSet,
     .encode = EncodeTraceClear,
     .failure = "",
     .reply = nullptr},
    {.text =
         {.name = "recon begin",
          .usage = "N",
          .help =
              "Open an audit of instance N. Steps of audits are queued and done in order; results "
              "tell of the queue, the log and 'verify show' of what came of them.",
          .example = "3"},
     .operation = MUND_OP_Reconciliation,
     .encode = EncodeAuditStep<LYR_KES_RECON_BEGIN>,
     .failure = kQueueFailed,
     .reply = nullptr},
    {.text = {.name = "recon confirm tunnel",
              .usage = "SRC-IP SRC-PORT DST-IP DST-PORT --node N [--vpn N]",
              .help = "Confirm a tunnel of an instance whose audit is open.",
              .example = "10.0.0.1 12380 10.0.0.254 5246 --node 3"},
     .operation = MUND_OP_Reconciliation,
     .encode = EncodeConfirmTunnel,
     .failure = kQueueFailed,
     .reply = nullptr},
    {.text = {.name = "recon confirm session",
              .usage = "HEX32 --node N",
              .help = "Confirm a keepalive session of an instance whose audit is open.",
              .example = "00112233445566778899aabbccddeeff --node 3"},
     .operation = MUND_OP_Reconciliation,
     .encode = EncodeConfirmSession,
     .failure = kQueueFailed,
     .reply = nullptr},
    {.text = {.name = "recon finish",
              .usage = "N",
              .help =
                  "Close the audit of instance N: its tunnels and sessions not confirmed are gone.",
              .example = "3"},
     .operation = MUND_OP_Reconciliation,
     .encode = EncodeAuditStep<LYR_KES_RECON_FINISH>,
     .failure = kQueueFailed,
     .reply = nullptr},
    {.text =
         {.name = "recon run",
          .usage = "N FILE [--empty]",
          .help =
              "Audit instance N against a command file, in one batch: what its 'tunnel add', "
              "'tunnel default' and 'session add' lines give to N is confirmed, all else that N "
              "has is gone. Lines for other instances are left out, other commands ignored. A file "
              "that gives N nothing needs --empty: then N loses all that it has.",
          .example = "3 site.commands"},
     .operation = MUND_OP_BatchReconciliation,
     .encode = EncodeReconRun,
     .failure = kQueueFailed,
     .reply = nullptr},
    {.text =
         {.name = "verify show",
          .usage = "[--list 0|1]",
          .help =
              "List the tunnels, not sessions, that audits have removed: 100 at most, the newest "
              "first. List 1 is spare.",
          .example = "--list 0"},
     .operation = MUND_OP_VerifyRcdGet,
     .encode = EncodeVerifyShow,
     .failure = kNoReply,
     .reply = &kVerifyReply},
    {.text = {.name = "verify clear",
              .usage = "",
              .help = "Forget which tunnels audits have removed.",
              .example = ""},
     .operation = MUND_OP_VerifyRcdReset,
     .encode = EncodeNothing,
     .failure = "",
     .reply = nullptr},
    {.text =
         {.name = "stats show",
          .usage = "",
          .help =
              "Tell how many control packets, keepalives and DTLS handshakes came, and what became "
              "of them.",
          .example = ""},
     .operation = MUND_OP_GetPktStatistics,
     .encode = EncodeNothing,
     .failure = kNoReply,
     .reply = &kPktStatsReply},
    {.text = {.name = "stats reset",
              .usage = "",
              .help = "Set the counters of 'stats show' to zero.",
              .example = ""},
     .operation = MUND_OP_ResetPktStatistics,
     .encode = EncodeNothing,
     .failure = kNoReply,
     .reply = &kPktStatsResetReply},
    {.text =
         {.name = "msgtype select",
          .usage = "TYPE|off",
          .help =
              "Count the messages of a CAPWAP type, a number or a name, and of the type above it, "
              "which is a request's response; the counters start from zero. Off: count none.",
          .example = "echo-request"},
     .operation = MUND_OP_CwpMsgTypeStat,
     .encode = EncodeMsgTypeSelect,
     .failure = kNoReply,
     .reply = &kMsgTypeDoneReply},
    {.text = {.name = "msgtype show",
              .usage = "",
              .help = "Tell how many of these messages each service instance was handed, and how "
                      "many failed.",
              .example = ""},
     .operation = MUND_OP_CwpMsgTypeStat,
     .encode = EncodeMsgType<LYR_KES_MSG_TYPE_GET>,
     .failure = kNoReply,
     .reply = &kMsgTypeStatsReply},
    {.text = {.name = "msgtype reset",
              .usage = "",
              .help = "Set these counters to zero; the type stays selected.",
              .example = ""},
     .operation = MUND_OP_CwpMsgTypeStat,
     .encode = EncodeMsgType<LYR_KES_MSG_TYPE_RESET>,
     .failure = kNoReply,
     .reply = &kMsgTypeDoneReply},
    {.text =
         {.name = "ping set",
          .usage = "IP|off",
          .help =
              "Count the CAPWAP pings to and from a peer; the counters start from zero. Off: count "
              "none.",
          .example = "10.0.0.1"},
     .operation = MUND_OP_CwpPingStat,
     .encode = EncodePingSet,
     .failure = kNoReply,
     .reply = &kPingDoneReply},
    {.text = {.name = "ping show",
              .usage = "",
              .help =
                  "Tell how many pings passed each point of the packet path, how many of them were "
                  "CAPWAP fragments, and the bytes of their payloads.",
              .example = ""},
     .operation = MUND_OP_CwpPingStat,
     .encode = EncodePing<LYR_KES_PING_GET>,
     .failure = kNoReply,
     .reply = &kPingStatsReply},
    {.text = {.name = "ping reset",
              .usage = "",
              .help = "Set the ping counters to zero; the peer stays.",
              .example = ""},
     .operation = MUND_OP_CwpPingStat,
     .encode = EncodePing<LYR_KES_PING_RESET>,
     .failure = kNoReply,
     .reply = &kPingDoneReply},
    {.text =
         {.name = "probe show",
          .usage = "[--from N]",
          .help =
              "List the sightings of CAPWAP probes and traced packets: the last 2048, the oldest "
              "first, from position N on.",
          .example = "--from 256"},
     .operation = MUND_OP_CwpTraceRecord,
     .encode = EncodeProbeShow,
     .failure = kNoReply,
     .reply = &kProbesReply},
    {.text = {.name = "probe clear",
              .usage = "",
              .help = "Forget the sightings of probes.",
              .example = ""},
     .operation = MUND_OP_CwpTraceRecord,
     .encode = EncodeProbeClear,
     .failure = kNoReply,
     .reply = &kProbesClearedReply},
};

}  // namespace

std::span<const CommandSpec> Commands() {
    return kCommands;
}

const CommandSet &Operations() {
    static const CommandSet operations = [] {
        std::vector<const CommandText *> texts;
        std::ranges::transform(kCommands, std::back_inserter(texts),
                               [](const CommandSpec &spec) { return &spec.text; });
        return CommandSet("", texts);
    }();
    return operations;
}

const CommandSpec *FindSpec(const CommandText &text) {
    const auto *spec = std::ranges::find(
        kCommands, &text, [](const CommandSpec &candidate) { return &candidate.text; });
    return spec == std::end(kCommands) ? nullptr : spec;
}

}  // namespace control
