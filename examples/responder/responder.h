// A service instance in small: it answers access points as a controller does, and tells the engine
// whom it serves before it does so.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "capwap/message.h"
#include "capwap_gen/messages.h"
#include "lyr/client.h"
#include "sockets.h"

namespace responder {

struct Options {
    uint32_t node = 0;   // this instance's number
    uint32_t nodes = 1;  // how many there are
    std::string socket;  // the engine's; empty: the user's own
};

struct Counts {
    uint64_t messages = 0;    // control messages that were answered
    uint64_t keepalives = 0;  // that were answered
    uint64_t strange = 0;     // from access points of other instances, or that have not joined
};

class Responder {
  public:
    // Throws std::runtime_error when there is no engine.
    explicit Responder(const Options &options);

    // What to send back; nothing for what is not answered. Throws std::runtime_error when the
    // engine cannot be told.
    capwap::Bytes AnswerControl(const Socket &socket, const Peer &from,
                                std::span<const uint8_t> datagram);
    capwap::Bytes AnswerData(std::span<const uint8_t> datagram);

    // The access points that have joined: address and control port.
    std::set<std::string> Served() const;
    const Counts &Totals() const {
        return counts_;
    }

  private:
    struct CloseClient {
        void operator()(LyrClient *client) const {
            LyrClientFree(client);
        }
    };

    uint32_t OwnerOf(const Peer &from) const;
    void AddTunnel(const Socket &socket, const Peer &from);
    void AddSession(const capwap::SessionId &session);
    void Connect();
    template <typename Operation, typename Request>
    void Tell(Operation operation, const Request &request);
    capwap::Bytes Respond(const capwap::Message &request, const Socket &socket, const Peer &from);

    const Options options_;
    const std::unique_ptr<LyrClient, CloseClient> client_;
    capwap_gen::Random random_;
    std::map<std::string, capwap::SessionId> joined_;  // by address and port
    std::set<capwap::SessionId> sessions_;
    Counts counts_;
};

}  // namespace responder
