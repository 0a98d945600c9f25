// A module's state as commands: in order, compared, and written as a file that makes it again.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control/module_state.h"

namespace control {

// Parts of a state, in the order in which they are written.
enum class Section {
    kSources,
    kStations,
    kDefaults,
    kIpv4Tunnels,
    kIpv6Tunnels,
    kSessions,
    kTrace,
    kSelections
};

// One thing that the module has been told.
struct Setting {
    Section section;
    std::string key;      // what it is about; sorts as addresses and numbers do
    std::string command;  // that makes it, or else what it is
    bool hasCommand = true;
    std::optional<uint32_t> instance = std::nullopt;  // that owns it

    bool SameThing(const Setting &other) const {
        return section == other.section && key == other.key;
    }
    bool operator<(const Setting &other) const {
        return section != other.section ? section < other.section : key < other.key;
    }
};

// What an entry sorts by: source, source port, destination, destination port, VPN; session id.
std::string SortKey(const MundIpv4TunnelKey &key);
std::string SortKey(const MundIpv6TunnelKey &key);
std::string SortKey(const MundSessionKey &key);

Setting SettingOf(const MundIpv4Tunnel &tunnel);
Setting SettingOf(const MundIpv6Tunnel &tunnel);
Setting SettingOf(const MundSession &session);

// Everything that is not as in a module that has just started, sorted.
std::vector<Setting> SettingsOf(const ModuleState &state, uint32_t lastInstance);

// What two states differ in; null where one of them does not have the thing.
struct Difference {
    const Setting *left;
    const Setting *right;
};

// In order; both are sorted, and outlive the result.
std::vector<Difference> Compare(const std::vector<Setting> &left,
                                const std::vector<Setting> &right);

}  // namespace control
