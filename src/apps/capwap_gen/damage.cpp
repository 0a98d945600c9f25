#include "capwap_gen/damage.h"

#include <span>

#include "capwap_gen/dtls.h"
#include "capwap_gen/messages.h"

namespace capwap_gen {
namespace {

using capwap::Bytes;
using capwap::FrameSpec;
using capwap::kControlPort;
using capwap::kDataPort;

constexpr size_t kCapwapHeader = 8;

struct Damage {
    AccessPoint &ap;
    Link &link;
    Random &random;

    FrameSpec ToController(uint16_t port, Bytes payload) {
        FrameSpec spec = link.Between(ap, From::kAccessPoint, port);
        spec.payload = std::move(payload);
        return spec;
    }
    // On the control port addresses and ports decide, whatever stands behind them.
    Fate ByPorts(uint16_t port) {
        return TunnelFate(ap, From::kAccessPoint, port);
    }
    template <typename FrameOrSpec>
    void Emit(FrameOrSpec frame, Fate fate) {
        link.Emit(std::move(frame), "damaged", fate);
    }
};

size_t EthernetLength(const AccessPoint &ap) {
    return 14 + 4 * ap.vlans.size();
}

Bytes EchoMessage() {
    return capwap::ControlMessage(kEchoRequest, 0, {});
}

void SetHlen(Bytes &payload, uint32_t words) {
    payload[1] = static_cast<uint8_t>(words << 3 | (payload[1] & 7));
}

void CutFrame(Damage in) {
    Bytes frame = capwap::BuildFrame(in.ToController(kControlPort, in.random.Bytes(100)));
    frame.resize(in.random.Between<size_t>(1, frame.size() - 1));
    size_t portsEnd = EthernetLength(in.ap) + (in.ap.ipv6 ? 40 : 20) + 4;
    Fate fate = frame.size() >= portsEnd ? in.ByPorts(kControlPort) : kReturned;
    in.Emit(std::move(frame), fate);
}

void MissizeControl(Damage in) {
    constexpr int kErrors[] = {-20, -8, -1, 1, 100, 30000};
    FrameSpec spec = in.ToController(kControlPort, EchoMessage());
    spec.udpLengthError = in.random.Pick(kErrors);
    in.Emit(spec, in.ByPorts(kControlPort));
}

void MissizeKeepalive(Damage in) {
    constexpr int kErrors[] = {-35, -8, -1, 1, 100, 30000};
    FrameSpec spec = in.ToController(kDataPort, capwap::Keepalive(in.ap.session));
    spec.udpLengthError = in.random.Pick(kErrors);
    // Bytes that the length announces may be missing; bytes beyond it may not be there.
    in.Emit(spec, spec.udpLengthError > 0 ? KeepaliveFate(in.ap, From::kAccessPoint) : kReturned);
}

void LieInControlHlen(Damage in) {
    constexpr uint32_t kLengths[] = {0, 1, 5, 31};
    Bytes payload = EchoMessage();
    SetHlen(payload, in.random.Pick(kLengths));
    in.Emit(in.ToController(kControlPort, std::move(payload)), in.ByPorts(kControlPort));
}

void LieInKeepaliveHlen(Damage in) {
    constexpr uint32_t kLengths[] = {0, 1, 3, 31};
    Bytes payload = capwap::Keepalive(in.ap.session);
    SetHlen(payload, in.random.Pick(kLengths));
    in.Emit(in.ToController(kDataPort, std::move(payload)), kReturned);
}

// The length of all elements, or type or length of the session id, is another.
void LieInKeepaliveElement(Damage in) {
    constexpr size_t kLowBytes[] = {kCapwapHeader + 1, kCapwapHeader + 3, kCapwapHeader + 5};
    Bytes payload = capwap::Keepalive(in.ap.session);
    payload[in.random.Pick(kLowBytes)]++;
    in.Emit(in.ToController(kDataPort, std::move(payload)), kReturned);
}

void CutDtlsRecord(Damage in) {
    constexpr size_t kHeaders = 17;  // of CAPWAP DTLS and of the record
    Bytes record = capwap::DtlsRecord(22, in.random.Bytes(60));
    record.resize(in.random.Between(kHeaders - 4, kHeaders + 4));
    Fate fate = record.size() >= kHeaders ? in.ByPorts(kDataPort) : kReturned;
    in.Emit(in.ToController(kDataPort, std::move(record)), fate);
}

void LieInIpVersion(Damage in) {
    Bytes frame = capwap::BuildFrame(in.ToController(kControlPort, EchoMessage()));
    frame[EthernetLength(in.ap)] ^= 0x90;
    in.Emit(std::move(frame), kReturned);
}

void LieInElementLength(Damage in) {
    Bytes payload = EchoMessage();
    payload[kCapwapHeader + 6] = in.random.Between<uint8_t>(4, 255);
    in.Emit(in.ToController(kControlPort, std::move(payload)), in.ByPorts(kControlPort));
}

void LieInCapwapVersion(Damage in) {
    Bytes payload = EchoMessage();
    payload[0] = 0x10;
    in.Emit(in.ToController(kControlPort, std::move(payload)), in.ByPorts(kControlPort));
}

void LieInExtension(Damage in) {
    const capwap::ExtensionElement wlanId = {6, {0, 1, 0, 0}};
    Bytes payload = capwap::ExtendedDataFrame(std::span(&wlanId, 1), in.random.Bytes(60));
    constexpr size_t kLowBytesOfLengths[] = {kCapwapHeader + 3, kCapwapHeader + 7};
    payload[in.random.Pick(kLowBytesOfLengths)] = in.random.OneIn(2) ? 0 : 250;
    in.Emit(in.ToController(kDataPort, std::move(payload)), kReturned);
}

}  // namespace

void EmitDamaged(AccessPoint &ap, Link &link, Random &random) {
    constexpr void (*kDamages[])(Damage) = {
        CutFrame,           MissizeControl,        MissizeKeepalive, LieInControlHlen,
        LieInKeepaliveHlen, LieInKeepaliveElement, CutDtlsRecord,    LieInIpVersion,
        LieInElementLength, LieInCapwapVersion,    LieInExtension,
    };
    random.Pick(kDamages)({ap, link, random});
}

}  // namespace capwap_gen
