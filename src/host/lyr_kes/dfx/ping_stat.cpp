#include "dfx/ping_stat.h"

#include "dfx/debug_trace.h"
#include "dfx/hook_kind.h"
#include "module/sequence_lock.h"
#include "module/spin_guard.h"
#include "module/status.h"

LyrKesCwpPingStat g_LyrHostCwpPingStat;

namespace {

using lyr::kFailed;
using lyr::kOk;

constexpr uint32_t kPingHeaderLength = 36;

LyrKesCwpPingStat &stat = g_LyrHostCwpPingStat;

// Operations may run on several threads: one of them at a time sets the peer, which packets read
// whole.
std::atomic_flag writing;
lyr::SequenceLock peerLock;

bool IsZero(const HostIpAddr &address) {
    return (address.ip[0] | address.ip[1] | address.ip[2] | address.ip[3]) == 0;
}

bool HasIpVersion(const HostIpAddr &address) {
    return address.ipVer == lyr::kIpVersion4 || address.ipVer == lyr::kIpVersion6;
}

void StorePeer(const HostIpAddr &peer) {
    peerLock.Apply([&peer] { lyr::StoreWords(stat.pingAddr, peer); });
}

// With the writers' flag.
void Forget() {
    lyr::StoreRelaxed(stat.pingEnable, uint8_t{0});
    StorePeer(HostIpAddr{});
    LyrKes_ResetCwpPingStat();
}

}  // namespace

bool LyrKes_CheckCwpPingStatConfig(const HostMbuf *packet, uint32_t hookKind) {
    if (!lyr::IsPingPeerSet()) {
        return false;
    }
    // A packet that meets a change of the peer is nobody's.
    HostIpAddr peer = {};
    return peerLock.TryRead([&peer] { peer = lyr::LoadWords(stat.pingAddr); }) &&
           HasIpVersion(peer) &&
           lyr::SameAddress(lyr::AddressOf(packet, lyr::PeerEnd(hookKind), peer.ipVer), peer);
}

uint32_t LyrKes_CwpPingStatProc(uint32_t hookKind, uint16_t pingLength, uint32_t fragment) {
    if (pingLength < kPingHeaderLength) {
        LyrKesDebugTrace(LYR_TRACE_FAILURE, false, nullptr,
                         "kes probe trace len parse fail, type:%u, pktLen:%u, cwpPingHeadTotal:%u",
                         hookKind, pingLength, kPingHeaderLength);
        return kFailed;
    }
    const uint32_t payloadBytes = pingLength - kPingHeaderLength;
    LyrKes_CalCwpPingStatByType(hookKind, fragment, payloadBytes);
    if (hookKind == KES_HOOK_RXOUT) {
        LyrKes_CalCwpPingStatByType(KES_HOOK_RXIN, fragment, payloadBytes);
    }
    return kOk;
}

void LyrKes_CalCwpPingStatByType(uint32_t hookKind, uint32_t fragment, uint32_t payloadBytes) {
    LyrKesCwpPingCounter *counter = LyrKes_GetCwpPingStatByType(hookKind);
    if (counter == nullptr) {
        return;
    }
    lyr::CountOne(counter->pktCnt);
    if (fragment != 0) {
        lyr::CountOne(counter->fragCnt);
    }
    lyr::CountBy(counter->byteCnt, uint64_t{payloadBytes});
}

void LyrKes_UpdateCwpPingConfig(bool ipv4, uint32_t ipv4Addr, const uint16_t *ipv6Groups) {
    const lyr::SpinGuard lock(writing);
    Forget();
    HostIpAddr peer = {};
    if (ipv4) {
        peer.ipVer = lyr::kIpVersion4;
        peer.ip[0] = ipv4Addr;
    } else {
        peer.ipVer = lyr::kIpVersion6;
        lyr::GroupsToWords(ipv6Groups, peer.ip);
    }
    if (!IsZero(peer)) {
        StorePeer(peer);
        lyr::StoreRelease(stat.pingEnable, uint8_t{1});
    }
}

void LyrKes_ResetCwpPingStat() {
    for (LyrKesCwpPingCounter &counter : stat.counters) {
        lyr::StoreRelaxed(counter.pktCnt, uint64_t{0});
        lyr::StoreRelaxed(counter.fragCnt, uint64_t{0});
        lyr::StoreRelaxed(counter.byteCnt, uint64_t{0});
    }
}

void LyrKes_InitCwpPingStat() {
    const lyr::SpinGuard lock(writing);
    Forget();
}

LyrKesCwpPingStat *LyrKes_GetCwpPingStatConfig() {
    return &g_LyrHostCwpPingStat;
}

LyrKesCwpPingCounter *LyrKes_GetCwpPingStatByType(uint32_t hookKind) {
    return hookKind < KES_HOOK_NUM ? &stat.counters[hookKind] : nullptr;
}

uint32_t LyrKes_CwpPingGetStat(LyrKesCwpPingStatRsp *reply) {
    for (uint32_t kind = 0; kind < KES_HOOK_NUM; ++kind) {
        const LyrKesCwpPingCounter &counter = stat.counters[kind];
        reply->counts[kind] = {
            .pktCnt = static_cast<uint32_t>(lyr::LoadRelaxed(counter.pktCnt)),
            .fragCnt = static_cast<uint32_t>(lyr::LoadRelaxed(counter.fragCnt)),
            .byteCnt = static_cast<uint32_t>(lyr::LoadRelaxed(counter.byteCnt)),
        };
    }
    return kOk;
}
