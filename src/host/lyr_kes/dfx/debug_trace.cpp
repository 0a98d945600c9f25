#include "dfx/debug_trace.h"

#include <arpa/inet.h>

#include <cstdarg>

#include "kes/bounded.h"
#include "module/diag_log.h"
#include "module/shared_word.h"
#include "packet/capwap_header.h"
#include "packet/host_ip_addr.h"
#include "packet/packet_fields.h"

using lyr::LoadRelaxed;
using lyr::StoreRelaxed;

LyrKesDebugTraceInfo g_lyrKesDebugTrace;

namespace {

constexpr size_t kLineSize = 256;
constexpr size_t kAddressTextSize = 40;
constexpr size_t kKindTextSize = 32;

using AddressAccessor = uint32_t (*)(const HostMbuf *);
using WordsAccessor = const uint32_t *(*)(const HostMbuf *);

// One end of the address filter. The configured family, not the packet's, chooses the accessor.
bool AddressPasses(const HostMbuf *packet, const uint8_t &family, const uint32_t (&filter)[4],
                   AddressAccessor ipv4Address, WordsAccessor ipv6Words) {
    uint32_t wanted[4];
    for (int i = 0; i < 4; ++i) {
        wanted[i] = LoadRelaxed(filter[i]);
    }
    if ((wanted[0] | wanted[1] | wanted[2] | wanted[3]) == 0) {
        return true;
    }
    switch (LoadRelaxed(family)) {
        case lyr::kIpVersion4:
            return ipv4Address(packet) == wanted[0];
        case lyr::kIpVersion6:
            return std::memcmp(ipv6Words(packet), wanted, sizeof(wanted)) == 0;
        default:
            return true;
    }
}

bool PortPasses(uint32_t filter, uint16_t port) {
    return filter == 0 || filter == port;
}

void SetAddressFilter(const LyrKesRpcIpAddr &address, uint8_t *family, uint32_t (&filter)[4]) {
    if (address.ipVer == 0) {
        StoreRelaxed(*family, lyr::kIpVersion4);
        StoreRelaxed(filter[0], address.ipv4Addr);
    } else if (address.ipVer == 1) {
        uint32_t words[4];
        lyr::GroupsToWords(address.ipv6Addr, words);
        StoreRelaxed(*family, lyr::kIpVersion6);
        for (int i = 0; i < 4; ++i) {
            StoreRelaxed(filter[i], words[i]);
        }
    }
}

struct AddressTexts {
    char src[kAddressTextSize] = {};
    char dst[kAddressTextSize] = {};
};

void FormatIpv6(const uint32_t *words, char (&text)[kAddressTextSize]) {
    uint16_t groups[8];
    lyr::WordsToGroups(words, groups);
    LyrKes_IPv6HToStr(groups, text, sizeof(text));
}

// False for a packet that is neither IPv4 nor IPv6.
bool FormatAddresses(const HostMbuf *packet, AddressTexts *texts) {
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            LyrKes_IPv4HToStr(HostMbufGetIphdrSrcIp(packet), texts->src, sizeof(texts->src));
            LyrKes_IPv4HToStr(HostMbufGetIphdrDstIp(packet), texts->dst, sizeof(texts->dst));
            return true;
        case HOST_PROTO_IPV6:
            FormatIpv6(HostMbufGetIp6hdrSrcip(packet), texts->src);
            FormatIpv6(HostMbufGetIp6hdrDstip(packet), texts->dst);
            return true;
        default:
            return false;
    }
}

// False for an unknown kind.
bool FormatKind(uint8_t kind, const HostMbuf *packet, char (&text)[kKindTextSize]) {
    switch (kind) {
        case LYR_PKT_CONTROL:
            return sprintf_s(text, sizeof(text), "CTRL CAPWAP-MSGTYPE=%u",
                             LyrKes_GetCapwapMsgType(packet)) >= 0;
        case LYR_PKT_KEEPALIVE:
            return sprintf_s(text, sizeof(text), "DATA-KEEPALIVE") >= 0;
        case LYR_PKT_DTLS_HANDSHAKE:
            return sprintf_s(text, sizeof(text), "DATA-DTLS_HANDSHAKE") >= 0;
        default:
            return false;
    }
}

}  // namespace

bool lyr::TraceWanted(uint32_t level, bool needFilter, const HostMbuf *packet) {
    return lyr::LoadAcquire(g_lyrKesDebugTrace.enable) != 0 &&
           (LoadRelaxed(g_lyrKesDebugTrace.debugLevel) & level) != 0 &&
           (!needFilter || LyrKesNeedDebugging(packet));
}

