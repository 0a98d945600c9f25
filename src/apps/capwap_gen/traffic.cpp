#include "capwap_gen/traffic.h"

#include <algorithm>
#include <string>
#include <utility>

#include "capwap/message_type.h"
#include "capwap_gen/damage.h"
#include "capwap_gen/dtls.h"
#include "capwap_gen/messages.h"
#include "capwap_gen/station_frames.h"
#include "capwap_gen/unrelated.h"

namespace capwap_gen {
namespace {

using capwap::Bytes;
using capwap::FrameSpec;
using capwap::kControlPort;
using capwap::kDataPort;
using capwap::Mac;

struct ExchangeInfo {
    uint32_t request;
    From initiator;
};

// The exchanges of an established session, the common ones more than once.
constexpr ExchangeInfo kExchanges[] = {
    {kEchoRequest, From::kAccessPoint},
    {kEchoRequest, From::kAccessPoint},
    {kEchoRequest, From::kAccessPoint},
    {kEchoRequest, From::kAccessPoint},
    {kWtpEventRequest, From::kAccessPoint},
    {kWtpEventRequest, From::kAccessPoint},
    {kChangeStateEventRequest, From::kAccessPoint},
    {kPrimaryDiscoveryRequest, From::kAccessPoint},
    {kImageDataRequest, From::kAccessPoint},
    {kDataTransferRequest, From::kAccessPoint},
    {capwap::kVendorPingRequest, From::kAccessPoint},
    {kConfigurationUpdateRequest, From::kController},
    {kStationConfigurationRequest, From::kController},
    {kStationConfigurationRequest, From::kController},
    {kWlanConfigurationRequest, From::kController},
    {kClearConfigurationRequest, From::kController},
    {kResetRequest, From::kController},
};

From OtherThan(From from) {
    return from == From::kController ? From::kAccessPoint : From::kController;
}

// What stands behind the CAPWAP header of a message: all that can be cut into fragments.
Bytes BehindHeader(const Bytes &message) {
    constexpr size_t kCapwapHeader = 8;
    return {message.begin() + kCapwapHeader, message.end()};
}

uint8_t NextSequence(AccessPoint &ap, From from) {
    return from == From::kAccessPoint ? ap.sequence++ : ap.controllerSequence++;
}

// One run through the sessions of all access points.
class Run {
  public:
    Run(const TrafficOptions &options, std::vector<AccessPoint> accessPoints, Random random,
        const Sink &sink)
        : options_(options),
          accessPoints_(std::move(accessPoints)),
          random_(random),
          link_(options, random_, sink) {}

    void SetUp() {
        for (const KindInfo &step : kKinds) {
            for (AccessPoint &ap : accessPoints_) {
                if (step.setsUp && WeightFor(step.kind, ap) != 0) {
                    Perform(step.kind, ap);
                }
            }
        }
    }

    void Round() {
        for (AccessPoint &ap : accessPoints_) {
            TakeTurn(ap);
        }
    }

  private:
    uint32_t WeightFor(Kind kind, const AccessPoint &ap) const {
        return kind == Kind::kDataHandshake && !ap.dataDtls ? 0 : options_.mix.Weight(kind);
    }

    void TakeTurn(AccessPoint &ap) {
        uint32_t total = 0;
        for (const KindInfo &info : kKinds) {
            total += WeightFor(info.kind, ap);
        }
        if (total == 0) {
            return;
        }
        uint32_t drawn = random_.Below(total);
        for (const KindInfo &info : kKinds) {
            uint32_t weight = WeightFor(info.kind, ap);
            if (drawn < weight) {
                return Perform(info.kind, ap);
            }
            drawn -= weight;
        }
    }

