#include "capwap_aps/udp_socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

namespace capwap_aps {
namespace {

struct SocketAddress {
    sockaddr_storage storage = {};
    socklen_t size = 0;

    const sockaddr *Get() const {
        return reinterpret_cast<const sockaddr *>(&storage);
    }
};

SocketAddress AddressOf(uint32_t ip, uint16_t port) {
    const sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(ip)}, .sin_zero = {}};
    SocketAddress result = {.size = sizeof address};
    std::memcpy(&result.storage, &address, sizeof address);
    return result;
}

SocketAddress AddressOf(const capwap::Ipv6Words &ip, uint16_t port) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    for (size_t i = 0; i < ip.size(); ++i) {
        const uint32_t word = htonl(ip[i]);
        std::memcpy(&address.sin6_addr.s6_addr[4 * i], &word, sizeof word);
    }
    SocketAddress result = {.size = sizeof address};
    std::memcpy(&result.storage, &address, sizeof address);
    return result;
}

}  // namespace

UdpSocket::UdpSocket(const capwap_gen::AccessPoint &ap, uint16_t port,
                     const capwap_gen::TrafficOptions &options, uint16_t controllerPort)
    : descriptor_(
          socket(ap.ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const SocketAddress own = ap.ipv6 ? AddressOf(ap.ip6, port) : AddressOf(ap.ip, port);
    const SocketAddress controller = ap.ipv6 ? AddressOf(options.controller6, controllerPort)
                                             : AddressOf(options.controller, controllerPort);
    const char *step = "open a socket for ";
    if (descriptor_ >= 0) {
        step = "send from ";
        if (bind(descriptor_, own.Get(), own.size) == 0) {
            step = "reach the controller from ";
            if (connect(descriptor_, controller.Get(), controller.size) == 0) {
                return;
            }
        }
    }
    const int error = errno;
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    throw std::runtime_error("cannot " + (step + ap.Address()) + " port " + std::to_string(port) +
                             ": " + std::generic_category().message(error));
}

UdpSocket::~UdpSocket() {
    close(descriptor_);
}

bool UdpSocket::Send(std::span<const uint8_t> datagram) const {
    return send(descriptor_, datagram.data(), datagram.size(), 0) ==
           static_cast<ssize_t>(datagram.size());
}

std::optional<std::span<const uint8_t>> UdpSocket::Receive(std::span<uint8_t> buffer) const {
    ssize_t size;
    do {
        // A refusal from the other side (ECONNREFUSED) is told once, before what comes next.
        size = recv(descriptor_, buffer.data(), buffer.size(), 0);
    } while (size < 0 && (errno == EINTR || errno == ECONNREFUSED));
    if (size < 0) {
        return std::nullopt;
    }
    return buffer.first(static_cast<size_t>(size));
}

}  // namespace capwap_aps
