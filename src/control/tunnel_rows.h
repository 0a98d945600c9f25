// Tunnels as they are told, whoever has listed them.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace control {

// {"source", "sourcePort", "destination", "destinationPort", "vpn", "instance"}
nlohmann::ordered_json TunnelToJson(std::string source, uint16_t sourcePort,
                                    std::string destination, uint16_t destinationPort, uint32_t vpn,
                                    uint32_t instance);

// The tunnels of a reply, and its note, laid out.
std::string RenderTunnelList(const nlohmann::ordered_json &reply);

}  // namespace control
