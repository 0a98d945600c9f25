#include "frame_seeds.h"

#include <map>
#include <string>

#include "capture/reader.h"
#include "capwap/describe.h"
#include "capwap/message_type.h"
#include "capwap/packet_builder.h"
#include "capwap_gen/traffic.h"

namespace fuzz {

namespace {

std::vector<Bytes> Payloads() {
    const capwap::Header full = {
        .hlenWords = 31, .radioMac = capwap::Mac{1, 2, 3, 4, 5, 6}, .wirelessInfo = Bytes(4)};
    const capwap::Header fragment = {.fragment = true, .fragmentId = 1};
    const std::vector<capwap::ExtensionElement> elements = {{1, Bytes(4)}, {6, {0, 7, 0, 0}}};
    return {
        capwap::ControlMessage(13, 1, capwap::Element(25, Bytes(4))),
        capwap::ControlMessage(0x0033DD01, 2, {}, full),
        capwap::Keepalive({0x11, 0x22, 0x33, 0x44}),
        capwap::Keepalive({0x11, 0x22, 0x33, 0x44}, full),
        capwap::DtlsRecord(22, Bytes(30)),
        capwap::DtlsRecord(23, Bytes(30)),
        capwap::ExtendedDataFrame(elements, Bytes(20)),
        capwap::ControlMessage(capwap::kVendorPingRequest, 3, Bytes(60)),
        capwap::ControlMessage(capwap::kVendorPingResponse, 3, Bytes(27), fragment),
        capwap::ControlMessage(capwap::kVendorPingResponse, 3, Bytes(28), fragment),
        capwap::ControlMessage(capwap::kVendorProbeRequest, 4, Bytes(24)),
        capwap::ControlMessage(capwap::kVendorProbeResponse, 4, Bytes(30), full),
        {},
    };
}

void AddBuiltFrames(std::vector<Bytes> &frames) {
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
}

// Keeps the shortest frame of each content, if it is short: mutations of long ones mostly touch
// what nobody reads.
class Shortest {
  public:
    void Add(std::string_view content, ByteSpan frame) {
        constexpr size_t kLongest = 400;
        Bytes &kept = byContent_[std::string(content)];
        if (frame.size() <= kLongest && (kept.empty() || frame.size() < kept.size())) {
            kept.assign(frame.begin(), frame.end());
        }
    }
    void MoveTo(std::vector<Bytes> &frames) {
        for (auto &[content, frame] : byContent_) {
            if (!frame.empty()) {
                frames.push_back(std::move(frame));
            }
        }
        byContent_.clear();
    }

  private:
    std::map<std::string, Bytes> byContent_;
};

void AddGeneratedFrames(std::vector<Bytes> &frames) {
    capwap_gen::TrafficOptions options;
    options.accessPoints = 8;
    for (const capwap_gen::KindInfo &kind : capwap_gen::kKinds) {
        options.mix.Set(kind.kind, 1);
    }
    Shortest shortest;
    capwap_gen::Traffic(options).Generate(
        [&shortest](const capwap_gen::Frame &frame) { shortest.Add(frame.content, frame.bytes); });
    shortest.MoveTo(frames);
}

void AddSession(std::vector<Bytes> &frames) {
    capture::Reader session(LYR_FUZZ_SESSION);
    Shortest shortest;
    while (const auto frame = session.Next()) {
        shortest.Add(capwap::Describe(frame->bytes), frame->bytes);
    }
    shortest.MoveTo(frames);
}

}  // namespace

std::vector<Bytes> SeedFrames() {
    std::vector<Bytes> frames;
    AddBuiltFrames(frames);
    AddGeneratedFrames(frames);
    AddSession(frames);
    return frames;
}

std::vector<Bytes> SeedsBehind(const Bytes &head) {
    std::vector<Bytes> inputs = SeedFrames();
    for (Bytes &input : inputs) {
        input.insert(input.begin(), head.begin(), head.end());
    }
    return inputs;
}

}  // namespace fuzz
