#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>

#include "control/record_table.h"
#include "control/reply_format.h"
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
    return {{"source", ipv6 ? AddressText(entry.srcIpv6) : AddressText(entry.srcIp)},
            {"sourcePort", entry.srcPort},
            {"destination", ipv6 ? AddressText(entry.dstIpv6) : AddressText(entry.dstIp)},
            {"destinationPort", entry.dstPort},
            {"vpn", entry.vpnId},
            {"instance", entry.nodeId}};
}

// The entries in use, which are written from the front of a page: the rest of it is zero. Only a
// tunnel that is itself of zeros, at the end of a page, is taken for a part of that rest.
std::span<const LyrKesLbDfxEntry> Used(const LyrKesLbDfxRsp &page) {
    static constexpr LyrKesLbDfxEntry kUnused = {};
    static_assert(std::has_unique_object_representations_v<LyrKesLbDfxEntry>);
    size_t count = std::size(page.entries);
    while (count > 0 && std::memcmp(&page.entries[count - 1], &kUnused, sizeof kUnused) == 0) {
        --count;
    }
    return std::span(page.entries).first(count);
}

void CheckPort(const LyrKesLbDfxEntry &entry, uint16_t port) {
    if (entry.srcPort != port && entry.dstPort != port) {
        throw ReplyError("the listing of port " + std::to_string(port) + " has a tunnel of ports " +
                         std::to_string(entry.srcPort) + " and " + std::to_string(entry.dstPort));
    }
}

// The index that the next page starts at; none behind the last page.
std::optional<uint16_t> IndexBehind(uint16_t index, const LyrKesLbDfxRsp &page) {
    if (page.nextIndex == LYR_KES_LB_END) {
        return std::nullopt;
    }
    // The reply names one more than the bucket that comes next.
    if (page.nextIndex <= index + 1) {
        throw ReplyError("the listing does not move on: next index " +
                         std::to_string(page.nextIndex) + " in the reply for index " +
                         std::to_string(index));
    }
    return static_cast<uint16_t>(page.nextIndex - 1);
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
    auto request = MessageOf<LyrKesLbDfxReq>(first);
    ordered_json tunnels = ordered_json::array();
    for (std::optional<uint16_t> index = request.index; index;) {
        request.index = *index;
        const auto page = AskFor<LyrKesLbDfxRsp>(ask, BytesOf(request));
        for (const LyrKesLbDfxEntry &entry : Used(page)) {
            CheckPort(entry, request.tunnelPort);
            tunnels.push_back(DecodeTunnel(entry));
        }
        index = IndexBehind(request.index, page);
    }
    const uint16_t count = AskCount(request, ask);
    const std::string note = DifferenceNote(request, tunnels.size(), count);
    ordered_json reply = {{"tunnels", std::move(tunnels)}, {"count", count}};
    if (!note.empty()) {
        reply["note"] = note;
    }
    return reply;
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

}  // namespace

const ReplyFormat kTunnelCountReply = {sizeof(LyrKesLbDfxRsp), ReadTunnelCount, RenderTunnelCount};
const ReplyFormat kTunnelListReply = {sizeof(LyrKesLbDfxRsp), ReadTunnelList, RenderTunnelList};

}  // namespace control
