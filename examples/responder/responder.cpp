#include "responder.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace responder {
namespace {

constexpr uint16_t kSessionIdElement = 35;

LyrKesRpcIpAddr AddressOf(const std::string &text) {
    LyrKesRpcIpAddr address = {};
    if (LyrClientAddressFromText(text.c_str(), &address) != 0) {
        throw std::runtime_error("not an address: " + text);
    }
    return address;
}

LyrKesRpcIpAddr AddressOf(const Peer &peer) {
    const auto bytes = peer.Bytes();
    LyrKesRpcIpAddr address = {.ipVer = peer.IsIpv6() ? 1u : 0u, .ipv4Addr = 0, .ipv6Addr = {}};
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (peer.IsIpv6()) {
            auto &group = address.ipv6Addr[i / 2];
            group = static_cast<uint16_t>(group << 8 | bytes[i]);
        } else {
            address.ipv4Addr = address.ipv4Addr << 8 | bytes[i];
        }
    }
    return address;
}

std::string NameOf(const Peer &peer) {
    const LyrKesRpcIpAddr address = AddressOf(peer);
    char text[LYR_CLIENT_ADDRESS_LEN];
    LyrClientAddressToText(&address, text);
    return std::string(text) + " " + std::to_string(peer.Port());
}

capwap::SessionId SessionOf(std::span<const uint8_t> element) {
    capwap::SessionId session = {};
    for (size_t i = 0; i < std::min(element.size(), sizeof session); ++i) {
        session[i / 4] = session[i / 4] << 8 | element[i];
    }
    return session;
}

}  // namespace

Responder::Responder(const Options &options)
    : options_(options), client_(LyrClientNew()), random_(options.node) {
    if (client_ == nullptr) {
        throw std::bad_alloc();
    }
    Connect();
}

void Responder::Connect() {
    const char *path = options_.socket.empty() ? nullptr : options_.socket.c_str();
    if (LyrClientConnect(client_.get(), path) != LYR_CLIENT_OK) {
        throw std::runtime_error(LyrClientError(client_.get()));
    }
}

// An engine that has been started anew is connected to once more.
template <typename Operation, typename Request>
void Responder::Tell(Operation operation, const Request &request) {
    LyrClientOutcome outcome = operation(client_.get(), &request);
    if (outcome == LYR_CLIENT_NO_ENGINE) {
        Connect();
        outcome = operation(client_.get(), &request);
    }
    if (outcome != LYR_CLIENT_OK) {
        throw std::runtime_error(LyrClientError(client_.get()));
    }
}

// Access points are dealt out by their addresses.
uint32_t Responder::OwnerOf(const Peer &from) const {
    const auto bytes = from.Bytes();
    return std::accumulate(bytes.begin(), bytes.end(), 0u) % options_.nodes;
}

void Responder::AddTunnel(const Socket &socket, const Peer &from) {
    const LyrKesCwpTunnelReq request = {.operation = LYR_KES_OPERATION_ADD,
                                        .srcAddr = AddressOf(from),
                                        .dstAddr = AddressOf(socket.Address()),
                                        .srcPort = from.Port(),
                                        .dstPort = socket.Port(),
                                        .vpnId = 0,
                                        .nodeId = OwnerOf(from)};
    Tell(LyrClientCwpTunnel, request);
}

void Responder::AddSession(const capwap::SessionId &session) {
    LyrKesKaTunnelReq request = {
        .operation = LYR_KES_OPERATION_ADD, .sessionId = {}, .nodeId = options_.node};
    std::ranges::copy(session, request.sessionId);
    Tell(LyrClientKaTunnel, request);
}

// The engine knows the tunnel before a Discovery Request is answered, so that the Join Request
// finds its instance, and the session before a Join Request is answered: the keepalive follows the
// answer within milliseconds, and is not repeated for 30 seconds.
capwap::Bytes Responder::AnswerControl(const Socket &socket, const Peer &from,
                                       std::span<const uint8_t> datagram) {
    const auto packet = capwap::ReadHeader(datagram);
    const auto request = packet && !packet->dtls && !packet->fragment
                             ? capwap::ReadMessage(packet->rest)
                             : std::nullopt;
    if (!request || request->type % 2 == 0) {
        return {};
    }
    if (request->type == capwap_gen::kDiscoveryRequest) {
        AddTunnel(socket, from);
        return Respond(*request, socket, from);
    }
    const std::string name = NameOf(from);
    if (OwnerOf(from) != options_.node) {
        ++counts_.strange;
        return {};
    }
    if (request->type == capwap_gen::kJoinRequest) {
        const auto element = capwap::FindElement(request->elements, kSessionIdElement);
        if (!element || element->size() != sizeof(capwap::SessionId)) {
            ++counts_.strange;
            return {};
        }
        const capwap::SessionId session = SessionOf(*element);
        AddSession(session);
        joined_[name] = session;
        sessions_.insert(session);
    } else if (!joined_.contains(name)) {
        ++counts_.strange;
        return {};
    }
    return Respond(*request, socket, from);
}

capwap::Bytes Responder::Respond(const capwap::Message &request, const Socket &socket,
                                 const Peer &from) {
    const capwap_gen::AccessPoint ap = {.index = 0,
                                        .mac = {},
                                        .vlans = {},
                                        .ipv6 = from.IsIpv6(),
                                        .ip = AddressOf(from).ipv4Addr,
                                        .ip6 = {},
                                        .controlPort = from.Port(),
                                        .dataPort = 0,
                                        .session = {},
                                        .dataDtls = false,
                                        .instance = options_.node,
                                        .registered = true};
    capwap_gen::TrafficOptions traffic;
    traffic.controllerName = "instance-" + std::to_string(options_.node);
    if (from.IsIpv6()) {
        traffic.controller6 = capwap::Ipv6(socket.Address());
    } else {
        traffic.controller = capwap::Ipv4(socket.Address());
    }
    const uint32_t type = request.type + 1;
    ++counts_.messages;
    return capwap::ControlMessage(type, request.sequence,
                                  capwap_gen::MessageElements(type, {ap, traffic, random_}));
}

capwap::Bytes Responder::AnswerData(std::span<const uint8_t> datagram) {
    const auto packet = capwap::ReadHeader(datagram);
    const auto session = packet && !packet->dtls && packet->keepalive
                             ? capwap::ReadKeepalive(packet->rest)
                             : std::nullopt;
    if (!session) {
        return {};
    }
    if (!sessions_.contains(*session)) {
        ++counts_.strange;
        return {};
    }
    ++counts_.keepalives;
    return capwap::Keepalive(*session);
}

std::set<std::string> Responder::Served() const {
    std::set<std::string> names;
    for (const auto &[name, session] : joined_) {
        names.insert(name);
    }
    return names;
}

}  // namespace responder