void LyrKesDebugTrace(uint32_t level, bool needFilter, const HostMbuf *packet, const char *format,
                      ...) {
    if (!lyr::TraceWanted(level, needFilter, packet)) {
        return;
    }
    char line[kLineSize] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(line, sizeof(line), sizeof(line) - 1, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        LYR_KES_SendDebugOutput(line);
    }
}

bool LyrKesNeedDebugging(const HostMbuf *packet) {
    if (packet == nullptr) {
        return false;
    }
    const LyrKesDebugTraceInfo &filter = g_lyrKesDebugTrace;
    const uint32_t messageType = LoadRelaxed(filter.capwapMsgType);
    return (messageType == 0 || messageType == LyrKes_GetCapwapPktMsgType(packet)) &&
           AddressPasses(packet, filter.srcIpFamily, filter.srcIp, HostMbufGetIphdrSrcIp,
                         HostMbufGetIp6hdrSrcip) &&
           AddressPasses(packet, filter.dstIpFamily, filter.dstIp, HostMbufGetIphdrDstIp,
                         HostMbufGetIp6hdrDstip) &&
           PortPasses(LoadRelaxed(filter.srcPort), lyr::SrcPort(packet)) &&
           PortPasses(LoadRelaxed(filter.dstPort), lyr::DstPort(packet));
}

void LyrKes_DebugOutPutPkt(uint8_t kind, const HostMbuf *packet) {
    if (!LyrKes_IsDebugTraceEnable() || !LyrKesNeedDebugging(packet)) {
        return;
    }
    AddressTexts addresses;
    char kindText[kKindTextSize] = {};
    if (!FormatAddresses(packet, &addresses) || !FormatKind(kind, packet, kindText)) {
        return;
    }
    const uint8_t *mac = lyr::SrcMac(packet);
    LyrKesDebugTrace(LYR_TRACE_PACKET, false, nullptr,
                     "[LYR-HOST][%s][MAC=" LYR_MAC_FORMAT
                     "][SRC-IP=%s][SRC-PORT=%hu][DST-IP=%s][DST-PORT=%hu]",
                     kindText, LYR_MAC_ARGS(mac), addresses.src, lyr::SrcPort(packet),
                     addresses.dst, lyr::DstPort(packet));
}

const char *LyrKes_IPv4HToStr(uint32_t address, char *buffer, uint32_t length) {
    const uint32_t networkOrder = htonl(address);
    return inet_ntop(AF_INET, &networkOrder, buffer, length);
}

const char *LyrKes_IPv6HToStr(const uint16_t *groups, char *buffer, uint32_t length) {
    uint16_t networkOrder[8];
    for (int i = 0; i < 8; ++i) {
        networkOrder[i] = htons(groups[i]);
    }
    return inet_ntop(AF_INET6, networkOrder, buffer, length);
}

LyrKesDebugTraceInfo *LyrKes_GetDebugTraceInfo() {
    return &g_lyrKesDebugTrace;
}

void LyrKes_DebugTraceConfigClear() {
    LyrKesDebugTraceInfo &trace = g_lyrKesDebugTrace;
    StoreRelaxed(trace.enable, uint8_t{0});
    StoreRelaxed(trace.debugLevel, 0u);
    StoreRelaxed(trace.srcIpFamily, uint8_t{0});
    StoreRelaxed(trace.dstIpFamily, uint8_t{0});
    for (int i = 0; i < 4; ++i) {
        StoreRelaxed(trace.srcIp[i], 0u);
        StoreRelaxed(trace.dstIp[i], 0u);
    }
    StoreRelaxed(trace.srcPort, 0u);
    StoreRelaxed(trace.dstPort, 0u);
    StoreRelaxed(trace.capwapMsgType, 0u);
    for (uint8_t &byte : trace.mac) {
        StoreRelaxed(byte, uint8_t{0});
    }
}

void LyrKes_DebugTraceConfigUpdate(const LyrKesDebugTraceReq *request) {
    LyrKesDebugTraceInfo &trace = g_lyrKesDebugTrace;
    SetAddressFilter(request->srcAddr, &trace.srcIpFamily, trace.srcIp);
    SetAddressFilter(request->dstAddr, &trace.dstIpFamily, trace.dstIp);
    StoreRelaxed(trace.srcPort, request->srcPort);
    StoreRelaxed(trace.dstPort, request->dstPort);
    StoreRelaxed(trace.capwapMsgType, request->capwapMsgType);
    for (size_t i = 0; i < sizeof(trace.mac); ++i) {
        StoreRelaxed(trace.mac[i], request->mac[i]);
    }
    // The switch last, so that a trace that was off starts with its whole filter.
    StoreRelaxed(trace.debugLevel, request->debugLevel);
    lyr::StoreRelease(trace.enable, uint8_t{1});
}
