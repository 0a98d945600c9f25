#include "capwap_gen/dtls.h"

#include "capwap/wire.h"

namespace capwap_gen {
namespace {

using capwap::Bytes;
using capwap::Writer;

constexpr uint8_t kChangeCipherSpec = 20, kAlert = 21, kHandshake = 22, kApplicationData = 23;
constexpr uint8_t kClientHello = 1, kServerHello = 2, kHelloVerifyRequest = 3,
                  kServerHelloDone = 14, kClientKeyExchange = 16;
constexpr uint16_t kDtls12 = 0xFEFD;
constexpr uint16_t kPskAes128CbcSha = 0x008C, kDhePskAes128CbcSha = 0x0090;
constexpr uint64_t kEncryptedEpoch = uint64_t{1} << 48;
constexpr std::string_view kHandshakeContent = "DTLS handshake",
                           kCipherChangeContent = "DTLS change cipher spec";

// What a CBC cipher with SHA-1 makes of a short message: a vector and some blocks.
Bytes Encrypted(size_t blocks, Random &random) {
    return random.Bytes(16 * (1 + blocks));
}

// One end of the handshake: it numbers its messages and its records.
class Speaker {
  public:
    Speaker(From who, Random &random) : who_(who), random_(random) {}

    Bytes Handshake(uint8_t type, const Bytes &body) {
        auto length = static_cast<uint32_t>(body.size());
        Writer message;
        message.U8(type).U8(length >> 16).U16(length).U16(messages_++);
        message.U8(0).U16(0).U8(length >> 16).U16(length).Raw(body);
        return capwap::DtlsRecord(kHandshake, message.From(0), records_++);
    }
    Bytes ChangeCipherSpec() {
        return capwap::DtlsRecord(kChangeCipherSpec, Bytes{1}, records_++);
    }
    Bytes Finished() {
        return capwap::DtlsRecord(kHandshake, Encrypted(3, random_), kEncryptedEpoch);
    }
    DtlsDatagram Says(Bytes payload, std::string_view content = kHandshakeContent) const {
        return {who_, std::move(payload), content};
    }

  private:
    From who_;
    Random &random_;
    uint16_t messages_ = 0;
    uint64_t records_ = 0;
};

// Both records in one datagram, behind one CAPWAP DTLS header.
Bytes Together(Bytes first, const Bytes &second) {
    constexpr size_t kCapwapDtlsHeader = 4;
    first.insert(first.end(), second.begin() + kCapwapDtlsHeader, second.end());
    return first;
}

Bytes ClientHello(const Bytes &clientRandom, const Bytes &cookie) {
    Writer hello;
    hello.U16(kDtls12).Raw(clientRandom).U8(0);
    hello.U8(static_cast<uint32_t>(cookie.size())).Raw(cookie);
    hello.U16(4).U16(kPskAes128CbcSha).U16(kDhePskAes128CbcSha);
    return hello.U8(1).U8(0).Take();  // no compression
}

}  // namespace

std::vector<DtlsDatagram> DtlsHandshake(std::string_view identity, Random &random) {
    Speaker client(From::kAccessPoint, random), server(From::kController, random);
    Bytes clientRandom = random.Bytes(32), cookie = random.Bytes(20);
    Bytes verify = Writer().U16(kDtls12).U8(20).Raw(cookie).Take();
    Bytes serverHello = Writer()
                            .U16(kDtls12)
                            .Raw(random.Bytes(32))
                            .U8(32)
                            .Raw(random.Bytes(32))
                            .U16(kPskAes128CbcSha)
                            .U8(0)
                            .Take();
    Bytes keyExchange = Writer().U16(static_cast<uint32_t>(identity.size())).Text(identity).Take();

    std::vector<DtlsDatagram> flights;
    flights.push_back(client.Says(client.Handshake(kClientHello, ClientHello(clientRandom, {}))));
    flights.push_back(server.Says(server.Handshake(kHelloVerifyRequest, verify)));
    flights.push_back(
        client.Says(client.Handshake(kClientHello, ClientHello(clientRandom, cookie))));
    Bytes hello = server.Handshake(kServerHello, serverHello);
    flights.push_back(server.Says(Together(hello, server.Handshake(kServerHelloDone, {}))));
    flights.push_back(client.Says(client.Handshake(kClientKeyExchange, keyExchange)));
    flights.push_back(client.Says(client.ChangeCipherSpec(), kCipherChangeContent));
    flights.push_back(client.Says(client.Finished()));
    Bytes change = server.ChangeCipherSpec();
    flights.push_back(server.Says(Together(change, server.Finished()), kCipherChangeContent));
    return flights;
}

Bytes DtlsApplicationData(uint64_t number, Random &random) {
    Bytes sealed = Encrypted(random.Between<size_t>(3, 20), random);
    return capwap::DtlsRecord(kApplicationData, sealed, kEncryptedEpoch + 1 + number);
}

Bytes DtlsAlert(uint64_t number, Random &random) {
    return capwap::DtlsRecord(kAlert, Encrypted(2, random), kEncryptedEpoch + 1 + number);
}

}  // namespace capwap_gen
