#include "standin/packet_path.h"

#include <algorithm>
#include <cstdint>

#include "host/hooks.h"

namespace standin {
namespace {

constexpr uint32_t kReceivePath[] = {HOST_HOOK_RX_IN, HOST_HOOK_RX_OUT, HOST_HOOK_HOST_RX};
constexpr uint32_t kTransmitPath[] = {HOST_HOOK_TX_IN, HOST_HOOK_TX_OUT};

void RunPath(std::span<const uint32_t> points, std::span<HostMbuf *const> packets,
             std::span<Fate> fates) {
    while (!packets.empty()) {
        const size_t burst = std::min(packets.size(), kMaxBurst);
        RunPoints(points, packets.first(burst), fates.first(burst));
        packets = packets.subspan(burst);
        fates = fates.subspan(burst);
    }
}

Fate RunPath(std::span<const uint32_t> points, HostMbuf *packet) {
    Fate fate;
    RunPoints(points, {&packet, 1}, {&fate, 1});
    return fate;
}

}  // namespace

void RunReceivePath(std::span<HostMbuf *const> packets, std::span<Fate> fates) {
    RunPath(kReceivePath, packets, fates);
}

Fate RunReceivePath(HostMbuf *packet) {
    return RunPath(kReceivePath, packet);
}

void RunTransmitPath(std::span<HostMbuf *const> packets, std::span<Fate> fates) {
    RunPath(kTransmitPath, packets, fates);
}

Fate RunTransmitPath(HostMbuf *packet) {
    return RunPath(kTransmitPath, packet);
}

}  // namespace standin
