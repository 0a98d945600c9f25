// A port with the role that the command line gives it.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "dpdk/port.h"
#include "port_count.h"

namespace kes_dpdk {

enum class Role { kNetwork, kInstance, kKernel };

class UsedPort {
  public:
    // Opens a port. Its number is that of its instance, or its index in the forwarding plane, for
    // which it is DPDK's if there is no other. Throws dpdk::Error.
    UsedPort(const std::string &text, Role role, std::optional<uint32_t> number);

    // Sends packets, and owns those that the port takes: so many, the first ones. Callable from any
    // lcore.
    size_t Send(unsigned lcore, std::span<HostMbuf *const> packets);
    // Sends packets that are the caller's; those that the port does not take are counted, and
    // released. Callable from any lcore.
    void SendAll(unsigned lcore, std::span<HostMbuf *const> packets);

    // A frame that was dropped because it is longer than a buffer.
    void CountOversize() {
        oversize_.fetch_add(1, std::memory_order_relaxed);
    }
    void CountRefused(uint64_t packets) {
        refused_.fetch_add(packets, std::memory_order_relaxed);
    }

    // What is known of it but the instance's own. Callable from any thread.
    kes_engine::PortCount Counts() const;

    dpdk::Port port;
    const Role role;
    const uint32_t number;

  private:
    std::atomic<uint64_t> oversize_{0};
    std::atomic<uint64_t> refused_{0};
    std::atomic<uint64_t> sent_{0};  // drivers forget theirs when the other side goes away
};

}  // namespace kes_dpdk
