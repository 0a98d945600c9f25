#include "control/reply_format.h"

#include <algorithm>

#include "control/record_table.h"
#include "control/values.h"
#include "mund/reconciliation_messages.h"

namespace control {
namespace {

// The reply repeats the result, and is told with a failing one too.
nlohmann::ordered_json ReadWapi(const Bytes &request, const Ask &ask) {
    const Answer answer = ask(request);
    if (answer.reply.empty()) {
        return nullptr;
    }
    const auto reply = MessageOf<LyrKesWapiTunnelRsp>(answer.reply);
    return {{"accepted", reply.result == MUND_RESULT_OK}};
}

std::string ExceptionTypeText(uint8_t type) {
    constexpr uint8_t kNotConfirmed = 1;
    return type == kNotConfirmed ? "not confirmed" : "type " + std::to_string(type);
}

nlohmann::ordered_json DecodeVerifyRecord(const LyrKesVerifyRcd &record) {
    const LyrKesVerifyTunnel &tunnel = record.tunnel;
    const bool ipv6 = tunnel.ipVer != 0;
    return {{"time", TimeText(record.time)},
            {"type", ExceptionTypeText(record.excptType)},
            {"source", ipv6 ? AddressText(tunnel.srcIpv6) : AddressText(tunnel.srcIpv4)},
            {"sourcePort", tunnel.srcPort},
            {"destination", ipv6 ? AddressText(tunnel.dstIpv6) : AddressText(tunnel.dstIpv4)},
            {"destinationPort", tunnel.dstPort}};
}

nlohmann::ordered_json ReadVerify(const Bytes &request, const Ask &ask) {
    const auto reply = AskFor<LyrKesVerifyRcdGetRsp>(ask, request);
    const size_t count = std::min<size_t>(reply.rcdNum, LYR_KES_VERIFY_RCD_NUM);
    nlohmann::ordered_json records = nlohmann::ordered_json::array();
    for (const LyrKesVerifyRcd &record : std::span(reply.records).first(count)) {
        records.push_back(DecodeVerifyRecord(record));
    }
    return {{"records", std::move(records)}};
}

std::string RenderVerify(const nlohmann::ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"time", "type",        "source",
                                              "port", "destination", "port"};
    const nlohmann::ordered_json &records = reply["records"];
    return records.empty() ? "no tunnels" : RecordTable(kHeadings, records);
}

}  // namespace

const ReplyFormat kWapiReply = {sizeof(LyrKesWapiTunnelRsp), ReadWapi, nullptr};
const ReplyFormat kVerifyReply = {sizeof(LyrKesVerifyRcdGetRsp), ReadVerify, RenderVerify};

}  // namespace control
