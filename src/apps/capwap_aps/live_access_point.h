// An access point that looks for its controller, joins it and stays with it (RFC 5415,
// section 2.3), without DTLS.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "capwap/message.h"
#include "capwap_aps/udp_socket.h"
#include "capwap_gen/messages.h"

namespace capwap_aps {

using Clock = std::chrono::steady_clock;
using Moment = Clock::time_point;

// RFC 5415, sections 4.7 and 4.8.
struct Timers {
    std::chrono::milliseconds echo{30'000};
    std::chrono::milliseconds keepalive{30'000};
    std::chrono::milliseconds retransmit{3'000};  // doubles with each retransmission
    uint32_t maxRetransmit = 5;
};

// Requests and keepalives, and those of them that were answered.
struct Exchanges {
    uint64_t requests = 0;  // each once, however often it was sent
    uint64_t answered = 0;
    uint64_t retransmissions = 0;
    uint64_t keepalives = 0;
    uint64_t keepalivesAnswered = 0;
    uint64_t joins = 0;  // that succeeded

    Exchanges &operator+=(const Exchanges &other);
};

class LiveAccessPoint {
  public:
    // Throws std::runtime_error. The options outlive it.
    LiveAccessPoint(const capwap_gen::AccessPoint &ap, const capwap_gen::TrafficOptions &options,
                    const Timers &timers);

    // Sends what is due, for the first time or once more. Returns when to call again.
    Moment Tick(Moment now);
    // Reads what has come.
    void ReadControl(Moment now);
    void ReadData();

    // Whether it has joined, and its last request and keepalive were answered or are still within
    // the time of the first transmission.
    bool IsServed(Moment now) const;
    // The name of the controller that it has joined last, by the AC Name element.
    const std::string &ControllerName() const {
        return controllerName_;
    }
    const capwap_gen::AccessPoint &Identity() const {
        return ap_;
    }
    const Exchanges &Counts() const {
        return counts_;
    }
    const UdpSocket &Control() const {
        return control_;
    }
    const UdpSocket &Data() const {
        return data_;
    }

  private:
    // A request on its way.
    struct Request {
        uint32_t type;
        uint8_t sequence;
        capwap::Bytes datagram;
        uint32_t retransmissions = 0;
        Moment due;  // the answer, or the next transmission
    };

    void Ask(uint32_t type, Moment now);
    void AskAgain(Moment now);
    void Accept(const capwap::Message &answer, Moment now);
    void SendKeepalive(Moment now);

    capwap_gen::AccessPoint ap_;
    const capwap_gen::TrafficOptions &options_;
    const Timers &timers_;
    capwap_gen::Random random_;
    UdpSocket control_;
    UdpSocket data_;
    Exchanges counts_;
    bool joined_ = false;
    std::optional<Request> request_;
    std::string controllerName_;
    Moment nextRequest_ = Moment::min();
    Moment nextKeepalive_ = Moment::max();
    std::optional<Moment> keepaliveSent_;  // that waits for its answer; the first of several
};

}  // namespace capwap_aps
