// Packets of which the engine claims anything, before the readers of CAPWAP headers.
#include <algorithm>
#include <cstring>

#include "fuzz_target.h"
#include "reader_checks.h"
#include "standin/mbuf_pool.h"

namespace {

// The first bytes of an input.
struct Claims {
    uint8_t protoType;
    uint8_t ipProtocol;
    uint16_t l2Length;
    uint16_t ipHeaderLength;
    uint16_t srcPort;
    uint16_t dstPort;
    uint8_t hasMacs;
    uint8_t diagSwitch;
};
static_assert(sizeof(Claims) == 12, "no padding");

standin::MbufPool pool(1);

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Claims claims;
    if (size < sizeof(claims)) {
        return 0;
    }
    std::memcpy(&claims, data, sizeof(claims));
    HostMbuf *packet = pool.Receive({data + sizeof(claims), size - sizeof(claims)}, {});
    if (packet == nullptr) {
        return 0;
    }
    packet->dataLen = static_cast<uint16_t>(size - sizeof(claims));
    standin::HostMbufMeta &meta = standin::MetaOf(packet);
    meta.protoType = claims.protoType;
    meta.ipProtocol = claims.ipProtocol;
    meta.l2Length = claims.l2Length;
    meta.ipHeaderLength = claims.ipHeaderLength;
    meta.srcPort = claims.srcPort;
    meta.dstPort = claims.dstPort;
    meta.hasMacs = claims.hasMacs != 0;
    meta.diagSwitch = claims.diagSwitch;
    fuzz::CheckReaders(packet);
    standin::MbufPool::Release(packet);
    return 0;
}

fuzz::Bytes fuzz::SeedInput(const Bytes &frame) {
    HostMbuf *packet = pool.Receive(frame, {});
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    const Claims claims = {meta.protoType,
                           meta.ipProtocol,
                           meta.l2Length,
                           meta.ipHeaderLength,
                           meta.srcPort,
                           meta.dstPort,
                           1,
                           1};
    standin::MbufPool::Release(packet);
    Bytes input(sizeof(claims) + frame.size());
    std::memcpy(input.data(), &claims, sizeof(claims));
    std::ranges::copy(frame, input.begin() + sizeof(claims));
    return input;
}
