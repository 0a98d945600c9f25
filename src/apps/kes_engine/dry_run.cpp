#include "dry_run.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "capwap/packet_builder.h"
#include "control/values.h"
#include "dry_run_words.h"
#include "kes/channel.h"
#include "kes/hook.h"
#include "kes/interface_index.h"
#include "kes/thread.h"
#include "packet_class.h"

namespace kes_engine {
namespace {

using std::to_string;

constexpr uint16_t kEtherTypeWapi = 0x88B4;
constexpr uint32_t kOk = 0;

// What the module's lookups answer.
enum DistAnswer : uint32_t {
    kDistOk = 0,
    kDistNoSource = 2,
    kDistNoTable = 3,
    kDistBadSession = 5,
};

bool IsFromOrTo(const HostMbuf *packet, uint16_t port) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    return meta.srcPort == port || meta.dstPort == port;
}

MundIpv4TunnelKey Ipv4KeyOf(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    return {meta.srcIp, meta.dstIp, meta.srcPort, meta.dstPort, meta.vrf & 0xFFFF};
}

MundIpv6TunnelKey Ipv6KeyOf(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    MundIpv6TunnelKey key = {{}, {}, meta.srcPort, meta.dstPort, meta.vrf & 0xFFFF};
    std::memcpy(key.srcIpv6, meta.srcIp6, sizeof key.srcIpv6);
    std::memcpy(key.dstIpv6, meta.dstIp6, sizeof key.dstIpv6);
    return key;
}

// The key of the entry for tunnels that are not registered.
template <class Key>
Key DefaultKey() {
    Key key;
    std::memset(&key, 0xFF, sizeof key);
    key.dstPort = capwap::kControlPort;
    key.vpnId = 0xFFFF;
    return key;
}

// The fields that set keepalives and DTLS handshakes apart from data.
std::string HeaderText(const ModuleView &module, const HostMbuf *packet) {
    const uint8_t *header = nullptr;
    uint16_t announced = 0;
    uint16_t present = 0;
    if (module.LyrKes_GetCapwapHeader(packet, &header, &announced, &present) != kOk) {
        return "no CAPWAP header: it is cut off, or the UDP length is not the packet's";
    }
    if (present <= kContentTypeAt) {
        return "a CAPWAP header of " + to_string(present) + " bytes";
    }
    const auto flag = [&](uint8_t mask) { return (header[kFlagsAt] & mask) != 0 ? " 1" : " 0"; };
    const int preamble = header[0] & kPreambleTypeMask;
    return "CAPWAP preamble type " + to_string(preamble) + ", flags K" + flag(kFlagKeepalive) +
           " and F" + flag(kFlagFragment) +
           (preamble == kPreambleDtls ? ", DTLS content type " + to_string(header[kContentTypeAt])
                                      : "") +
           ", " + to_string(present) + " bytes";
}

MundModuleAddress DestinationOf(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    MundModuleAddress address = {};
    if (meta.protoType == HOST_PROTO_IPV6) {
        address.ipVer = 6;
        std::memcpy(address.words, meta.dstIp6, sizeof address.words);
    } else {
        address.ipVer = 4;
        address.words[0] = meta.dstIp;
    }
    return address;
}

bool SameAddress(const MundModuleAddress &a, const MundModuleAddress &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// "broadcast" or "multicast" for a destination that sources admit by interface, or null.
const char *CastOf(const MundModuleAddress &destination) {
    if (destination.ipVer == 4) {
        return destination.words[0] == INADDR_BROADCAST ? "broadcast" : nullptr;
    }
    return destination.words[0] >> 24 == 0xFF ? "multicast" : nullptr;
}

// The first source that admits what the predicate says, and its position.
template <class Admits>
std::optional<size_t> FirstSource(const Sources &sources, Admits admits) {
    const auto found = std::ranges::find_if(sources, [&](const MundSourceRecord &source) {
        return source.srcType != MUND_SOURCE_FREE && admits(source);
    });
    return found != sources.end() ? std::optional(static_cast<size_t>(found - sources.begin()))
                                  : std::nullopt;
}

// A packet's match, by the sources.
struct SourceMatch {
    bool found;
    std::string text;
};

SourceMatch MatchInterface(const Sources &sources, const std::string &cast, uint32_t interface) {
    const auto position = FirstSource(sources, [&](const MundSourceRecord &source) {
        return source.srcType == MUND_SOURCE_ANY_INTERFACE || source.ifIndex == interface;
    });
    if (!position) {
        return {false, "no source admits a " + cast + " from interface " + to_string(interface) +
                           "; " + SourcesText(sources)};
    }
    const MundSourceRecord &source = sources[*position];
    return {true, SourceText(*position, source) +
                      (source.srcType == MUND_SOURCE_ANY_INTERFACE
                           ? " admits a " + cast + " from every interface"
                           : " is on the interface where the " + cast + " comes in")};
}

SourceMatch MatchAddress(const Sources &sources, const MundModuleAddress &destination) {
    const auto position = FirstSource(sources, [&](const MundSourceRecord &source) {
        return SameAddress(source.address, destination);
    });
    if (!position) {
        return {false, "no source has the destination address " + AddressText(destination) + "; " +
                           SourcesText(sources)};
    }
    return {true,
            SourceText(*position, sources[*position]) + " has the packet's destination address"};
}

// The module looks for an instance's channel and thread when the instance is given something.
std::string WhyUnresolved(uint32_t channel, const std::string &threadName, uint32_t instance,
                          uint32_t packetType) {
    if (channel == TOV_CHANNEL_ID_NONE) {
        return "there is no such channel";
    }
    if (TOV_ThreadInfoGetByName(threadName.c_str()) == nullptr) {
        return "there is no thread " + threadName;
    }
    return (packetType == MUND_PACKET_WAPI ? "stations have not been given to instance "
                                           : "no tunnel has been registered for instance ") +
           to_string(instance) + " since it and thread " + threadName + " are there";
}

}  // namespace

DryRun::DryRun(const ModuleView &module, HostMbuf *packet) : module_(module), packet_(packet) {}

Explanation DryRun::Explain() {
    Say("packet", PacketText(packet_));
    const std::string cause = "cause action " + to_string(standin::MetaOf(packet_).causeAction);
    if (!module_.LyrKes_IsLocalPkt(packet_)) {
        Say("cause", cause + ", which the module leaves to the engine");
        Return("its cause action is excluded");
        return explanation_;
    }
    Say("cause", cause + " is not excluded");
    switch (Classify()) {
        case Class::kWapi:
            ExplainStation();
            break;
        case Class::kControl:
        case Class::kDtlsHandshake:
            ExplainTunnel();
            break;
        case Class::kKeepalive:
            ExplainSession();
            break;
        case Class::kNone:
            Return("it is of no class that the module takes");
            break;
    }
    return explanation_;
}

void DryRun::Say(const char *step, std::string text) {
    explanation_.steps.push_back({step, std::move(text)});
}

void DryRun::Return(const std::string &reason) {
    explanation_.fate = standin::Fate::kReturned;
    explanation_.result = HOST_HOOK_CONTINUE;
    explanation_.text = "returned to the engine: " + reason;
}

void DryRun::Refuse(uint32_t answer) {
    switch (answer) {
        case kDistNoSource:
            return Return("it is not for a CAPWAP source of the controller");
        case kDistNoTable:
            return Return("the table cannot be searched");
        case kDistBadSession:
            return Return("its session id cannot be read");
        default:
            return Return("the lookup answered " + to_string(answer));
    }
}

void DryRun::Undelivered(const std::string &reason) {
    explanation_.fate = standin::Fate::kUndelivered;
    explanation_.result = HOST_HOOK_DISCARD;
    explanation_.text = "undelivered: " + reason;
}

void DryRun::Taken(uint32_t instance) {
    explanation_.fate = standin::Fate::kTaken;
    explanation_.result = HOST_HOOK_TAKEN;
    explanation_.text = "taken by instance " + to_string(instance);
}

// --- class ---

DryRun::Class DryRun::Classify() {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet_);
    const std::string ports = PortsText(packet_);
    if (meta.etherType == kEtherTypeWapi) {
        Say("class", "WAPI: Ethernet type 0x88b4");
        return Class::kWapi;
    }
    if (meta.ipProtocol != IPPROTO_UDP) {
        Say("class", meta.protoType == HOST_PROTO_OTHER
                         ? "not UDP: Ethernet type 0x" + HexText(meta.etherType, 4) +
                               " and no IP header that can be read"
                         : "not UDP: IP protocol " + to_string(meta.ipProtocol));
        return Class::kNone;
    }
    if (IsFromOrTo(packet_, capwap::kControlPort)) {
        Say("class", "control: UDP ports " + ports);
        return Class::kControl;
    }
    if (IsFromOrTo(packet_, capwap::kDataPort)) {
        return ClassifyOnDataPort();
    }
    Say("class", module_.LyrKes_CheckIfFirstIpFrag(packet_) != 0
                     ? "another UDP port: " + ports
                     : "another UDP port: none to be seen in a later IP fragment");
    return Class::kNone;
}

