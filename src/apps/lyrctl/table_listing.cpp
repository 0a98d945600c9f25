// What the tables hold: tunnels, sessions, and both by service instance.
#include <algorithm>
#include <map>
#include <optional>
#include <string_view>

#include "control/input_error.h"
#include "control/module_object.h"
#include "control/record_table.h"
#include "control/settings.h"
#include "control/tunnel_rows.h"
#include "control/values.h"
#include "instance.h"
#include "mund/module_objects.h"
#include "own_commands.h"

namespace lyrctl {
namespace {

using control::Arguments;
using control::ReadArray;
using control::ReadObject;

constexpr size_t kIpv4 = 0;
constexpr size_t kIpv6 = 1;

struct TunnelFilter {
    bool families[2] = {true, true};
    std::optional<uint32_t> instance;
    std::optional<uint16_t> port;  // at either end
    std::optional<LyrKesRpcIpAddr> source;
    std::optional<LyrKesRpcIpAddr> destination;
};

std::optional<LyrKesRpcIpAddr> AddressFilter(TunnelFilter &filter, const Arguments &arguments,
                                             std::string_view option) {
    const std::string *text = arguments.Find(option);
    if (text == nullptr) {
        return std::nullopt;
    }
    const LyrKesRpcIpAddr address = control::ParseAddress(option, *text);
    filter.families[address.ipVer == 0 ? kIpv6 : kIpv4] = false;
    return address;
}

TunnelFilter FilterOf(Client &client, const Arguments &arguments) {
    TunnelFilter filter;
    const bool ipv4 = arguments.Find("--ipv4") != nullptr;
    const bool ipv6 = arguments.Find("--ipv6") != nullptr;
    if (ipv4 != ipv6) {
        filter.families[ipv4 ? kIpv6 : kIpv4] = false;
    }
    filter.source = AddressFilter(filter, arguments, "--src");
    filter.destination = AddressFilter(filter, arguments, "--dst");
    if (!filter.families[kIpv4] && !filter.families[kIpv6]) {
        throw control::InputError("--src, --dst, --ipv4 and --ipv6 leave no address family over");
    }
    if (const std::string *port = arguments.Find("--port")) {
        filter.port = static_cast<uint16_t>(control::ParseNumber("--port", *port, UINT16_MAX));
    }
    if (const std::string *node = arguments.Find("--node")) {
        filter.instance = ParseInstance(client, "--node", *node);
    }
    return filter;
}

bool Passes(const std::optional<LyrKesRpcIpAddr> &wanted, uint32_t address) {
    return !wanted || wanted->ipv4Addr == address;
}

bool Passes(const std::optional<LyrKesRpcIpAddr> &wanted, const uint32_t (&address)[4]) {
    for (size_t i = 0; wanted && i < std::size(address); ++i) {
        const uint32_t word = uint32_t{wanted->ipv6Addr[2 * i]} << 16 | wanted->ipv6Addr[2 * i + 1];
        if (word != address[i]) {
            return false;
        }
    }
    return true;
}

template <typename Address, typename Tunnel>
bool Passes(const TunnelFilter &filter, const Address &source, const Address &destination,
            const Tunnel &tunnel) {
    return Passes(filter.source, source) && Passes(filter.destination, destination) &&
           (!filter.instance || tunnel.nodeId == *filter.instance) &&
           (!filter.port || tunnel.key.srcPort == *filter.port ||
            tunnel.key.dstPort == *filter.port);
}

bool Passes(const TunnelFilter &filter, const MundIpv4Tunnel &tunnel) {
    return Passes(filter, tunnel.key.srcIp, tunnel.key.dstIp, tunnel);
}

bool Passes(const TunnelFilter &filter, const MundIpv6Tunnel &tunnel) {
    return Passes(filter, tunnel.key.srcIpv6, tunnel.key.dstIpv6, tunnel);
}

// Sorted, with what does not pass taken out.
template <typename Entry, typename Filter>
std::vector<Entry> Chosen(std::vector<Entry> entries, Filter passes) {
    std::erase_if(entries, [&](const Entry &entry) { return !passes(entry); });
    std::vector<std::pair<std::string, const Entry *>> order;
    order.reserve(entries.size());
    for (const Entry &entry : entries) {
        order.emplace_back(control::SortKey(entry.key), &entry);
    }
    std::ranges::sort(order);
    std::vector<Entry> sorted;
    sorted.reserve(entries.size());
    for (const auto &[key, entry] : order) {
        sorted.push_back(*entry);
    }
    return sorted;
}

// Does something with the tunnels that a command asks for, family by family.
template <typename Use>
void ForChosenTunnels(Client &client, const Arguments &arguments, Use use) {
    const TunnelFilter filter = FilterOf(client, arguments);
    const auto passes = [&filter](const auto &tunnel) { return Passes(filter, tunnel); };
    control::Connection &engine = client.Engine();
    if (filter.families[kIpv4]) {
        use(Chosen(control::ReadIpv4Tunnels(engine), passes));
    }
    if (filter.families[kIpv6]) {
        use(Chosen(control::ReadIpv6Tunnels(engine), passes));
    }
}

ordered_json ToJson(const MundIpv4Tunnel &tunnel) {
    return control::TunnelToJson(control::AddressText(tunnel.key.srcIp), tunnel.key.srcPort,
                                 control::AddressText(tunnel.key.dstIp), tunnel.key.dstPort,
                                 tunnel.key.vpnId, tunnel.nodeId);
}

ordered_json ToJson(const MundIpv6Tunnel &tunnel) {
    return control::TunnelToJson(control::AddressText(tunnel.key.srcIpv6), tunnel.key.srcPort,
                                 control::AddressText(tunnel.key.dstIpv6), tunnel.key.dstPort,
                                 tunnel.key.vpnId, tunnel.nodeId);
}

std::vector<MundSession> ChosenSessions(Client &client, const Arguments &arguments) {
    std::optional<uint32_t> instance;
    if (const std::string *node = arguments.Find("--node")) {
        instance = ParseInstance(client, "--node", *node);
    }
    return Chosen(control::ReadSessions(client.Engine()), [&](const MundSession &session) {
        return !instance || session.nodeId == *instance;
    });
}

// What the tables have of each instance.
struct Holdings {
    uint64_t ipv4Tunnels = 0;
    uint64_t ipv6Tunnels = 0;
    uint64_t sessions = 0;
};

std::vector<Holdings> HoldingsOf(control::EngineView &engine, size_t instances) {
    std::vector<Holdings> holdings(instances);
    const auto count = [&](const auto &entries, uint64_t Holdings::*number) {
        for (const auto &entry : entries) {
            if (entry.nodeId < instances) {
                ++(holdings[entry.nodeId].*number);
            }
        }
    };
    count(control::ReadIpv4Tunnels(engine), &Holdings::ipv4Tunnels);
    count(control::ReadIpv6Tunnels(engine), &Holdings::ipv6Tunnels);
    count(control::ReadSessions(engine), &Holdings::sessions);
    return holdings;
}

// Whether the module has resolved the channel of an instance for a packet type.
std::vector<bool> Resolved(Client &client, uint32_t type) {
    std::vector<bool> resolved;
    for (const uint32_t channel :
         ReadArray<uint32_t>(client.Engine(), MUND_OBJECT_CHANNELS, type)) {
        resolved.push_back(channel != MUND_NO_CHANNEL);
    }
    return resolved;
}

// The packets of each instance that has any, as the engine tells.
std::map<uint64_t, std::pair<uint64_t, uint64_t>> PacketsByInstance(Client &client) {
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> packets;
    try {
        const ordered_json state = client.Engine().State();
        for (const ordered_json &instance : state.at("instances")) {
            packets[instance.at("instance")] = {instance.at("cwp"), instance.at("wapi")};
        }
    } catch (const ordered_json::exception &error) {
        throw control::NotUnderstood(error);
    }
    return packets;
}

}  // namespace

bool AsksTheModule(const Arguments &arguments) {
    return arguments.Find("--port") != nullptr && arguments.Find("--node") == nullptr &&
           arguments.Find("--src") == nullptr && arguments.Find("--dst") == nullptr &&
           arguments.Find("--ipv4") == nullptr;
}

ordered_json ReadTunnelList(Client &client, const Arguments &arguments) {
    ordered_json tunnels = ordered_json::array();
    ForChosenTunnels(client, arguments, [&tunnels](const auto &chosen) {
        for (const auto &tunnel : chosen) {
            tunnels.push_back(ToJson(tunnel));
        }
    });
    const size_t count = tunnels.size();
    return {{"tunnels", std::move(tunnels)}, {"count", count}};
}

ordered_json ReadTunnelCount(Client &client, const Arguments &arguments) {
    size_t count = 0;
    ForChosenTunnels(client, arguments, [&count](const auto &chosen) { count += chosen.size(); });
    return {{"count", count}};
}

std::string RenderTunnelCount(const ordered_json &reply) {
    return "tunnels: " + reply["count"].dump();
}

ordered_json ReadSessionList(Client &client, const Arguments &arguments) {
    ordered_json sessions = ordered_json::array();
    for (const MundSession &session : ChosenSessions(client, arguments)) {
        sessions.push_back({{"session", control::SessionText(session.key.sessionId)},
                            {"instance", session.nodeId}});
    }
    const size_t count = sessions.size();
    return {{"sessions", std::move(sessions)}, {"count", count}};
}

std::string RenderSessionList(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"session", "instance"};
    const ordered_json &sessions = reply["sessions"];
    return sessions.empty() ? "no sessions" : control::RecordTable(kHeadings, sessions);
}

