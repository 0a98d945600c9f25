#include "capwap_gen/messages.h"

#include <initializer_list>
#include <stdexcept>
#include <string>

#include "capwap/message_type.h"
#include "capwap/wire.h"

namespace capwap_gen {
namespace {

using capwap::Bytes;
using capwap::Element;
using capwap::Mac;
using capwap::Writer;

constexpr uint8_t kRadios[] = {1, 2};
constexpr uint8_t kWlanId = 1;
constexpr uint16_t kReportSeconds = 120;
constexpr uint16_t kEssAndShortSlot = 0x8020;  // as RFC 5416, section 6.1, orders the bits
constexpr std::string_view kFirmware = "2.5.0";

Bytes Join(std::initializer_list<Bytes> parts) {
    Writer out;
    for (const Bytes &part : parts) {
        out.Raw(part);
    }
    return out.Take();
}

// The element once for each radio.
template <typename ElementOfRadio>
Bytes ForEachRadio(ElementOfRadio element) {
    Writer out;
    for (uint8_t radio : kRadios) {
        out.Raw(element(radio));
    }
    return out.Take();
}

Bytes TextElement(uint16_t type, std::string_view text) {
    return Element(type, Writer().Text(text).Take());
}

Bytes ByteElement(uint16_t type, uint8_t value) {
    return Element(type, Bytes{value});
}

Bytes MacField(const Mac &mac) {
    return Writer().U8(static_cast<uint32_t>(mac.size())).Raw(mac).Take();
}

// Type, length and text, as sub-elements have them.
Bytes SubElement(uint16_t type, std::string_view text) {
    return Writer().U16(type).U16(static_cast<uint32_t>(text.size())).Text(text).Take();
}

Bytes BaseSubElement(uint16_t type, std::string_view text) {
    return Writer().U32(0).Raw(SubElement(type, text)).Take();
}

// Elements of RFC 5415, section 4.6, in the order of their types.

Bytes AcDescriptor(const Conversation &in) {
    constexpr uint16_t kLimit = 65000;
    constexpr uint8_t kPreSharedKeyOrX509 = 0x06, kRadioMacSupported = 1, kDtlsOrClear = 0x06;
    Writer out;
    out.U16(in.random.Below(kLimit)).U16(kLimit);
    out.U16(in.options.accessPoints % 0x10000).U16(0xFFFF);
    out.U8(kPreSharedKeyOrX509).U8(kRadioMacSupported).U8(0).U8(kDtlsOrClear);
    out.Raw(BaseSubElement(4, "rev B")).Raw(BaseSubElement(5, "7.1.4"));
    return Element(1, out.From(0));
}

Bytes AcLists(const Conversation &in) {
    return Join({Element(2, Writer().U32(in.options.controller).Take()),
                 Element(3, Writer().Words(in.options.controller6).Take())});
}

Bytes AcName(const Conversation &in) {
    return TextElement(4, in.options.controllerName);
}

Bytes AcTimestamp(const Conversation &in) {
    constexpr int64_t kNtpEpoch = 2'208'988'800;
    auto seconds = static_cast<uint32_t>(in.options.startNs / 1'000'000'000 + kNtpEpoch);
    return Element(6, Writer().U32(seconds).Take());
}

Bytes AddStation(const Mac &station) {
    return Element(8, Writer().U8(kRadios[0]).Raw(MacField(station)).Take());
}

// CAPWAP Control IPv4 or IPv6 Address.
Bytes ControlAddress(const Conversation &in) {
    uint32_t count = in.options.accessPoints % 0x10000;
    return in.ap.ipv6 ? Element(11, Writer().Words(in.options.controller6).U16(count).Take())
                      : Element(10, Writer().U32(in.options.controller).U16(count).Take());
}

Bytes CapwapTimers() {
    return Element(12, Bytes{20, 30});
}

Bytes DataTransferData(const Conversation &in) {
    constexpr uint8_t kIncluded = 1, kCrashData = 1;
    Bytes data = in.random.Bytes(in.random.Between<size_t>(64, 512));
    return Element(13, Writer()
                           .U8(kIncluded)
                           .U8(kCrashData)
                           .U16(static_cast<uint32_t>(data.size()))
                           .Raw(data)
                           .Take());
}

Bytes DecryptionErrorReportPeriod(uint8_t radio) {
    return Element(16, Writer().U8(radio).U16(kReportSeconds).Take());
}

Bytes DeleteStation(const Mac &station) {
    return Element(18, Writer().U8(kRadios[0]).Raw(MacField(station)).Take());
}

Bytes DiscoveryType(const Conversation &in) {
    return ByteElement(20, in.random.Between<uint8_t>(0, 4));
}

Bytes IdleTimeout() {
    return Element(23, Writer().U32(300).Take());
}

Bytes ImageIdentifier() {
    return Element(25, Writer().U32(capwap::kVendorPen).Text(kFirmware).Take());
}

Bytes InitiateDownload() {
    return Element(27, {});
}

Bytes LocationData(const AccessPoint &ap) {
    return TextElement(28, "floor " + std::to_string(ap.index / 50 + 1));
}

Bytes MaximumMessageLength() {
    return Element(29, Writer().U16(8192).Take());
}

Bytes RadioAdministrativeState(uint8_t radio) {
    return Element(31, Bytes{radio, 1});
}

Bytes RadioOperationalState(uint8_t radio) {
    return Element(32, Bytes{radio, 1, 0});
}

Bytes ResultCode(uint32_t code) {
    return Element(33, Writer().U32(code).Take());
}

Bytes Success() {
    return ResultCode(0);
}

Bytes SessionIdElement(const AccessPoint &ap) {
    return Element(35, Writer().Words(ap.session).Take());
}

Bytes StatisticsTimer() {
    return Element(36, Writer().U16(kReportSeconds).Take());
}

Bytes VendorSpecificPayload(uint16_t id, std::span<const uint8_t> data) {
    return Element(37, Writer().U32(capwap::kVendorPen).U16(id).Raw(data).Take());
}

// Who is probed: an access point is found by its MAC address 20 bytes behind the CAPWAP header.
Bytes ProbeElements(const Conversation &in) {
    Bytes token = in.random.Bytes(8);
    return VendorSpecificPayload(2, Writer().U16(1).Raw(in.ap.mac).Raw(token).From(0));
}

Bytes WtpBoardData(const AccessPoint &ap) {
    Writer out;
    out.U32(capwap::kVendorPen).Raw(SubElement(0, "model 20"));
    out.Raw(SubElement(1, "SN" + std::to_string(10'000'000 + ap.index)));
    out.U16(4).U16(static_cast<uint32_t>(ap.mac.size())).Raw(ap.mac);
    return Element(38, out.From(0));
}

Bytes WtpDescriptor() {
    constexpr uint8_t kRadioCount = std::size(kRadios), kIeee80211 = 1;
    Writer out;
    out.U8(kRadioCount).U8(kRadioCount).U8(1).U8(kIeee80211).U16(0);
    out.Raw(BaseSubElement(0, "rev C")).Raw(BaseSubElement(1, kFirmware));
    out.Raw(BaseSubElement(2, "1.0.3"));
    return Element(39, out.From(0));
}

Bytes WtpFallback() {
    return ByteElement(40, 1);
}

Bytes WtpFrameTunnelMode() {
    constexpr uint8_t kNativeOr8023OrLocal = 0x0E;
    return ByteElement(41, kNativeOr8023OrLocal);
}

Bytes WtpMacType() {
    constexpr uint8_t kLocalAndSplit = 2;
    return ByteElement(44, kLocalAndSplit);
}

Bytes WtpName(const AccessPoint &ap) {
    return TextElement(45, "ap-" + std::to_string(ap.index));
}

Bytes WtpRadioStatistics(uint8_t radio, const Conversation &in) {
    constexpr uint32_t kNoiseFloor = 0xFFA1;  // -95 dBm
    Writer out;
    out.U8(radio).U8(0);
    for (int counter = 0; counter < 8; counter++) {
        out.U16(in.random.Below(100));
    }
    return Element(47, out.U16(kNoiseFloor).Take());
}

Bytes WtpRebootStatistics(const Conversation &in) {
    Writer out;
    for (int counter = 0; counter < 7; counter++) {
        out.U16(in.random.Below(10));
    }
    return Element(48, out.U8(0).Take());
}

// CAPWAP Local IPv4 or IPv6 Address of the sender.
Bytes LocalAddress(const Conversation &in, bool ofController) {
    if (in.ap.ipv6) {
        return Element(50,
                       Writer().Words(ofController ? in.options.controller6 : in.ap.ip6).Take());
    }
    return Element(30, Writer().U32(ofController ? in.options.controller : in.ap.ip).Take());
}

Bytes TransportProtocol() {
    constexpr uint8_t kUdp = 2;
    return ByteElement(51, kUdp);
}

Bytes EcnSupport() {
    return ByteElement(53, 0);
}

// Elements of RFC 5416, section 6.

// The information elements that an Add WLAN must bring along (RFC 5416, section 6.1).
const Bytes kWlanInformation[] = {
    // Power Constraint, EDCA Parameter Set and QoS Capability
    {32, 1, 0},
    {12, 18, 0, 0, 0x03, 0xA4, 0, 0, 0x27, 0xA4, 0, 0, 0x42, 0x43, 0x5E, 0, 0x62, 0x32, 0x2F, 0},
    {46, 1, 0},
    // RSN and WPA, each with CCMP or TKIP and pre-shared keys
    {48, 20, 1, 0, 0, 0x0F, 0xAC, 4, 1, 0, 0, 0x0F, 0xAC, 4, 1, 0, 0, 0x0F, 0xAC, 2, 0, 0},
    {221, 22, 0, 0x50, 0xF2, 1, 1, 0, 0, 0x50, 0xF2, 2,
     1,   0,  0, 0x50, 0xF2, 2, 1, 0, 0, 0x50, 0xF2, 2},
    // WMM
    {221, 24,   0,    0x50, 0xF2, 2,    1,    1,    0, 0,    0x03, 0xA4, 0,
     0,   0x27, 0xA4, 0,    0,    0x42, 0x43, 0x5E, 0, 0x62, 0x32, 0x2F, 0},
};

Bytes InformationElement(const Bytes &information) {
    constexpr uint8_t kInBeaconsAndProbes = 0xC0;
    Writer out;
    out.U8(kRadios[0]).U8(kWlanId).U8(kInBeaconsAndProbes).Raw(information);
    return Element(1029, out.From(0));
}

Bytes AddWlan() {
    constexpr uint8_t kBestEffort = 0, kOpen = 0, kLocalMac = 0, k8023Tunnel = 1, kAdvertise = 1;
    Writer wlan;
    wlan.U8(kRadios[0]).U8(kWlanId).U16(kEssAndShortSlot);
    wlan.U8(0).U8(0).U16(0);  // no key
    wlan.U32(0).U16(0);       // group TSC
    wlan.U8(kBestEffort).U8(kOpen).U8(kLocalMac).U8(k8023Tunnel).U8(kAdvertise).Text("example");
    Writer out;
    out.Raw(Element(1024, wlan.From(0)));
    for (const Bytes &information : kWlanInformation) {
        out.Raw(InformationElement(information));
    }
    return out.Take();
}

Bytes AssignedBssid(const AccessPoint &ap) {
    return Element(1026, Writer().U8(kRadios[0]).U8(kWlanId).Raw(ap.Bssid()).Take());
}

Bytes RateSet(uint8_t radio) {
    return Element(1034, Bytes{radio, 12, 18, 24, 36, 48, 72, 96, 108});
}

Bytes StationElement(const Conversation &in, const Mac &station) {
    Writer out;
    out.U8(kRadios[0])
        .U16(in.random.Between(1u, 200u))
        .U8(0)
        .Raw(station)
        .U16(kEssAndShortSlot)
        .U8(kWlanId);
    return Element(1036, out.Raw(Bytes{12, 24, 48, 108}).Take());
}

Bytes RadioInformation(uint8_t radio) {
    constexpr uint32_t k80211Ngb = 0x0D, k80211Na = 0x0A;
    return Element(1048, Writer().U8(radio).U32(radio == 1 ? k80211Ngb : k80211Na).Take());
}

// What an access point tells of itself in each kind of discovery and when it joins.
Bytes Capabilities(const Conversation &in) {
    return Join({WtpBoardData(in.ap), WtpDescriptor(), WtpFrameTunnelMode(), WtpMacType(),
                 ForEachRadio(RadioInformation)});
}

// What the controller tells of itself in each kind of discovery and in the Join Response.
Bytes Services(const Conversation &in) {
    return Join({AcDescriptor(in), AcName(in), ForEachRadio(RadioInformation), ControlAddress(in)});
}

Bytes JoinRequest(const Conversation &in) {
    return Join({LocationData(in.ap), Capabilities(in), WtpName(in.ap), SessionIdElement(in.ap),
                 EcnSupport(), LocalAddress(in, false), TransportProtocol(), MaximumMessageLength(),
                 WtpRebootStatistics(in)});
}

Bytes ConfigurationStatusRequest(const Conversation &in) {
    constexpr uint8_t kWholeWtp = 0xFF;
    return Join({AcName(in), RadioAdministrativeState(kWholeWtp),
                 ForEachRadio(RadioAdministrativeState), StatisticsTimer(), WtpRebootStatistics(in),
                 ForEachRadio(RadioInformation)});
}

Bytes ConfigurationStatusResponse(const Conversation &in) {
    return Join({CapwapTimers(), ForEachRadio(DecryptionErrorReportPeriod), IdleTimeout(),
                 WtpFallback(), AcLists(in), ForEachRadio(RateSet)});
}

Bytes WtpEventRequest(const Conversation &in) {
    return ForEachRadio([&](uint8_t radio) { return WtpRadioStatistics(radio, in); });
}

Bytes StationConfigurationRequest(const Conversation &in) {
    Mac station = in.ap.Station(in.random.Below(AccessPoint::kStations));
    if (in.random.OneIn(4)) {
        return DeleteStation(station);
    }
    return Join({AddStation(station), StationElement(in, station)});
}

}  // namespace

Bytes MtuDiscoveryPadding(size_t size) {
    return Element(52, Bytes(size, 0xFF));
}

// The ping header takes 36 bytes, the CAPWAP control header and those of the element included.
Bytes PingElements(size_t size, Random &random) {
    constexpr size_t kRestOfHeader = 36 - 8 - 4 - 6;
    return VendorSpecificPayload(1, random.Bytes(kRestOfHeader + size));
}

Bytes MessageElements(uint32_t type, const Conversation &in) {
    switch (type) {
        case kDiscoveryRequest:
        case kPrimaryDiscoveryRequest:
            return Join({DiscoveryType(in), Capabilities(in)});
        case kDiscoveryResponse:
        case kPrimaryDiscoveryResponse:
            return Services(in);
        case kJoinRequest:
            return JoinRequest(in);
        case kJoinResponse:
            return Join({Success(), Services(in), EcnSupport(), LocalAddress(in, true)});
        case kConfigurationStatusRequest:
            return ConfigurationStatusRequest(in);
        case kConfigurationStatusResponse:
            return ConfigurationStatusResponse(in);
        case kConfigurationUpdateRequest:
            return Join({AcTimestamp(in), StatisticsTimer(), CapwapTimers()});
        case kWtpEventRequest:
            return WtpEventRequest(in);
        case kChangeStateEventRequest:
            return Join({ForEachRadio(RadioOperationalState), Success()});
        case kImageDataRequest:
            return Join({ImageIdentifier(), InitiateDownload()});
        case kResetRequest:
            return ImageIdentifier();
        case kDataTransferRequest:
            return DataTransferData(in);
        case kStationConfigurationRequest:
            return StationConfigurationRequest(in);
        case kWlanConfigurationRequest:
            return AddWlan();
        case kWlanConfigurationResponse:
            return Join({Success(), AssignedBssid(in.ap)});
        case capwap::kVendorPingRequest:
        case capwap::kVendorPingResponse:
            return PingElements(in.random.Between<size_t>(14, 238), in.random);
        case capwap::kVendorProbeRequest:
        case capwap::kVendorProbeResponse:
            return ProbeElements(in);
        case kConfigurationUpdateResponse:
        case kImageDataResponse:
        case kResetResponse:
        case kDataTransferResponse:
        case kClearConfigurationResponse:
        case kStationConfigurationResponse:
            return Success();
        case kWtpEventResponse:
        case kChangeStateEventResponse:
        case kEchoRequest:
        case kEchoResponse:
        case kClearConfigurationRequest:
            return {};
        default:
            throw std::invalid_argument("no elements are known for message type " +
                                        std::to_string(type));
    }
}

}  // namespace capwap_gen