DryRun::Class DryRun::ClassifyOnDataPort() {
    const std::string fields =
        "UDP ports " + PortsText(packet_) + ", " + HeaderText(module_, packet_);
    if (module_.LyrKes_CheckIsKaPkt(packet_) != 0) {
        Say("class", "keepalive: " + fields);
        return Class::kKeepalive;
    }
    if (module_.LyrKes_CheckIsDtlsHandShakePkt(packet_) != 0) {
        Say("class", "DTLS handshake: " + fields);
        return Class::kDtlsHandshake;
    }
    Say("class", "data: " + fields);
    return Class::kNone;
}

// --- source ---

bool DryRun::ExplainSource() {
    const MundModuleAddress destination = DestinationOf(packet_);
    const Sources sources = module_.ReadSources();
    const char *cast = CastOf(destination);
    SourceMatch match =
        cast != nullptr
            ? MatchInterface(sources, cast,
                             HostFwdIfIdx2CtrlIfIdx(standin::MetaOf(packet_).receivePort))
            : MatchAddress(sources, destination);
    Say("source", std::move(match.text));
    const bool matches = module_.LyrHost_IsPktMatchCwpSrc(packet_);
    contradicted_ |= matches != match.found;
    return matches;
}

// --- key, table, entry ---

void DryRun::ExplainTunnel() {
    if (!ExplainSource()) {
        return Refuse(kDistNoSource);
    }
    const Expected expected = HostMbufGetProtoType(packet_) == HOST_PROTO_IPV6
                                  ? ExplainTunnelLookup(module_.ipv6Tunnels, Ipv6KeyOf(packet_))
                                  : ExplainTunnelLookup(module_.ipv4Tunnels, Ipv4KeyOf(packet_));
    Distributed(module_.LyrKes_DistCwp_PktProc(packet_), expected);
}

