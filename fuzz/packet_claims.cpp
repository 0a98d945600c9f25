#include "packet_claims.h"

#include "frame_seeds.h"

namespace fuzz {

void Claim(const PacketClaims &claims, HostMbuf *packet) {
    standin::HostMbufMeta &meta = standin::MetaOf(packet);
    packet->dataLen = static_cast<uint16_t>(meta.frameLength);
    meta.protoType = claims.protoType;
    meta.ipProtocol = claims.ipProtocol;
    meta.l2Length = claims.l2Length;
    meta.ipHeaderLength = claims.ipHeaderLength;
    meta.srcPort = claims.srcPort;
    meta.dstPort = claims.dstPort;
    meta.hasMacs = claims.hasMacs != 0;
    meta.diagSwitch = claims.diagSwitch;
}

std::vector<Bytes> SeedsWithClaims() {
    standin::MbufPool pool(1);
    std::vector<Bytes> inputs;
    for (const Bytes &frame : SeedFrames()) {
        HostMbuf *packet = pool.Receive(frame, {});
        const standin::HostMbufMeta &meta = standin::MetaOf(packet);
        const PacketClaims claims = {meta.protoType,
                                     meta.ipProtocol,
                                     meta.l2Length,
                                     meta.ipHeaderLength,
                                     meta.srcPort,
                                     meta.dstPort,
                                     1,
                                     1};
        standin::MbufPool::Release(packet);
        Append(inputs.emplace_back(), claims);
        inputs.back().insert(inputs.back().end(), frame.begin(), frame.end());
    }
    return inputs;
}

}  // namespace fuzz