ordered_json ReadSessionCount(Client &client, const Arguments &arguments) {
    return {{"count", ChosenSessions(client, arguments).size()}};
}

std::string RenderSessionCount(const ordered_json &reply) {
    return "sessions: " + reply["count"].dump();
}

ordered_json ReadNodes(Client &client, const Arguments &arguments) {
    std::optional<uint32_t> only;
    if (const std::string *text = arguments.Find("N")) {
        only = ParseInstance(client, "N", *text);
    }
    const auto range = ReadObject<uint64_t>(client.Engine(), MUND_OBJECT_STATION_SERVICE);
    const uint64_t first = static_cast<uint32_t>(range);
    const std::vector<bool> cwp = Resolved(client, MUND_PACKET_CAPWAP);
    const std::vector<bool> wapi = Resolved(client, MUND_PACKET_WAPI);
    const std::vector<Holdings> holdings =
        HoldingsOf(client.Engine(), size_t{LastInstanceOf(client)} + 1);
    const auto packets = PacketsByInstance(client);
    ordered_json instances = ordered_json::array();
    for (size_t i = 0; i < holdings.size(); ++i) {
        if (only && i != *only) {
            continue;
        }
        const auto found = packets.find(i);
        instances.push_back({{"instance", i},
                             {"ipv4Tunnels", holdings[i].ipv4Tunnels},
                             {"ipv6Tunnels", holdings[i].ipv6Tunnels},
                             {"sessions", holdings[i].sessions},
                             {"stations", i >= first && i - first < range >> 32},
                             {"cwpResolved", i < cwp.size() && cwp[i]},
                             {"wapiResolved", i < wapi.size() && wapi[i]},
                             {"cwp", found == packets.end() ? 0 : found->second.first},
                             {"wapi", found == packets.end() ? 0 : found->second.second}});
    }
    return {{"instances", std::move(instances)}};
}

std::string RenderNodes(const ordered_json &reply) {
    constexpr std::string_view kHeadings[] = {"instance",     "IPv4 tunnels", "IPv6 tunnels",
                                              "sessions",     "stations",     "cwp channel",
                                              "wapi channel", "cwp packets",  "wapi packets"};
    ordered_json rows = reply["instances"];
    for (ordered_json &row : rows) {
        row["stations"] = row["stations"].get<bool>() ? "yes" : "no";
        for (const char *channel : {"cwpResolved", "wapiResolved"}) {
            row[channel] = row[channel].get<bool>() ? "resolved" : "-";
        }
    }
    return control::RecordTable(kHeadings, rows);
}

}  // namespace lyrctl
