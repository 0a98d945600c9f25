#include "used_port.h"

#include "standin/engine_parts.h"

namespace kes_dpdk {
namespace {

const char *WordOf(Role role) {
    switch (role) {
        case Role::kNetwork:
            return "network";
        case Role::kInstance:
            return "instance";
        case Role::kKernel:
            return "kernel";
    }
    return "unknown";
}

}  // namespace

UsedPort::UsedPort(const std::string &text, Role ofPort, std::optional<uint32_t> itsNumber)
    : port(text), role(ofPort), number(itsNumber.value_or(port.Id())) {}

size_t UsedPort::Send(unsigned lcore, std::span<HostMbuf *const> packets) {
    const size_t sent = packets.empty() ? 0 : port.Send(lcore, packets);
    if (sent > 0) {
        sent_.fetch_add(sent, std::memory_order_relaxed);
    }
    return sent;
}

void UsedPort::SendAll(unsigned lcore, std::span<HostMbuf *const> packets) {
    const size_t sent = Send(lcore, packets);
    if (sent < packets.size()) {
        CountRefused(packets.size() - sent);
        standin::Release(packets.subspan(sent));
    }
}

kes_engine::PortCount UsedPort::Counts() const {
    const dpdk::PortCounts counts = port.Counts();
    return {.name = port.Name(),
            .role = WordOf(role),
            .instance = role == Role::kInstance ? std::optional(number) : std::nullopt,
            .up = port.IsUp(),
            .receivedPackets = counts.receivedPackets,
            .receivedBytes = counts.receivedBytes,
            .receiveErrors = counts.receiveErrors,
            .missed = counts.missed,
            .noBuffer = counts.noBuffer,
            .sentBytes = counts.sentBytes,
            .sendErrors = counts.sendErrors,
            .sentPackets = sent_.load(std::memory_order_relaxed),
            .oversize = oversize_.load(std::memory_order_relaxed),
            .refused = refused_.load(std::memory_order_relaxed)};
}

}  // namespace kes_dpdk
