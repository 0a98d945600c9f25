#include "control/settings.h"

#include <algorithm>
#include <string_view>

#include "capwap/message_type.h"
#include "control/values.h"

namespace control {
namespace {

using std::to_string;

constexpr uint16_t kCapwapControlPort = 5246;
constexpr uint32_t kDefaultVpn = 0xFFFF;

// --- keys ---

// Numbers with their highest byte first.
void Append(std::string &key, uint32_t number, int bytes = 4) {
    while (bytes-- > 0) {
        key += static_cast<char>(number >> 8 * bytes);
    }
}

void Append(std::string &key, const uint32_t (&words)[4]) {
    for (const uint32_t word : words) {
        Append(key, word);
    }
}

template <typename Address>
std::string TunnelKey(const Address &source, uint16_t sourcePort, const Address &destination,
                      uint16_t destinationPort, uint32_t vpn) {
    std::string key;
    Append(key, source);
    Append(key, sourcePort, 2);
    Append(key, destination);
    Append(key, destinationPort, 2);
    Append(key, vpn);
    return key;
}

// --- commands ---

template <typename Address>
Setting TunnelSetting(Section section, const Address &source, const Address &destination,
                      const auto &tunnel) {
    std::string command = "tunnel add " + AddressText(source) + " " +
                          to_string(tunnel.key.srcPort) + " " + AddressText(destination) + " " +
                          to_string(tunnel.key.dstPort) + " --node " + to_string(tunnel.nodeId);
    if (tunnel.key.vpnId != 0) {
        command += " --vpn " + to_string(tunnel.key.vpnId);
    }
    return {section, SortKey(tunnel.key), std::move(command), true, tunnel.nodeId};
}

bool AllOnes(uint32_t address) {
    return address == UINT32_MAX;
}

bool AllOnes(const uint32_t (&address)[4]) {
    return std::ranges::all_of(address, [](uint32_t word) { return word == UINT32_MAX; });
}

template <typename Address>
bool IsDefault(const Address &source, const Address &destination, const auto &key) {
    return AllOnes(source) && AllOnes(destination) && key.srcPort == UINT16_MAX &&
           key.dstPort == kCapwapControlPort && key.vpnId == kDefaultVpn;
}

Setting DefaultSetting(uint32_t instance, bool ipv6) {
    return {Section::kDefaults, ipv6 ? "6" : "4",
            "tunnel default --node " + to_string(instance) + (ipv6 ? " --ipv6" : ""), true,
            instance};
}

// Empty for an address that there is not.
std::string ModuleAddressText(const MundModuleAddress &address) {
    return address.ipVer == 4   ? AddressText(address.words[0])
           : address.ipVer == 6 ? AddressText(address.words)
                                : "";
}

Setting SourceSetting(uint32_t position, const MundSourceRecord &source) {
    const std::string address = ModuleAddressText(source.address);
    const std::string key(1, static_cast<char>('0' + position));
    const bool known =
        source.srcType >= MUND_SOURCE_ADDRESS && source.srcType <= MUND_SOURCE_ANY_INTERFACE;
    if (!known || address.empty()) {
        return {Section::kSources, key,
                "position " + key + " has a source of type " + to_string(source.srcType) +
                    (address.empty() ? " without an address" : ", address " + address) +
                    ", which no command declares",
                false};
    }
    return {Section::kSources, key,
            "source set " + key + "=" + to_string(source.srcType) + "," + address +
                (source.ifIndex != 0 ? "," + to_string(source.ifIndex) : "")};
}

Setting StationSetting(uint64_t range, uint32_t lastInstance) {
    const auto first = static_cast<uint32_t>(range);
    const auto count = static_cast<uint32_t>(range >> 32);
    const std::string numbers = to_string(first) + " " + to_string(count);
    if (count != 0 && uint64_t{first} + count - 1 > lastInstance) {
        return {Section::kStations, "",
                "the range of stations, " + numbers + ", reaches beyond the last instance, " +
                    to_string(lastInstance) + ", which no command sets",
                false};
    }
    return {Section::kStations, "", "wapi " + numbers};
}

// A filter as an option, if it filters.
std::string AddressOption(const char *option, uint8_t family, const uint32_t (&words)[4]) {
    const bool any = family == 4   ? words[0] == 0
                     : family == 6 ? (words[0] | words[1] | words[2] | words[3]) == 0
                                   : true;
    return any ? ""
               : std::string(option) + (family == 4 ? AddressText(words[0]) : AddressText(words));
}

std::string NumberOption(const char *option, uint32_t number) {
    return number == 0 ? "" : option + to_string(number);
}

// By name, where the name is understood.
std::string MessageTypeText(uint32_t type) {
    std::string name = IdentifierOf(capwap::MessageTypeName(type));
    std::ranges::replace(name, '_', '-');
    return capwap::MessageTypeByName(name) == type ? name : to_string(type);
}

Setting TraceSetting(const MundTraceConfig &trace) {
    constexpr uint32_t kLevels = MUND_TRACE_FAILURES | MUND_TRACE_PACKETS;
    if (trace.debugLevel == 0 || trace.debugLevel > kLevels) {
        return {Section::kTrace, "",
                "the trace has level " + to_string(trace.debugLevel) + ", which no command sets",
                false};
    }
    const std::string mac = MacText(trace.mac);
    return {
        Section::kTrace, "",
        "trace set --level " + to_string(trace.debugLevel) +
            AddressOption(" --src ", trace.srcIpFamily, trace.srcIp) +
            AddressOption(" --dst ", trace.dstIpFamily, trace.dstIp) +
            NumberOption(" --sport ", trace.srcPort) + NumberOption(" --dport ", trace.dstPort) +
            (trace.capwapMsgType != 0 ? " --type " + MessageTypeText(trace.capwapMsgType) : "") +
            (mac != "00:00:00:00:00:00" ? " --mac " + mac : "")};
}

}  // namespace

std::string SortKey(const MundIpv4TunnelKey &key) {
    return TunnelKey(key.srcIp, key.srcPort, key.dstIp, key.dstPort, key.vpnId);
}

std::string SortKey(const MundIpv6TunnelKey &key) {
    return TunnelKey(key.srcIpv6, key.srcPort, key.dstIpv6, key.dstPort, key.vpnId);
}

std::string SortKey(const MundSessionKey &session) {
    std::string key;
    Append(key, session.sessionId);
    return key;
}

Setting SettingOf(const MundIpv4Tunnel &tunnel) {
    const MundIpv4TunnelKey &key = tunnel.key;
    return IsDefault(key.srcIp, key.dstIp, key)
               ? DefaultSetting(tunnel.nodeId, false)
               : TunnelSetting(Section::kIpv4Tunnels, key.srcIp, key.dstIp, tunnel);
}

Setting SettingOf(const MundIpv6Tunnel &tunnel) {
    const MundIpv6TunnelKey &key = tunnel.key;
    return IsDefault(key.srcIpv6, key.dstIpv6, key)
               ? DefaultSetting(tunnel.nodeId, true)
               : TunnelSetting(Section::kIpv6Tunnels, key.srcIpv6, key.dstIpv6, tunnel);
}

Setting SettingOf(const MundSession &session) {
    return {Section::kSessions, SortKey(session.key),
            "session add " + SessionText(session.key.sessionId) + " --node " +
                to_string(session.nodeId),
            true, session.nodeId};
}

std::vector<Setting> SettingsOf(const ModuleState &state, uint32_t lastInstance) {
    std::vector<Setting> settings;
    settings.reserve(state.ipv4Tunnels.size() + state.ipv6Tunnels.size() + state.sessions.size() +
                     16);
    for (uint32_t position = 0; position < state.sources.size(); ++position) {
        const uint32_t type = state.sources[position].srcType;
        if (type != MUND_SOURCE_NONE && type != MUND_SOURCE_FREE) {
            settings.push_back(SourceSetting(position, state.sources[position]));
        }
    }
    if (state.stations != 0) {
        settings.push_back(StationSetting(state.stations, lastInstance));
    }
    const auto add = [&settings](const auto &entry) { settings.push_back(SettingOf(entry)); };
    std::ranges::for_each(state.ipv4Tunnels, add);
    std::ranges::for_each(state.ipv6Tunnels, add);
    std::ranges::for_each(state.sessions, add);
    if (state.trace.enable != 0) {
        settings.push_back(TraceSetting(state.trace));
    }
    if (state.messageType != LYR_KES_MSG_TYPE_OFF) {
        settings.push_back({Section::kSelections, "messages",
                            "msgtype select " + MessageTypeText(state.messageType)});
    }
    if (const std::string peer = ModuleAddressText(state.ping); !peer.empty()) {
        settings.push_back({Section::kSelections, "ping", "ping set " + peer});
    }
    std::ranges::sort(settings, std::less<>());
    return settings;
}

std::vector<Difference> Compare(const std::vector<Setting> &left,
                                const std::vector<Setting> &right) {
    std::vector<Difference> differences;
    auto l = left.begin();
    auto r = right.begin();
    while (l != left.end() || r != right.end()) {
        const bool onlyLeft = r == right.end() || (l != left.end() && *l < *r);
        const bool onlyRight = !onlyLeft && (l == left.end() || *r < *l);
        if (onlyLeft || onlyRight || l->command != r->command) {
            differences.push_back({onlyRight ? nullptr : &*l, onlyLeft ? nullptr : &*r});
        }
        l += onlyRight ? 0 : 1;
        r += onlyLeft ? 0 : 1;
    }
    return differences;
}

}  // namespace control
