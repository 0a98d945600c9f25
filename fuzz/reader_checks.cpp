#include "reader_checks.h"

#include <array>
#include <numeric>

#include "dfx/debug_trace.h"
#include "fuzz_target.h"
#include "packet/capwap_header.h"
#include "standin/mbuf_pool.h"

namespace fuzz {

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;

// What a reader puts out and answers. Outputs of failed readers keep what they held.
struct Location {
    const uint8_t *header = nullptr;
    uint16_t payloadLength = 0xA5A5;
    uint16_t present = 0xA5A5;
    uint32_t result = 0;
    bool operator==(const Location &) const = default;
};

struct Readings {
    Location location;
    uint32_t type = 0;
    uint32_t dtls = 0;
    uint32_t keepalive = 0;
    uint32_t firstFragment = 0;
    uint32_t sessionResult = 0;
    std::array<uint32_t, 4> session = {1, 2, 3, 4};
    uint32_t wlanResult = 0;
    uint16_t wlanId = 0xA5A5;
    bool passesFilter = false;
    bool operator==(const Readings &) const = default;
};

template <class Locator>
Location Locate(Locator locator, const HostMbuf *packet) {
    Location location;
    location.result = locator(packet, &location.header, &location.payloadLength, &location.present);
    return location;
}

// The readers that are given the header.
void CheckHeaderReaders(const Location &location, const Readings &readings) {
    const auto &[header, payloadLength, present, result] = location;
    uint32_t traced = 0xA5, quiet = 0xA5;
    const uint32_t tracedResult =
        LyrKes_GetCapwapMsgTypeFromCapwapHdr(header, payloadLength, present, &traced);
    Require(LyrKes_GetCapwapMsgTypeFromCapwapHeader(header, present, &quiet) == tracedResult &&
                quiet == traced,
            "the message-type readers of both families agree");
    Require(readings.type == (tracedResult == 0 ? traced : kFailed),
            "a packet's message type is its header's");
    uint16_t wlanId = 0xA5A5;
    Require(LyrKes_GetWlanIdFromCapwapHeader(header, present, &wlanId) == readings.wlanResult &&
                wlanId == readings.wlanId,
            "a packet's WLAN id is its header's");
}

void CheckLocated(const HostMbuf *packet, const Readings &readings) {
    const Location &location = readings.location;
    const auto *start = static_cast<const uint8_t *>(packet->bufAddr) + packet->dataOff;
    Require(location.header >= start + 8 &&
                location.header + location.present == start + packet->dataLen,
            "what is present ends with the segment");
    Require(location.present <= location.payloadLength, "no more is present than announced");
    CheckHeaderReaders(location, readings);
}

Readings Read(HostMbuf *packet) {
    Readings readings;
    readings.location = Locate(LyrKes_GetCapwapHdr, packet);
    Require(Locate(LyrKes_GetCapwapHeader, packet) == readings.location,
            "the locators of both families agree");
    readings.type = LyrKes_GetCapwapMsgType(packet);
    Require(LyrKes_GetCapwapPktMsgType(packet) == readings.type,
            "the packet's message types of both families agree");
    readings.dtls = LyrKes_CheckIsDtlsHandShakePkt(packet);
    readings.keepalive = LyrKes_CheckIsKaPkt(packet);
    readings.firstFragment = LyrKes_CheckIfFirstIpFrag(packet);
    readings.sessionResult = LyrKes_GetKaSessionid(packet, readings.session.data());
    readings.wlanResult = LyrKes_GetVadoAcTunnelWlanId(packet, &readings.wlanId);
    if (readings.location.result == 0) {
        CheckLocated(packet, readings);
    } else {
        Require(readings.location == Location{.result = kFailed} && readings.type == kFailed &&
                    readings.dtls == 0 && readings.keepalive == 0 &&
                    readings.sessionResult == kFailed && readings.wlanResult == kFailed,
                "without a header nothing is read");
    }
    Require(readings.sessionResult == 0 || readings.session == std::array<uint32_t, 4>{1, 2, 3, 4},
            "a failed reader writes no session id");
    Require(readings.wlanResult == 0 || readings.wlanId == 0xA5A5,
            "a failed reader writes no WLAN id");
    return readings;
}

// Lines cost some thirty times what the readings do: one packet in 32 has them.
bool WantsLines(const HostMbuf *packet) {
    const ByteSpan frame = standin::FrameAsReceived(packet);
    return std::accumulate(frame.begin(), frame.end(), 0u) % 32 == 0;
}

void CheckTracedReaders(HostMbuf *packet, const Readings &quiet) {
    LyrKesDebugTraceReq request = {};
    request.debugLevel = 3;
    for (const uint32_t type : {0u, quiet.type, 13u}) {
        request.capwapMsgType = type;
        LyrKes_DebugTraceConfigUpdate(&request);
        Require(Read(packet) == quiet, "the trace changes no reading");
        Require(LyrKesNeedDebugging(packet) == (type == 0 || type == quiet.type),
                "the filter passes the message type that it asks for");
        for (uint8_t kind = 0; kind < 4; ++kind) {
            LyrKes_DebugOutPutPkt(kind, packet);
        }
    }
    LyrKes_DebugTraceConfigClear();
}

}  // namespace

void CheckReaders(HostMbuf *packet) {
    const Readings readings = Read(packet);
    if (WantsLines(packet)) {
        CheckTracedReaders(packet, readings);
    }
}

}  // namespace fuzz
