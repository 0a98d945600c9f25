#include "sockets.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace responder {
namespace {

constexpr size_t kLongestDatagram = 65'535;

std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> Resolve(const std::string &address,
                                                           uint16_t port) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        throw std::runtime_error("not an address: " + address);
    }
    return {found, freeaddrinfo};
}

}  // namespace

uint16_t Peer::Port() const {
    const in_port_t port = IsIpv6() ? reinterpret_cast<const sockaddr_in6 *>(&address)->sin6_port
                                    : reinterpret_cast<const sockaddr_in *>(&address)->sin_port;
    return ntohs(port);
}

std::span<const uint8_t> Peer::Bytes() const {
    if (IsIpv6()) {
        return reinterpret_cast<const sockaddr_in6 *>(&address)->sin6_addr.s6_addr;
    }
    const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(&address);
    return {reinterpret_cast<const uint8_t *>(&ipv4->sin_addr), sizeof ipv4->sin_addr};
}

Socket::Socket(const std::string &address, uint16_t port)
    : descriptor_(-1), address_(address), port_(port) {
    const auto found = Resolve(address, port);
    descriptor_ = socket(found->ai_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0 || bind(descriptor_, found->ai_addr, found->ai_addrlen) != 0) {
        const int error = errno;
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
        throw std::runtime_error("cannot listen on " + address + " port " + std::to_string(port) +
                                 ": " + std::generic_category().message(error));
    }
}

Socket::~Socket() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

Socket::Socket(Socket &&other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      address_(std::move(other.address_)),
      port_(other.port_) {}

std::optional<std::vector<uint8_t>> Socket::Receive(Peer &from) const {
    std::vector<uint8_t> datagram(kLongestDatagram);
    ssize_t size;
    do {
        from.size = sizeof from.address;
        size = recvfrom(descriptor_, datagram.data(), datagram.size(), 0,
                        reinterpret_cast<sockaddr *>(&from.address), &from.size);
    } while (size < 0 && (errno == EINTR || errno == ECONNREFUSED));
    if (size < 0) {
        return std::nullopt;
    }
    datagram.resize(static_cast<size_t>(size));
    return datagram;
}

void Socket::Send(const Peer &to, std::span<const uint8_t> datagram) const {
    sendto(descriptor_, datagram.data(), datagram.size(), 0,
           reinterpret_cast<const sockaddr *>(&to.address), to.size);
}

}  // namespace responder