void DryRun::ExplainSession() {
    if (!ExplainSource()) {
        return Refuse(kDistNoSource);
    }
    MundSessionKey key = {};
    if (module_.LyrKes_GetKaSessionid(packet_, key.sessionId) != kOk) {
        Say("key",
            "no session id: the CAPWAP header is not followed by a length of 22 and one whole "
            "Session ID element");
        return Refuse(kDistBadSession);
    }
    const Expected expected = ExplainLookup(module_.sessions, key);
    Distributed(module_.LyrKes_DistKa_PktProc(packet_), expected);
}

template <class Key>
DryRun::Expected DryRun::ExplainTunnelLookup(const Table<Key> &table, const Key &key) {
    const Expected expected = ExplainLookup(table, key);
    const bool unknown = expected.answer == kDistOk && expected.lbKey == HOST_LB_KEY_NONE;
    return unknown ? ExplainDefault(table) : expected;
}

template <class Key>
DryRun::Expected DryRun::ExplainLookup(const Table<Key> &table, const Key &key) {
    Say("key", KeyText(key));
    const Chain chain = module_.LookAt(table, key);
    Say("bucket", ChainText(chain));
    if (chain.position != 0) {
        Say("entry", "entry " + to_string(chain.position) +
                         " of the chain has this key, for instance " + to_string(chain.instance));
        return {kDistOk, chain.instance};
    }
    if (!chain.exists || chain.broken) {
        return {kDistNoTable, HOST_LB_KEY_NONE};
    }
    Say("entry", "no entry has this key");
    return {kDistOk, HOST_LB_KEY_NONE};
}

