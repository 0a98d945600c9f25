#include "flow.h"

#include <cstring>

#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

uint64_t Mix(uint64_t value) {
    value = (value ^ value >> 32) * 0x9E3779B97F4A7C15;
    return value ^ value >> 29;
}

uint64_t HashOf(const uint32_t (&address)[4]) {
    const auto pair = [&](int i) { return uint64_t{address[i]} << 32 | address[i + 1]; };
    return Mix(pair(0) + Mix(pair(2)));
}

uint64_t HashOf(const uint8_t (&mac)[6]) {
    uint64_t value = 0;
    std::memcpy(&value, mac, sizeof mac);
    return Mix(value);
}

}  // namespace

uint64_t FlowOf(const HostMbuf *packet) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    switch (meta.protoType) {
        case HOST_PROTO_IPV4:
            return Mix(meta.srcIp) + Mix(meta.dstIp);
        case HOST_PROTO_IPV6:
            return HashOf(meta.srcIp6) + HashOf(meta.dstIp6);
        default:
            return HashOf(meta.srcMac) + HashOf(meta.dstMac);
    }
}

}  // namespace kes_engine
