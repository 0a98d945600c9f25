#include "packet/cwp_source_match.h"

#include "dfx/debug_trace.h"
#include "kes/interface_index.h"
#include "module/diag_log.h"
#include "packet/cwp_source_reader.h"
#include "packet/packet_address.h"

namespace {

constexpr uint32_t kIpv4Broadcast = 0xFFFFFFFF;
constexpr uint32_t kIpv6MulticastTop = 0xFF;  // ff00::/8

// Whether a position is admitted, on an unchanged table.
template <class Admits>
bool AnySource(Admits admits) {
    return lyr::ReadCwpSources([&] {
        for (size_t i = 0; i < LYR_KES_CWP_SRC_NUM; ++i) {
            if (admits(i)) {
                return true;
            }
        }
        return false;
    });
}

CwpSrcRcd FirstSource() {
    return lyr::ReadCwpSources([] { return lyr::LoadCwpSource(0); });
}

// A refusal goes to the debug trace and, for a packet marked for diagnosis, to the print.
#define REPORT_REFUSAL(packet, format, ...)                                       \
    do {                                                                          \
        LyrKesDebugTrace(LYR_TRACE_FAILURE, true, (packet), format, __VA_ARGS__); \
        if (HostMbufGetHostDiagSwitch(packet) != 0) {                             \
            LYR_KES_DiagPrintf("[LYR_HOST]" format, __VA_ARGS__);                 \
        }                                                                         \
    } while (false)

bool MatchReceiveInterface(const HostMbuf *packet) {
    const uint32_t receivePort = HostMbufGetReceivePortIndex(packet);
    const uint32_t ifIndex = HostFwdIfIdx2CtrlIfIdx(receivePort);
    if (LyrHost_IsRecvIfMatchCwpSrcRecord(ifIndex)) {
        return true;
    }
    const CwpSrcRcd first = FirstSource();
    REPORT_REFUSAL(packet, "Recv ifIndex not match, badIf [%u-%u] firstSrcIf %u", receivePort,
                   ifIndex, first.ifIndex);
    return false;
}

bool MatchAddress(const HostMbuf *packet, const HostIpAddr &destination) {
    if (LyrHost_IsDstIpMatchCwpSrcRecord(&destination)) {
        return true;
    }
    const CwpSrcRcd first = FirstSource();
    REPORT_REFUSAL(packet,
                   "IP not match, ipVer %u, badIp [0x%x|%x:%x:%x:%x], firstSrcIp "
                   "[0x%x|%x:%x:%x:%x]",
                   destination.ipVer, destination.ip[0], LYR_WORDS_ARGS(destination.ip),
                   first.address.ip[0], LYR_WORDS_ARGS(first.address.ip));
    return false;
}

}  // namespace

bool LyrHost_IsPktMatchCwpSrc(const HostMbuf *packet) {
    const uint8_t ipVersion = lyr::IpVersionOf(packet);
    if (ipVersion == 0) {
        return false;
    }
    const HostIpAddr destination = lyr::AddressOf(packet, lyr::PacketEnd::kDestination, ipVersion);
    const bool broadcast = ipVersion == lyr::kIpVersion4
                               ? destination.ip[0] == kIpv4Broadcast
                               : destination.ip[0] >> 24 == kIpv6MulticastTop;
    return broadcast ? MatchReceiveInterface(packet) : MatchAddress(packet, destination);
}

bool LyrHost_IsRecvIfMatchCwpSrcRecord(uint32_t ifIndex) {
    return AnySource([ifIndex](size_t position) {
        const CwpSrcRcd &record = g_LyrHostCwpSrcRcd[position];
        const uint32_t type = lyr::LoadAcquire(record.srcType);
        return type == CWP_SRC_ANY_IF ||
               (type != CWP_SRC_FREE && lyr::LoadAcquire(record.ifIndex) == ifIndex);
    });
}

bool LyrHost_IsDstIpMatchCwpSrcRecord(const HostIpAddr *address) {
    return AnySource([address](size_t position) { return lyr::CwpSourceHas(position, *address); });
}
