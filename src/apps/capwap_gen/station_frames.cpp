#include "capwap_gen/station_frames.h"

#include <array>

#include "capwap/wire.h"

namespace capwap_gen {

using capwap::Bytes;
using capwap::Mac;
using capwap::Writer;

Bytes StationFrame(const Mac &station, From from, size_t dataSize, Random &random) {
    bool toStation = from == From::kController;
    constexpr uint8_t kIcmp = 1, kEchoReply = 0, kEchoRequest = 8;
    uint32_t host = capwap::Ipv4("192.168.0.0") + random.Between(2u, 250u);
    uint32_t server = capwap::Ipv4("198.51.100.7");
    Writer echo;
    echo.U8(toStation ? kEchoReply : kEchoRequest).U8(0).U16(0);
    echo.U32(random.Word()).Raw(random.Bytes(dataSize));
    return capwap::BuildFrame({
        .srcMac = toStation ? kControllerMac : station,
        .dstMac = toStation ? station : kControllerMac,
        .srcIp = toStation ? server : host,
        .dstIp = toStation ? host : server,
        .ipProtocol = kIcmp,
        .ipId = static_cast<uint16_t>(random.Word()),
        .payload = echo.Take(),
        .checksumAt = 2,
        .padToMinimum = false,
    });
}

Bytes ToNative(std::span<const uint8_t> ethernet, const Mac &bssid, Random &random) {
    constexpr uint16_t kDataToDs = 0x0801;
    constexpr std::array<uint8_t, 6> kSnap = {0xAA, 0xAA, 0x03, 0, 0, 0};
    auto destination = ethernet.first(6), source = ethernet.subspan(6, 6);
    Writer out;
    out.U16(kDataToDs).U16(0).Raw(bssid).Raw(source).Raw(destination);
    out.U16(random.Word() & 0xF0FF);  // a sequence number of an unfragmented frame
    return out.Raw(kSnap).Raw(ethernet.subspan(12)).Take();
}

Bytes WaiAnswer(const Mac &station, const Mac &bssid, Random &random) {
    constexpr uint16_t kVersion = 1, kHeader = 12;
    constexpr uint8_t kType = 1, kUnicastKeyResponse = 9, kMulticastKeyResponse = 12;
    constexpr size_t kKeyId = 16, kChallenge = 32, kAnnouncement = 16, kMic = 20;
    bool unicast = random.OneIn(2);
    Writer body;
    body.U8(0);  // flags
    if (unicast) {
        body.Raw(random.Bytes(kKeyId))
            .U8(0)
            .Raw(bssid)
            .Raw(station)
            .Raw(random.Bytes(2 * kChallenge))
            .Raw(Bytes{0x44, 2, 1, 0});
    } else {
        body.U8(0).U8(0).Raw(bssid).Raw(station).Raw(random.Bytes(kAnnouncement));
    }
    body.Raw(random.Bytes(kMic));

    Writer out;
    out.U16(kVersion).U8(kType).U8(unicast ? kUnicastKeyResponse : kMulticastKeyResponse).U16(0);
    out.U16(static_cast<uint32_t>(kHeader + body.Size())).U16(random.Below(100)).U8(0).U8(0);
    return out.Raw(body.From(0)).Take();
}

}  // namespace capwap_gen
