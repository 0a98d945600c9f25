#include "capwap_gen/link.h"

#include <algorithm>
#include <utility>

namespace capwap_gen {

using capwap::Bytes;
using capwap::FrameSpec;
using capwap::kControlPort;

Link::Link(const TrafficOptions &options, Random &random, const Sink &sink)
    : options_(options),
      random_(random),
      sink_(sink),
      timeNs_(options.startNs),
      gapNs_(std::max(1'000'000'000 / options.framesPerSecond, 1u)) {}

FrameSpec Link::Between(AccessPoint &ap, From from, uint16_t port) const {
    FrameSpec spec = {
        .srcMac = ap.mac,
        .dstMac = kControllerMac,
        .vlans = ap.vlans,
        .ipv6 = ap.ipv6,
        .ipId = ap.ipId++,
        .srcPort = port == kControlPort ? ap.controlPort : ap.dataPort,
        .dstPort = port,
        .udpChecksum = ap.ipv6,
    };
    if (ap.ipv6) {
        spec.srcIp6 = ap.ip6;
        spec.dstIp6 = options_.controller6;
    } else {
        spec.srcIp = ap.ip;
        spec.dstIp = options_.controller;
    }
    if (from == From::kController) {
        std::swap(spec.srcMac, spec.dstMac);
        std::swap(spec.srcIp, spec.dstIp);
        std::swap(spec.srcIp6, spec.dstIp6);
        std::swap(spec.srcPort, spec.dstPort);
    }
    return spec;
}

void Link::Emit(Bytes bytes, std::string_view content, Fate fate) {
    // From half a gap to one and a half.
    timeNs_ += gapNs_ / 2 + random_.Below(gapNs_ + 1);
    sink_({.bytes = std::move(bytes), .timeNs = timeNs_, .content = content, .fate = fate});
}

void Link::Emit(const FrameSpec &spec, std::string_view content, Fate fate) {
    Emit(capwap::BuildFrame(spec), content, fate);
}

void Link::Send(AccessPoint &ap, From from, uint16_t port, Bytes payload, std::string_view content,
                Fate fate) {
    FrameSpec spec = Between(ap, from, port);
    spec.payload = std::move(payload);
    Emit(spec, content, fate);
}

Fate TunnelFate(const AccessPoint &ap, From from, uint16_t port) {
    if (from == From::kController) {
        return kReturned;
    }
    bool known = ap.registered && (port == kControlPort || ap.dataDtls);
    return known ? Fate{Fate::kDelivered, ap.instance} : DefaultFate();
}

Fate KeepaliveFate(const AccessPoint &ap, From from) {
    if (from == From::kController) {
        return kReturned;
    }
    return ap.registered ? Fate{Fate::kDelivered, ap.instance} : Fate{.kind = Fate::kUndelivered};
}

Fate DefaultFate() {
    return {Fate::kDelivered, kDefaultInstance};
}

Fate StationFate(const capwap::Mac &station, uint32_t instances) {
    uint32_t hash = 5381;
    for (uint8_t byte : station) {
        hash = hash * 33 + byte;
    }
    return {Fate::kDelivered, (hash & 0x7FFFFFFF) % instances};
}

}  // namespace capwap_gen
