// Addresses of messages, and their usual text form.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <optional>
#include <string>

#include "mund/messages.h"

namespace client {

// Nothing for a text that is no address.
inline std::optional<LyrKesRpcIpAddr> AddressFromText(const std::string &text) {
    LyrKesRpcIpAddr address = {};
    in_addr ipv4;
    in6_addr ipv6;
    if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
        address.ipv4Addr = ntohl(ipv4.s_addr);
    } else if (inet_pton(AF_INET6, text.c_str(), &ipv6) == 1) {
        address.ipVer = 1;
        std::ranges::transform(ipv6.s6_addr16, address.ipv6Addr, ntohs);
    } else {
        return std::nullopt;
    }
    return address;
}

// A u32 in host order, or eight groups in host order.
inline std::string AddressText(uint32_t ipv4) {
    const in_addr address = {htonl(ipv4)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

inline std::string AddressText(const uint16_t (&ipv6)[8]) {
    in6_addr address;
    std::ranges::transform(ipv6, address.s6_addr16, htons);
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, &address, text, sizeof text);
}

}  // namespace client