    void Perform(Kind kind, AccessPoint &ap) {
        switch (kind) {
            case Kind::kDiscovery:
                return Discover(ap);
            case Kind::kHandshake:
                return Handshake(ap, kControlPort);
            case Kind::kJoin:
                return Join(ap);
            case Kind::kDataHandshake:
                return Handshake(ap, kDataPort);
            case Kind::kKeepalive:
                return Keepalive(ap);
            case Kind::kControl:
                return Exchange(ap, random_.Pick(kExchanges));
            case Kind::kSecured:
                return Secured(ap);
            case Kind::kData:
                return Data(ap);
            case Kind::kWlan:
                return Wlan(ap);
            case Kind::kWapi:
                return Wapi(ap);
            case Kind::kFragment:
                return Fragment(ap);
            case Kind::kDamaged:
                return EmitDamaged(ap, link_, random_);
            case Kind::kUnrelated:
                return Unrelated(ap);
            case Kind::kPing:
                return Ping(ap);
            case Kind::kProbe:
                return Exchange(ap, {capwap::kVendorProbeRequest, PickInitiator()});
        }
    }

    From PickSender() {
        return random_.OneIn(3) ? From::kController : From::kAccessPoint;
    }
    From PickInitiator() {
        return random_.OneIn(2) ? From::kController : From::kAccessPoint;
    }
    // The size of a fragment, in units of 8 bytes.
    uint16_t PickPiece() {
        return random_.Between<uint16_t>(64, 160);
    }
    Mac PickStation(const AccessPoint &ap) {
        return ap.Station(random_.Below(AccessPoint::kStations));
    }

    // Control messages.

    Bytes Elements(const AccessPoint &ap, uint32_t type) {
        return MessageElements(type, {ap, options_, random_});
    }

    void Tell(AccessPoint &ap, From from, uint32_t type, uint8_t sequence) {
        link_.Send(ap, from, kControlPort,
                   capwap::ControlMessage(type, sequence, Elements(ap, type)),
                   capwap::MessageTypeName(type), TunnelFate(ap, from, kControlPort));
    }

    // A request and its response.
    void Exchange(AccessPoint &ap, const ExchangeInfo &exchange) {
        uint8_t sequence = NextSequence(ap, exchange.initiator);
        Tell(ap, exchange.initiator, exchange.request, sequence);
        Tell(ap, OtherThan(exchange.initiator), exchange.request + 1, sequence);
    }

    // A request and its response, of one size; large ones are cut.
    void Ping(AccessPoint &ap) {
        From initiator = PickInitiator();
        uint8_t sequence = NextSequence(ap, initiator);
        bool large = random_.OneIn(4);
        size_t size =
            large ? random_.Between<size_t>(1400, 1900) : random_.Between<size_t>(0, 1300);
        uint16_t piece = PickPiece();
        for (uint32_t type : {capwap::kVendorPingRequest, capwap::kVendorPingResponse}) {
            From from = type == capwap::kVendorPingRequest ? initiator : OtherThan(initiator);
            Bytes message = capwap::ControlMessage(type, sequence, PingElements(size, random_));
            if (large) {
                FragmentCapwap(ap, from, kControlPort, BehindHeader(message), piece);
            } else {
                link_.Send(ap, from, kControlPort, std::move(message),
                           capwap::MessageTypeName(type), TunnelFate(ap, from, kControlPort));
            }
        }
    }

    // To all controllers, then to the one that has answered.
    void Discover(AccessPoint &ap) {
        uint8_t sequence = NextSequence(ap, From::kAccessPoint);
        Bytes request =
            capwap::ControlMessage(kDiscoveryRequest, sequence, Elements(ap, kDiscoveryRequest));
        CallAll(ap, std::move(request));
        Tell(ap, From::kController, kDiscoveryResponse, sequence);
        Exchange(ap, {kDiscoveryRequest, From::kAccessPoint});
    }