template <class Key>
DryRun::Expected DryRun::ExplainDefault(const Table<Key> &table) {
    const Chain chain = module_.LookAt(table, DefaultKey<Key>());
    if (chain.position == 0) {
        Say("default", "no default entry in " + ChainText(chain));
        return {kDistOk, HOST_LB_KEY_NONE};
    }
    Say("default", "the default entry in " + BucketText(chain) + " is for instance " +
                       to_string(chain.instance));
    return {kDistOk, chain.instance};
}

void DryRun::Distributed(uint32_t answer, const Expected &expected) {
    const uint32_t lbKey = HostMbufGetLbKey(packet_);
    contradicted_ |= answer != expected.answer || lbKey != expected.lbKey;
    return answer == kDistOk ? HandOver(lbKey, MUND_PACKET_CAPWAP) : Refuse(answer);
}

void DryRun::ExplainStation() {
    const uint8_t(&mac)[6] = standin::MetaOf(packet_).srcMac;
    const uint32_t hash = module_.LyrKes_DjbHashCal(mac, sizeof mac);
    const uint64_t service = module_.LyrKes_GetStaSvcInfo();
    const auto first = static_cast<uint32_t>(service);
    const auto count = static_cast<uint32_t>(service >> 32);
    const std::string station =
        "station " + control::MacText(mac) + ", hash " + to_string(hash) + "; ";
    Say("key", station + (count == 0 ? "no instance serves stations"
                                     : to_string(count) + " instances from " + to_string(first) +
                                           " on serve stations"));
    const uint32_t lbKey = module_.LyrKes_GetPidByMac(mac);
    contradicted_ |= lbKey != (count == 0 ? HOST_LB_KEY_NONE : hash % count + first);
    HandOver(lbKey, MUND_PACKET_WAPI);
}

// --- instance and channel ---

void DryRun::HandOver(uint32_t lbKey, uint32_t packetType) {
    const uint32_t last = module_.LastInstance();
    // The largest number wraps to no instances.
    if (lbKey >= last + 1) {
        Say("instance", lbKey == HOST_LB_KEY_NONE
                            ? "none: the packet has no load-balance key"
                            : "none: load-balance key " + to_string(lbKey) +
                                  " is beyond the last instance, " + to_string(last));
        return Undelivered("there is no instance for it");
    }
    Say("instance", to_string(lbKey) + " (there are 0 to " + to_string(last) + ")");
    explanation_.instance = lbKey;
    return ExplainChannel(lbKey, packetType)
               ? Taken(lbKey)
               : Undelivered("instance " + to_string(lbKey) + " has no channel to send it on");
}

bool DryRun::ExplainChannel(uint32_t instance, uint32_t packetType) {
    const std::optional<ReceiverSlot> receiver = module_.ReceiverOf(instance, packetType);
    if (!receiver) {
        Say("channel", "the module has no channels");
        return false;
    }
    const std::string name = module_.TOV_CHN_KES2LYR(packetType) + to_string(instance);
    const std::string threadName = module_.TOV_THD_KES2LYR(packetType) + to_string(instance);
    const uint32_t channel = TOV_ChannelGetIdByName(name.c_str());
    if (receiver->channel == MUND_NO_CHANNEL) {
        Say("channel",
            name + " is not resolved: " + WhyUnresolved(channel, threadName, instance, packetType));
        return false;
    }
    const bool open = channel == receiver->channel;
    Say("channel", name + " is resolved to channel " + to_string(receiver->channel) +
                       (open ? "" : ", which is closed") +
                       (receiver->threadKnown ? "; thread " + threadName + " is known"
                                              : "; no thread is known"));
    return open;
}

}  // namespace kes_engine
