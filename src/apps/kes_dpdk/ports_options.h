// The command line of kes_dpdk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "address_resolution.h"
#include "common_options.h"

namespace kes_dpdk {

// The longest frame that a buffer of DPDK's takes, which counts its bytes in 16 bits.
inline constexpr uint32_t kLongestFrame = 65535 - 128;

struct NetworkPort {
    std::string port;
    std::optional<uint32_t> index;  // in the forwarding plane; DPDK's own if there is none
};

struct InstancePort {
    uint32_t instance;
    std::string port;
};

struct PortsOptions : kes_engine::CommonOptions {
    std::vector<std::string> environment;  // DPDK's own arguments
    std::vector<NetworkPort> networks;     // empty: all ports that have no other role
    std::vector<InstancePort> instances;
    std::string kernel;                   // port of the system's own stack; empty: none
    std::vector<AddressBytes> addresses;  // that instances answer for; empty: any
    uint32_t buffers = 0;  // 0: as many as the ports and channels may hold, and some more
    uint16_t longestFrame = 2048;
    uint32_t channelSize = 2048;
    bool reassemble = false;   // fragments, before the hooks
    bool busy = false;         // lcores never rest
    uint32_t idleSeconds = 0;  // without a packet, after which the run ends; 0: never
};

// Reads the command line. Nothing after --help and --version, which it has answered on standard
// output. Throws UsageError.
std::optional<PortsOptions> ParseOptions(int argc, char **argv);

}  // namespace kes_dpdk