    void CallAll(AccessPoint &ap, Bytes request) {
        FrameSpec spec = link_.Between(ap, From::kAccessPoint, kControlPort);
        spec.payload = std::move(request);
        Fate fate = DefaultFate();
        if (ap.ipv6) {
            spec.dstMac = {0x33, 0x33, 0x00, 0x00, 0x01, 0x8C};
            spec.dstIp6 = capwap::Ipv6("ff05::18c");
        } else if (random_.OneIn(4)) {
            // An IPv4 multicast address is no address of a CAPWAP source, nor is it broadcast.
            spec.dstMac = {0x01, 0x00, 0x5E, 0x00, 0x01, 0x8C};
            spec.dstIp = capwap::Ipv4("224.0.1.140");
            fate = kReturned;
        } else {
            spec.dstMac.fill(0xFF);
            spec.dstIp = 0xFFFFFFFF;
        }
        link_.Emit(spec, capwap::MessageTypeName(kDiscoveryRequest), fate);
    }

    void Join(AccessPoint &ap) {
        for (uint32_t request :
             {kJoinRequest, kConfigurationStatusRequest, kChangeStateEventRequest}) {
            Exchange(ap, {request, From::kAccessPoint});
        }
    }

    // DTLS.

    void Handshake(AccessPoint &ap, uint16_t port) {
        for (DtlsDatagram &datagram : DtlsHandshake("ap-" + std::to_string(ap.index), random_)) {
            link_.Send(ap, datagram.from, port, std::move(datagram.payload), datagram.content,
                       TunnelFate(ap, datagram.from, port));
        }
    }

    // Control messages or data, or an alert, behind a finished handshake.
    void Secured(AccessPoint &ap) {
        uint16_t port = ap.dataDtls && random_.OneIn(2) ? kDataPort : kControlPort;
        From from = PickSender();
        Fate fate = TunnelFate(ap, from, port);
        if (random_.OneIn(8)) {
            return link_.Send(ap, from, port, DtlsAlert(ap.dtlsRecords++, random_), "DTLS alert",
                              fate);
        }
        link_.Send(ap, from, port, DtlsApplicationData(ap.dtlsRecords++, random_),
                   "DTLS application data", port == kDataPort ? kReturned : fate);
    }

    // The data channel.

    void Keepalive(AccessPoint &ap) {
        // The controller sends back what it gets.
        for (From from : {From::kAccessPoint, From::kController}) {
            link_.Send(ap, from, kDataPort, capwap::Keepalive(ap.session), "Data keepalive",
                       KeepaliveFate(ap, from));
        }
    }

    // As Ethernet frames with the radio's address, or as native ones with what the radio measured
    // (RFC 5416, section 4).
    void Data(AccessPoint &ap) {
        From from = PickSender();
        bool native = from == From::kAccessPoint && random_.OneIn(2);
        Mac station = PickStation(ap);
        size_t size = random_.Between<size_t>(40, 1300);
        Bytes frame = StationFrame(station, from, size, random_);
        capwap::Header header{.nativeFrame = native, .radioId = 1};
        if (native) {
            header.wirelessInfo = {0xC4, 35, 540 >> 8, 540 & 0xFF};  // -60 dBm, 35 dB, 54 Mbit/s
            frame = ToNative(frame, ap.Bssid(), random_);
        } else {
            header.radioMac = ap.Bssid();
        }
        link_.Send(ap, from, kDataPort, capwap::DataFrame(frame, header), "Data", kReturned);
    }

    void Wlan(AccessPoint &ap) {
        constexpr uint16_t kWlanIdElement = 6, kOtherElement = 1;
        std::vector<capwap::ExtensionElement> elements;
        if (random_.OneIn(2)) {
            elements.push_back({kOtherElement, random_.Bytes(4)});
        }
        elements.push_back({kWlanIdElement, {0, random_.Between<uint8_t>(1, 16), 0, 0}});
        Bytes frame = StationFrame(PickStation(ap), From::kAccessPoint, 100, random_);
        link_.Send(ap, From::kAccessPoint, kDataPort,
                   capwap::ExtendedDataFrame(elements, frame, {.radioId = 1}), "Data", kReturned);
    }

    void Wapi(AccessPoint &ap) {
        Mac station = PickStation(ap);
        FrameSpec spec = {
            .srcMac = station,
            .dstMac = kControllerMac,
            .vlans = ap.vlans,
            .etherType = 0x88B4,
            .payload = WaiAnswer(station, ap.Bssid(), random_),
        };
        link_.Emit(spec, "WAPI", StationFate(station, options_.instances));
    }

