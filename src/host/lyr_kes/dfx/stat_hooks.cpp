#include "dfx/stat_hooks.h"

#include "dfx/hook_kind.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "dfx/vendor_message.h"
#include "kes/hook.h"
#include "lb/look_ahead.h"
#include "module/hook_registration.h"
#include "packet/capwap_fields.h"
#include "packet/capwap_header.h"

namespace {

// Why the engine brings up a packet that it has recognised as a probe itself.
constexpr uint16_t kCauseProbeRequest = 1769;
constexpr uint16_t kCauseProbeResponse = 1770;

struct StatHook {
    uint32_t point;
    HostHookFunc hook;
    const char *failure;
};

// By hook kind.
constexpr StatHook kStatHooks[] = {
    {HOST_HOOK_TX_IN, LyrKes_CwpStatTxInProc, "register kes hook(KES TXIN)failed, ret=%lx."},
    {HOST_HOOK_TX_OUT, LyrKes_CwpStatTxOutProc, "register kes hook(KES TXOUT)failed, ret=%lx."},
    {HOST_HOOK_RX_IN, LyrKes_CwpStatRxInProc, "register kes hook(KES RXIN)failed, ret=%lx."},
    {HOST_HOOK_RX_OUT, LyrKes_CwpStatRxOutProc, "register kes hook(KES RXOUT)failed, ret=%lx."},
};

uint64_t LookAtTransmitted(HostMbuf *packet, uint32_t hookKind) {
    if (packet == nullptr) {
        return HOST_HOOK_DISCARD;
    }
    LyrKes_ParseCheckCwpType(packet, hookKind);
    return HOST_HOOK_CONTINUE;
}

uint64_t LookAtReceived(HostMbuf *packet, uint32_t hookKind) {
    if (packet == nullptr) {
        return HOST_HOOK_DISCARD;
    }
    switch (static_cast<uint16_t>(HostMbufGetCauseId(packet))) {
        case kCauseProbeRequest:
            LyrKes_CwpProbeTraceProc(packet, hookKind, lyr::kProbeRequest);
            break;
        case kCauseProbeResponse:
            LyrKes_CwpProbeTraceProc(packet, hookKind, lyr::kProbeResponse);
            break;
        default:
            if (lyr::IsPingPeerSet() && LyrKes_CheckCwpPingStatConfig(packet, hookKind)) {
                LyrKes_ParseCheckCwpType(packet, hookKind);
            }
            break;
    }
    return HOST_HOOK_CONTINUE;
}

// Counts one of the peer's pings; false for one that is too short to be one.
bool CountPing(HostMbuf *packet, uint32_t hookKind, const uint8_t *header, uint16_t payloadLength) {
    const auto pingLength = static_cast<uint16_t>(payloadLength - lyr::CapwapHeaderLength(header));
    if (LyrKes_CwpPingStatProc(hookKind, pingLength, header[3] & lyr::kCapwapFlagFragment) != 0) {
        return false;
    }
    HostMbufSetNeedStat(packet, 1);
    return true;
}

}  // namespace

void LyrKes_RegCwpStatTrace() {
    for (const StatHook &statHook : kStatHooks) {
        lyr::RegisterHook(statHook.point, statHook.hook, statHook.failure);
    }
}

void LyrKes_UnRegCwpStatTrace() {
    for (const StatHook &statHook : kStatHooks) {
        lyr::UnregisterHook(statHook.point, statHook.hook);
    }
}

uint64_t LyrKes_CwpStatTxInProc(HostMbuf *packet) {
    return LookAtTransmitted(packet, KES_HOOK_TXIN);
}

uint64_t LyrKes_CwpStatTxOutProc(HostMbuf *packet) {
    return LookAtTransmitted(packet, KES_HOOK_TXOUT);
}

uint64_t LyrKes_CwpStatRxInProc(HostMbuf *packet) {
    if (packet != nullptr) {
        lyr::FetchBucket(packet);
    }
    return LookAtReceived(packet, KES_HOOK_RXIN);
}

uint64_t LyrKes_CwpStatRxOutProc(HostMbuf *packet) {
    lyr::FetchEntries();
    return LookAtReceived(packet, KES_HOOK_RXOUT);
}

uint64_t LyrKes_ParseCheckCwpType(HostMbuf *packet, uint32_t hookKind) {
    const uint8_t *header;
    uint16_t payloadLength;
    uint16_t present;
    if (lyr::IpProtocol(packet) != lyr::kIpProtocolUdp ||
        !lyr::Ports(packet).Have(lyr::kCapwapControlPort) ||
        LyrKes_CheckIfFirstIpFrag(packet) == 0 ||
        LyrKes_GetCapwapHdr(packet, &header, &payloadLength, &present) != 0) {
        return HOST_HOOK_CONTINUE;
    }
    // A header of no byte has no length to read.
    if (present < lyr::kCapwapFlagBytes ||
        present < lyr::CapwapHeaderLength(header) + lyr::kMessageTypeLength) {
        return HOST_HOOK_DISCARD;
    }
    const uint32_t messageType = lyr::ReadBe32(header + lyr::CapwapHeaderLength(header));
    if (lyr::IsPing(messageType) && LyrKes_CheckCwpPingStatConfig(packet, hookKind) &&
        !CountPing(packet, hookKind, header, payloadLength)) {
        return HOST_HOOK_DISCARD;
    }
    if (lyr::IsProbe(messageType) || HostMbufGetNeedTrace(packet) != 0) {
        LyrKes_CwpProbeTraceProc(packet, hookKind, messageType);
        HostMbufSetNeedTrace(packet, 1);
    }
    return HOST_HOOK_CONTINUE;
}
