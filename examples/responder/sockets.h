// The controller's UDP sockets.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace responder {

// Where a datagram came from and how it got here; what is sent back goes the same way.
struct Peer {
    sockaddr_storage address;
    socklen_t size;

    bool IsIpv6() const {
        return address.ss_family == AF_INET6;
    }
    uint16_t Port() const;
    // The address's bytes in network order: 4 or 16.
    std::span<const uint8_t> Bytes() const;
};

class Socket {
  public:
    // Listens on a port of one of the system's addresses. Throws std::runtime_error, which names
    // both.
    Socket(const std::string &address, uint16_t port);
    ~Socket();
    Socket(Socket &&other) noexcept;
    Socket &operator=(Socket &&) = delete;

    // The next datagram; nothing when there is none now.
    std::optional<std::vector<uint8_t>> Receive(Peer &from) const;
    // A datagram that cannot be sent is lost, as on the network.
    void Send(const Peer &to, std::span<const uint8_t> datagram) const;

    int Descriptor() const {
        return descriptor_;
    }
    uint16_t Port() const {
        return port_;
    }
    const std::string &Address() const {
        return address_;
    }

  private:
    int descriptor_;
    std::string address_;
    uint16_t port_;
};

}  // namespace responder
