// What the engine claims of a packet, at the front of an input.
#pragma once

#include "fuzz_target.h"
#include "standin/mbuf_pool.h"

namespace fuzz {

struct PacketClaims {
    uint8_t protoType;
    uint8_t ipProtocol;
    uint16_t l2Length;
    uint16_t ipHeaderLength;
    uint16_t srcPort;
    uint16_t dstPort;
    uint8_t hasMacs;
    uint8_t diagSwitch;
};
static_assert(sizeof(PacketClaims) == 12, "no padding");

// Has the engine claim that of a packet, and give it its whole frame.
void Claim(const PacketClaims &claims, HostMbuf *packet);

// The seed frames, each behind what is true of it.
std::vector<Bytes> SeedsWithClaims();

}  // namespace fuzz