    // A large control message or data frame, cut by IP or by CAPWAP.
    void Fragment(AccessPoint &ap) {
        uint16_t port = random_.OneIn(2) ? kControlPort : kDataPort;
        constexpr size_t kLargePing = 1440;
        Bytes whole = port == kControlPort
                          ? MtuProbe(ap)
                          : StationFrame(PickStation(ap), From::kAccessPoint, kLargePing, random_);
        uint16_t piece = PickPiece();
        if (random_.OneIn(2)) {
            FragmentIp(ap, port, whole, piece);
        } else {
            FragmentCapwap(ap, From::kAccessPoint, port, whole, piece);
        }
    }

    // A control header and message elements of more than an Ethernet frame holds.
    Bytes MtuProbe(AccessPoint &ap) {
        Bytes elements = Elements(ap, kPrimaryDiscoveryRequest);
        Bytes padding = MtuDiscoveryPadding(random_.Between<size_t>(1400, 2400));
        elements.insert(elements.end(), padding.begin(), padding.end());
        return BehindHeader(capwap::ControlMessage(kPrimaryDiscoveryRequest,
                                                   NextSequence(ap, From::kAccessPoint), elements));
    }

    void FragmentIp(AccessPoint &ap, uint16_t port, const Bytes &whole, uint16_t piece) {
        FrameSpec spec = link_.Between(ap, From::kAccessPoint, port);
        spec.payload = capwap::DataFrame(whole, {.radioId = 1});
        // Only the first fragment shows the ports, and in IPv6 not even that one.
        bool recognised = port == kControlPort && !ap.ipv6;
        for (Bytes &fragment : capwap::BuildFragments(spec, static_cast<uint16_t>(8 * piece))) {
            link_.Emit(std::move(fragment), "IP fragment",
                       recognised ? TunnelFate(ap, From::kAccessPoint, port) : kReturned);
            recognised = false;
        }
    }

    void FragmentCapwap(AccessPoint &ap, From from, uint16_t port, const Bytes &whole,
                        uint16_t piece) {
        Fate fate = port == kControlPort ? TunnelFate(ap, from, port) : kReturned;
        capwap::Header header{.fragment = true, .fragmentId = ap.fragmentId++, .radioId = 1};
        for (std::span<const uint8_t> rest = whole; !rest.empty();) {
            auto part = rest.first(std::min<size_t>(size_t{8} * piece, rest.size()));
            rest = rest.subspan(part.size());
            header.lastFragment = rest.empty();
            link_.Send(ap, from, port, capwap::DataFrame(part, header), "CAPWAP fragment", fate);
            header.fragmentOffset = static_cast<uint16_t>(header.fragmentOffset + piece);
        }
    }

    void Unrelated(AccessPoint &ap) {
        FrameSpec between = link_.Between(ap, PickSender(), kDataPort);
        link_.Emit(UnrelatedPacket(std::move(between), random_), "not CAPWAP", kReturned);
    }

    const TrafficOptions &options_;
    std::vector<AccessPoint> accessPoints_;
    Random random_;
    Link link_;
};

}  // namespace

Traffic::Traffic(const TrafficOptions &options)
    : options_(options),
      random_(options.seed),
      accessPoints_(MakeAccessPoints(options_, random_)) {}

void Traffic::Generate(const Sink &sink) const {
    Run run(options_, accessPoints_, random_, sink);
    run.SetUp();
    for (uint32_t round = 0; round < options_.rounds; round++) {
        run.Round();
    }
}

void Tally::Count(const Frame &frame) {
    frames++;
    byContent[frame.content]++;
    switch (frame.fate.kind) {
        case Fate::kReturned:
            returned++;
            break;
        case Fate::kUndelivered:
            undelivered++;
            break;
        case Fate::kDelivered:
            byInstance[frame.fate.instance]++;
            break;
    }
}

}  // namespace capwap_gen
