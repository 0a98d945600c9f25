// A UDP socket between an access point and its controller.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "capwap_gen/access_point.h"

namespace capwap_aps {

class UdpSocket {
  public:
    // Sends from the access point's address and the port to a port of the controller's address of
    // the same family, and receives what comes back from there. The address has to be one of the
    // system's own. Throws std::runtime_error, which names the address.
    UdpSocket(const capwap_gen::AccessPoint &ap, uint16_t port,
              const capwap_gen::TrafficOptions &options, uint16_t controllerPort);
    ~UdpSocket();
    UdpSocket(const UdpSocket &) = delete;
    UdpSocket &operator=(const UdpSocket &) = delete;

    // False for a datagram that the system did not take; whoever waits for its answer asks again.
    bool Send(std::span<const uint8_t> datagram) const;
    // The next datagram, valid until the next call with the same buffer; nothing when there is
    // none.
    std::optional<std::span<const uint8_t>> Receive(std::span<uint8_t> buffer) const;

    int Descriptor() const {
        return descriptor_;
    }

  private:
    int descriptor_;
};

}  // namespace capwap_aps
