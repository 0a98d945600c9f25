#include "lb/packet_lookup.h"

#include "dfx/debug_trace.h"
#include "lb/packet_key.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "packet/capwap_fields.h"
#include "packet/capwap_header.h"
#include "packet/cwp_source_match.h"
#include "packet/host_ip_addr.h"

namespace {

enum class Lookup { kFound, kUnknown, kImpossible };

// Gives the packet the key of the entry's owner.
template <class Table>
Lookup StampOwner(HostMbuf *packet, const typename Table::Key &key) {
    const uint32_t hash = lyr::HashOf(key);
    {
        const lyr::HeldForPacket<Table> table;
        LyrKesDistBucket *bucket = table.BucketOf(hash);
        if (bucket == nullptr) {
            return Lookup::kImpossible;
        }
        const lyr::Found<Table> found = lyr::Find<Table>(bucket, key);
        if (found.entry != nullptr) {
            HostMbufSetLbKey(packet, found.entry->nodeId);
            return Lookup::kFound;
        }
        if (!found.broken) {
            return Lookup::kUnknown;
        }
    }
    lyr::ReportBrokenChain(__LINE__);
    return Lookup::kImpossible;
}

// The key of the entry that names the instance for tunnels that are not registered.
template <class Key>
Key DefaultKey() {
    Key key;
    std::memset(&key, 0xFF, sizeof(key));
    key.dstPort = lyr::kCapwapControlPort;
    key.vpnId = 65535;
    return key;
}

void PrintOwner(uint32_t pid, const LyrKesDistIpv4Key &key) {
    LYR_KES_DiagPrintf("[LYR_HOST]pid:%u, srcip:0x%x, srcport:%u, dstip:0x%x, dstport:%u, vpnId:%u",
                       pid, key.srcIp, key.srcPort, key.dstIp, key.dstPort, key.vpnId);
}

void PrintOwner(uint32_t pid, const LyrKesDistIpv6Key &key) {
    LYR_KES_DiagPrintf(
        "[LYR_HOST]pid: %u, srcipv6:%x:%x:%x:%x, dstipv6:%x:%x:%x:%x, srcport:%u, dstport:%u, "
        "vpnId:%u",
        pid, LYR_WORDS_ARGS(key.srcIpv6), LYR_WORDS_ARGS(key.dstIpv6), key.srcPort, key.dstPort,
        key.vpnId);
}

void PrintOwner(uint32_t pid, const LyrKesDistKaKey &key) {
    LYR_KES_DiagPrintf("[LYR_HOST]pid:%u, session:%x-%x-%x-%x", pid, LYR_WORDS_ARGS(key.sessionId));
}

template <class Key>
void PrintIfMarked(const HostMbuf *packet, const Key &key) {
    if (HostMbufGetHostDiagSwitch(packet) != 0) {
        PrintOwner(HostMbufGetLbKey(packet), key);
    }
}

template <class Table>
void UseDefault(HostMbuf *packet) {
    StampOwner<Table>(packet, DefaultKey<typename Table::Key>());
}

template <class Table>
uint32_t LookUpTunnel(HostMbuf *packet) {
    const auto key = lyr::PacketKey(packet, lyr::Ports(packet), Table{});
    switch (StampOwner<Table>(packet, key)) {
        case Lookup::kImpossible:
            return LYR_DIST_NO_TABLE;
        case Lookup::kUnknown:
            UseDefault<Table>(packet);
            break;
        case Lookup::kFound:
            break;
    }
    PrintIfMarked(packet, key);
    return LYR_DIST_OK;
}

}  // namespace

uint32_t LyrKes_DistCwp_PktProc(HostMbuf *packet) {
    if (!LyrHost_IsPktMatchCwpSrc(packet)) {
        return LYR_DIST_SOURCE_MISMATCH;
    }
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            return LyrKes_DistIpv4_PktProc(packet);
        case HOST_PROTO_IPV6:
            return LyrKes_DistIpv6_PktProc(packet);
        default:
            return LYR_DIST_NO_TABLE;
    }
}

uint32_t LyrKes_DistIpv4_PktProc(HostMbuf *packet) {
    return LookUpTunnel<lyr::Ipv4Table>(packet);
}

uint32_t LyrKes_DistIpv6_PktProc(HostMbuf *packet) {
    return LookUpTunnel<lyr::Ipv6Table>(packet);
}

void LyrKes_DistIpv4_UseDefaultLbTable(HostMbuf *packet) {
    UseDefault<lyr::Ipv4Table>(packet);
}

void LyrKes_DistIpv6_UseDefaultLbTable(HostMbuf *packet) {
    UseDefault<lyr::Ipv6Table>(packet);
}

uint32_t LyrKes_DistKa_PktProc(HostMbuf *packet) {
    if (!LyrHost_IsPktMatchCwpSrc(packet)) {
        return LYR_DIST_SOURCE_MISMATCH;
    }
    uint32_t sessionId[4];
    if (LyrKes_GetKaSessionid(packet, sessionId) != lyr::kOk) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, packet, "KA pkt proc failed");
        return LYR_DIST_BAD_SESSION;
    }
    const LyrKesDistKaKey key = lyr::SessionKey(sessionId);
    if (StampOwner<lyr::KaTable>(packet, key) == Lookup::kImpossible) {
        return LYR_DIST_NO_TABLE;
    }
    PrintIfMarked(packet, key);
    return LYR_DIST_OK;
}
