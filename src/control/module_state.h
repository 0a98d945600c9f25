// What the module has been told and holds: sources, tunnels, sessions, stations, trace, selections.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "control/engine_view.h"
#include "mund/module_objects.h"
#include "mund/table_entries.h"

namespace control {

struct ModuleState {
    std::array<MundSourceRecord, LYR_KES_CWP_SRC_NUM> sources = {};
    uint64_t stations = 0;       // as MUND_OBJECT_STATION_SERVICE
    MundTraceConfig trace = {};  // of zeros while it is off
    uint32_t messageType = LYR_KES_MSG_TYPE_OFF;
    MundModuleAddress ping = {};  // the peer; of zeros: none
    // In any order, every key once.
    std::vector<MundIpv4Tunnel> ipv4Tunnels;
    std::vector<MundIpv6Tunnel> ipv6Tunnels;
    std::vector<MundSession> sessions;

    // Nothing is registered, nothing switched on.
    ModuleState();
    // Whether both are the same byte for byte, order included.
    bool operator==(const ModuleState &other) const;
};

// How large a module is.
struct ModuleSize {
    uint32_t lastInstance = 0;
    std::array<uint32_t, MUND_TABLE_NUM> buckets = {};

    bool operator==(const ModuleSize &) const = default;
};

// What is in the module now. Entries that come or go meanwhile may be in it or not. Throws
// Refused, also for what is not as it should be, and what the engine's own throw.
ModuleState ReadState(EngineView &engine);
ModuleSize ReadSize(EngineView &engine);

// The entries of a table; marks of audits are left out, so that equal entries are equal bytes.
std::vector<MundIpv4Tunnel> ReadIpv4Tunnels(EngineView &engine);
std::vector<MundIpv6Tunnel> ReadIpv6Tunnels(EngineView &engine);
std::vector<MundSession> ReadSessions(EngineView &engine);

}  // namespace control
