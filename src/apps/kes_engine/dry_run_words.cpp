#include "dry_run_words.h"

#include <cstdio>

#include "capwap/describe.h"
#include "control/values.h"
#include "kes/interface_index.h"
#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

using std::to_string;

// From whom to whom, as far as the frame tells; begins with a space.
std::string EndsText(const standin::HostMbufMeta &meta) {
    const auto ends = [](const std::string &src, const std::string &dst) {
        return " from " + src + " to " + dst;
    };
    switch (meta.protoType) {
        case HOST_PROTO_IPV4:
            return ends(control::AddressText(meta.srcIp), control::AddressText(meta.dstIp));
        case HOST_PROTO_IPV6:
            return ends(control::AddressText(meta.srcIp6), control::AddressText(meta.dstIp6));
        default:
            return meta.hasMacs ? ends(control::MacText(meta.srcMac), control::MacText(meta.dstMac))
                                : "";
    }
}

std::string TunnelText(const std::string &src, uint16_t srcPort, const std::string &dst,
                       uint16_t dstPort, uint32_t vpn) {
    return "tunnel " + src + ":" + to_string(srcPort) + " -> " + dst + ":" + to_string(dstPort) +
           ", VPN " + to_string(vpn);
}

}  // namespace

std::string HexText(uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "%0*x", digits, value);
    return text;
}

std::string PacketText(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    return capwap::Describe(standin::FrameAsReceived(packet)) + ", " + to_string(meta.frameLength) +
           " bytes" + EndsText(meta) + ", in on port " + to_string(meta.receivePort) +
           " (interface " + to_string(HostFwdIfIdx2CtrlIfIdx(meta.receivePort)) + "), VRF " +
           to_string(meta.vrf);
}

std::string PortsText(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    return to_string(meta.srcPort) + " -> " + to_string(meta.dstPort);
}

std::string AddressText(const MundModuleAddress &address) {
    return address.ipVer == 6 ? control::AddressText(address.words)
                              : control::AddressText(address.words[0]);
}

std::string SourceText(size_t position, const MundSourceRecord &source) {
    return "source " + to_string(position) + " (type " + to_string(source.srcType) + ", " +
           AddressText(source.address) + ", interface " + to_string(source.ifIndex) + ")";
}

std::string SourcesText(const Sources &sources) {
    std::string text;
    for (size_t i = 0; i < sources.size(); ++i) {
        if (sources[i].srcType != MUND_SOURCE_FREE) {
            text += (text.empty() ? "there is " : ", ") + SourceText(i, sources[i]);
        }
    }
    return text.empty() ? "no source is declared" : text;
}

std::string KeyText(const MundIpv4TunnelKey &key) {
    return TunnelText(control::AddressText(key.srcIp), key.srcPort, control::AddressText(key.dstIp),
                      key.dstPort, key.vpnId);
}

std::string KeyText(const MundIpv6TunnelKey &key) {
    return TunnelText("[" + control::AddressText(key.srcIpv6) + "]", key.srcPort,
                      "[" + control::AddressText(key.dstIpv6) + "]", key.dstPort, key.vpnId);
}

std::string KeyText(const MundSessionKey &key) {
    std::string text = "session ";
    for (const uint32_t word : key.sessionId) {
        text += HexText(word, 8);
    }
    return text;
}

std::string BucketText(const Chain &chain) {
    return "bucket " + to_string(chain.bucket) + " of " + to_string(chain.buckets);
}

std::string ChainText(const Chain &chain) {
    if (!chain.exists) {
        return BucketText(chain) + ", but the table does not exist";
    }
    return BucketText(chain) + ", a chain of " + to_string(chain.entries) +
           (chain.entries == 1 ? " entry" : " entries") + (chain.broken ? " that is broken" : "");
}

}  // namespace kes_engine
