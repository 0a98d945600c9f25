#include "packet/packet_entry.h"

#include "channel/packet_handoff.h"
#include "dfx/debug_trace.h"
#include "dfx/packet_counters.h"
#include "kes/hook.h"
#include "lb/packet_lookup.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "packet/capwap_fields.h"
#include "packet/capwap_header.h"

namespace {

constexpr uint16_t kExcludedCauseActions[] = {57, 8};
constexpr uint16_t kEtherTypeWapi = 0x88B4;

// As the counters know them; packets of no class are not counted.
enum class CapwapClass : uint32_t {
    kNone = 0,
    kControl = 1,
    kKeepalive = 2,
    kDtlsHandshake = 4,
};

// The control port comes first: a packet between the two ports is control.
CapwapClass Classify(const HostMbuf *packet) {
    const lyr::Ports ports(packet);
    if (ports.Have(lyr::kCapwapControlPort)) {
        return CapwapClass::kControl;
    }
    if (!ports.Have(lyr::kCapwapDataPort)) {
        return CapwapClass::kNone;
    }
    if (LyrKes_CheckIsKaPkt(packet)) {
        return CapwapClass::kKeepalive;
    }
    return LyrKes_CheckIsDtlsHandShakePkt(packet) ? CapwapClass::kDtlsHandshake
                                                  : CapwapClass::kNone;
}

// Prints the packet's summary line and gives the packet its load-balance key: 0, or why it cannot
// be distributed.
uint32_t Distribute(CapwapClass packetClass, HostMbuf *packet) {
    switch (packetClass) {
        case CapwapClass::kControl:
            LyrKes_DebugOutPutPkt(LYR_PKT_CONTROL, packet);
            return LyrKes_DistCwp_PktProc(packet);
        case CapwapClass::kKeepalive:
            LyrKes_DebugOutPutPkt(LYR_PKT_KEEPALIVE, packet);
            return LyrKes_DistKa_PktProc(packet);
        case CapwapClass::kDtlsHandshake:
            LyrKes_DebugOutPutPkt(LYR_PKT_DTLS_HANDSHAKE, packet);
            return LyrKes_DistCwp_PktProc(packet);
        case CapwapClass::kNone:
            break;
    }
    return lyr::kFailed;
}

}  // namespace

uint64_t LyrKes_PktProc(HostMbuf *packet) {
    if (packet == nullptr || !LyrKes_IsLocalPkt(packet)) {
        return HOST_HOOK_CONTINUE;
    }
    const uint64_t result = LyrKes_WapiPktProc(packet);
    return result != HOST_HOOK_CONTINUE ? result : LyrKes_CapwapPktProc(packet);
}

bool LyrKes_IsLocalPkt(const HostMbuf *packet) {
    const auto action = static_cast<uint16_t>(HostMbufGetCauseAction(packet));
    return action != kExcludedCauseActions[0] && action != kExcludedCauseActions[1];
}

uint64_t LyrKes_WapiPktProc(HostMbuf *packet) {
    const auto etherType = static_cast<uint16_t>(HostMbufGetEthhdrTypeorlen(packet));
    if (HostMbufGetHostDiagSwitch(packet) != 0) {
        LYR_KES_DiagPrintf("[LYR_HOST]LyrKes_PktProc, ethType:%hu", etherType);
    }
    if (etherType != kEtherTypeWapi) {
        return HOST_HOOK_CONTINUE;
    }
    return LyrKes_SendPktToLyrStaByChannel(packet) == 0 ? HOST_HOOK_TAKEN : HOST_HOOK_DISCARD;
}

uint64_t LyrKes_CapwapPktProc(HostMbuf *packet) {
    if (lyr::IpProtocol(packet) != lyr::kIpProtocolUdp) {
        return HOST_HOOK_CONTINUE;
    }
    // Read first: after a successful hand-off the packet is someone else's.
    const bool diagnose = HostMbufGetHostDiagSwitch(packet) != 0;
    uint64_t fate = HOST_HOOK_CONTINUE;
    const CapwapClass packetClass = Classify(packet);
    uint32_t result = Distribute(packetClass, packet);
    if (result == lyr::kOk) {
        result = LyrKes_SendPktToLyrSvcByChannel(packet);
        fate = result == lyr::kOk ? HOST_HOOK_TAKEN : HOST_HOOK_DISCARD;
    }
    if (diagnose) {
        LYR_KES_DiagPrintf("[LYR_HOST]capwap pkt proc pktRet %u, ret %lu", result,
                           static_cast<unsigned long>(fate));
    }
    if (packetClass != CapwapClass::kNone) {
        const auto counted = static_cast<uint32_t>(packetClass);
        LyrKes_CwpCtrlPktStatic(&counted, result);
    }
    return fate;
}
