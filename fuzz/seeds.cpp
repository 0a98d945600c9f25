#include "capwap/packet_builder.h"
#include "fuzz_target.h"

namespace fuzz {

namespace {

std::vector<Bytes> Payloads() {
    const capwap::Header full = {
        .hlenWords = 31, .radioMac = capwap::Mac{1, 2, 3, 4, 5, 6}, .wirelessInfo = Bytes(4)};
    const std::vector<capwap::ExtensionElement> elements = {{1, Bytes(4)}, {6, {0, 7, 0, 0}}};
    return {
        capwap::ControlMessage(13, 1, capwap::Element(25, Bytes(4))),
        capwap::ControlMessage(0x0033DD01, 2, {}, full),
        capwap::Keepalive({0x11, 0x22, 0x33, 0x44}),
        capwap::Keepalive({0x11, 0x22, 0x33, 0x44}, full),
        capwap::DtlsRecord(22, Bytes(30)),
        capwap::DtlsRecord(23, Bytes(30)),
        capwap::ExtendedDataFrame(elements, Bytes(20)),
        {},
    };
}

}  // namespace

std::vector<Bytes> SeedFrames() {
    std::vector<Bytes> frames;
    capwap::FrameSpec wapi;
    wapi.etherType = 0x88B4;
    frames.push_back(BuildFrame(wapi));
    for (const Bytes &payload : Payloads()) {
        for (const uint16_t dstPort : {capwap::kControlPort, capwap::kDataPort}) {
            capwap::FrameSpec spec = {.dstPort = dstPort, .payload = payload};
            spec.srcPort = 40000;
            spec.srcIp = capwap::Ipv4("10.0.10.1");
            spec.dstIp = capwap::Ipv4("10.0.0.1");
            frames.push_back(BuildFrame(spec));
            spec.vlans = {5, 6};
            spec.ipv4Options = Bytes(8, 1);
            frames.push_back(BuildFrame(spec));
            frames.push_back(BuildFragments(spec, 16).front());
            spec.ipv6 = true;
            spec.srcIp6 = capwap::Ipv6("2001:db8::a:1");
            spec.dstIp6 = capwap::Ipv6("2001:db8::1");
            frames.push_back(BuildFrame(spec));
            frames.push_back(BuildFragments(spec, 16).back());
        }
    }
    return frames;
}

}  // namespace fuzz
