#include "frame_rules.h"

#include <netinet/in.h>

#include <algorithm>

namespace kes_engine {
namespace {

bool IsFrom(const standin::HostMbufMeta &frame, const LyrKesRpcIpAddr &address) {
    if (address.ipVer == 0) {
        return frame.protoType == HOST_PROTO_IPV4 && frame.srcIp == address.ipv4Addr;
    }
    const auto word = [&](size_t i) {
        return uint32_t{address.ipv6Addr[2 * i]} << 16 | address.ipv6Addr[2 * i + 1];
    };
    const uint32_t words[] = {word(0), word(1), word(2), word(3)};
    return frame.protoType == HOST_PROTO_IPV6 && std::ranges::equal(frame.srcIp6, words);
}

bool Covers(const CauseRule &rule, const standin::HostMbufMeta &frame) {
    if (const auto *address = std::get_if<LyrKesRpcIpAddr>(&rule.source)) {
        return frame.ipProtocol == IPPROTO_UDP && IsFrom(frame, *address);
    }
    return frame.hasMacs && std::ranges::equal(frame.srcMac, std::get<Mac>(rule.source));
}

}  // namespace

void FrameRules::Apply(standin::HostMbufMeta &frame) const {
    frame.transmitted = std::ranges::any_of(
        local, [&](const LyrKesRpcIpAddr &address) { return IsFrom(frame, address); });
    const auto rule =
        std::ranges::find_if(causes, [&](const CauseRule &cause) { return Covers(cause, frame); });
    if (!frame.transmitted && rule != causes.end()) {
        frame.causeId = rule->causeId;
    }
}

}  // namespace kes_engine
