#include "capwap_gen/unrelated.h"

#include "capwap/wire.h"

namespace capwap_gen {
namespace {

using capwap::Bytes;
using capwap::FrameSpec;
using capwap::Writer;

void MakePing(FrameSpec &packet, Random &random) {
    constexpr uint8_t kIcmp = 1, kEcho = 8, kIcmp6 = 58, kEcho6 = 128;
    packet.ipProtocol = packet.ipv6 ? kIcmp6 : kIcmp;
    packet.checksumAt = 2;
    Writer echo;
    echo.U8(packet.ipv6 ? kEcho6 : kEcho).U8(0).U16(0).U32(random.Word());
    packet.payload = echo.Raw(random.Bytes(56)).Take();
}

void MakeArp(FrameSpec &packet, Random &random) {
    if (packet.ipv6) {
        return MakePing(packet, random);
    }
    Writer arp;
    arp.U16(1).U16(0x0800).U8(6).U8(4).U16(1);
    arp.Raw(packet.srcMac).U32(packet.srcIp).U32(0).U16(0).U32(packet.dstIp);
    packet.etherType = 0x0806;
    packet.dstMac.fill(0xFF);
    packet.srcIp = packet.dstIp = 0;
    packet.payload = arp.Take();
}

void MakeDnsQuery(FrameSpec &packet, Random &random) {
    Writer query;
    query.U16(random.Word() & 0xFFFF).U16(0x0100).U16(1).U16(0).U16(0).U16(0);
    query.U8(10).Text("controller").U8(7).Text("example").U8(0).U16(1).U16(1);
    packet.srcPort = random.Between<uint16_t>(32768, 49151);
    packet.dstPort = 53;
    packet.payload = query.Take();
}

void MakeNtpRequest(FrameSpec &packet, Random &random) {
    constexpr uint8_t kVersion4Client = 0x23;
    packet.srcPort = packet.dstPort = 123;
    packet.payload = Writer().U8(kVersion4Client).PadTo(40).U64(random.Next()).Take();
}

void MakeTcpSyn(FrameSpec &packet, Random &random) {
    constexpr uint8_t kTcp = 6;
    constexpr uint16_t kFiveWordsSyn = 0x5002;
    constexpr uint16_t kPorts[] = {443, capwap::kControlPort};
    Writer segment;
    segment.U16(random.Between<uint16_t>(32768, 49151)).U16(random.Pick(kPorts));
    segment.U32(random.Word()).U32(0).U16(kFiveWordsSyn).U16(64240).U16(0).U16(0);
    packet.ipProtocol = kTcp;
    packet.checksumAt = 16;
    packet.payload = segment.Take();
}

}  // namespace

FrameSpec UnrelatedPacket(FrameSpec between, Random &random) {
    constexpr void (*kMakers[])(FrameSpec &, Random &) = {MakeArp, MakePing, MakeDnsQuery,
                                                          MakeNtpRequest, MakeTcpSyn};
    random.Pick(kMakers)(between, random);
    return between;
}

}  // namespace capwap_gen
