#include <string_view>

#include "control/record_table.h"
#include "control/reply_format.h"
#include "control/tunnel_rows.h"
#include "control/values.h"
#include "mund/statistics_messages.h"

namespace control {
namespace {

using nlohmann::ordered_json;

uint16_t AskCount(LyrKesLbDfxReq request, const Ask &ask) {
    request.msgType = LYR_KES_LB_COUNT;
    request.index = 0;
    return AskFor<LyrKesLbDfxRsp>(ask, BytesOf(request)).entryNum;
}

ordered_json DecodeTunnel(const LyrKesLbDfxEntry &entry) {
    const bool ipv6 = entry.ipVer != 0;
    return TunnelToJson(ipv6 ? AddressText(entry.srcIpv6) : AddressText(entry.srcIp), entry.srcPort,
                        ipv6 ? AddressText(entry.dstIpv6) : AddressText(entry.dstIp), entry.dstPort,
                        entry.vpnId, entry.nodeId);
}

// Why a listing and a count may differ; empty when they do not. A count is of 16 bits.
std::string DifferenceNote(const LyrKesLbDfxReq &request, size_t listed, uint16_t count) {
    if (static_cast<uint16_t>(listed) == count) {
        return "";
    }
    const bool mayHideOne = request.tunnelPort == 0 && request.ipVer == 0;
    return std::to_string(listed) + " listed where the count, modulo 65536, is " +
           std::to_string(count) +
           ": the table has changed meanwhile, or has more than 65534 buckets and cannot be "
           "listed to its end" +
           (mayHideOne ? ", or holds a tunnel of zeros only, which a listing does not show" : "");
}

ordered_json ReadTunnelCount(const Bytes &request, const Ask &ask) {
    return {{"count", AskCount(MessageOf<LyrKesLbDfxReq>(request), ask)}};
}

std::string RenderTunnelCount(const ordered_json &reply) {
    return "tunnels: " + reply["count"].dump();
}

ordered_json ReadTunnelList(const Bytes &first, const Ask &ask) {
    const auto request = MessageOf<LyrKesLbDfxReq>(first);
    ordered_json tunnels = ordered_json::array();
    client::ForEachTunnel(
        request,
        [&](const LyrKesLbDfxReq &asked) { return AskFor<LyrKesLbDfxRsp>(ask, BytesOf(asked)); },
        [&](const LyrKesLbDfxEntry &entry) {
            tunnels.push_back(DecodeTunnel(entry));
            return true;
        });
    const uint16_t count = AskCount(request, ask);
    const std::string note = DifferenceNote(request, tunnels.size(), count);
    ordered_json reply = {{"tunnels", std::move(tunnels)}, {"count", count}};
    if (!note.empty()) {
        reply["note"] = note;
    }
    return reply;
}

}  // namespace

ordered_json TunnelToJson(std::string source, uint16_t sourcePort, std::string destination,
                          uint16_t destinationPort, uint32_t vpn, uint32_t instance) {
    return {{"source", std::move(source)},
            {"sourcePort", sourcePort},
            {"destination", std::move(destination)},
            {"destinationPort", destinationPort},
            {"vpn", vpn},
            {"instance", instance}};
}

std::string RenderTunnelList(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"source", "port", "destination",
                                              "port",   "vpn",  "instance"};
    const ordered_json &tunnels = reply["tunnels"];
    std::string text = tunnels.empty() ? "no tunnels" : RecordTable(kHeadings, tunnels);
    if (reply.contains("note")) {
        text += "\nnote: " + reply["note"].get<std::string>();
    }
    return text;
}

const ReplyFormat kTunnelCountReply = {sizeof(LyrKesLbDfxRsp), ReadTunnelCount, RenderTunnelCount};
const ReplyFormat kTunnelListReply = {sizeof(LyrKesLbDfxRsp), ReadTunnelList, RenderTunnelList};

}  // namespace control
