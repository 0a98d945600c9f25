// The module as the benchmarks meet it: started on the stand-in engine, its tables filled, with
// service instances that take what it hands over.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kes/mbuf.h"
#include "kes/thread.h"

namespace bench {

constexpr uint32_t kMaxThreads = 2;
// The service instance of unregistered tunnels; those below it belong to a benchmark thread each.
constexpr uint32_t kDefaultInstance = kMaxThreads;

struct ModuleSetup {
    // Capabilities: they size the tables.
    uint32_t linkNum = 8999;
    uint32_t dataLinkNum = 8999;
    // What is registered.
    uint32_t ipv4Tunnels = 0;
    uint32_t ipv6Tunnels = 0;
    uint32_t sessions = 0;
    bool defaultTunnels = false;
    // The instances, from 0, that the tunnels, sessions and stations are spread over.
    uint32_t owners = 1;
    // Where the controller's IPv4 source stands among the eight; its IPv6 source stands next.
    uint32_t sourcePosition = 0;
    // Count hand-offs by message type, echo requests selected, and the pings of one access point.
    bool diagnostics = false;

    bool operator==(const ModuleSetup &) const = default;
};

// Starts the module like this, unless it runs like this already. For the first thread of a
// benchmark, before the measuring begins; the others may use the module once it has begun.
void RunModule(const ModuleSetup &setup);
void StopModule();

// The channel of an instance for a packet type, and the thread that is woken.
uint32_t ChannelOf(uint32_t instance, uint32_t pktType);
TovThreadInfo *ThreadOf(uint32_t instance);

// Takes all packets out of an instance's channel and releases them; how many there were.
size_t DrainChannel(uint32_t instance, uint32_t pktType);

}  // namespace bench
