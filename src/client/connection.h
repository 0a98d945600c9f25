// A connection to an engine: whole frames to it and from it.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "lyr/client.h"
#include "mund/control_socket.h"

namespace client {

// Why a call does not succeed.
class Failure : public std::runtime_error {
  public:
    Failure(LyrClientOutcome outcome, const std::string &text)
        : std::runtime_error(text), outcome_(outcome) {}

    LyrClientOutcome Outcome() const {
        return outcome_;
    }

  private:
    LyrClientOutcome outcome_;
};

struct Limits {
    std::chrono::milliseconds connect{30'000};
    std::chrono::milliseconds silence{30'000};
};

// What throws here throws Failure; one of LYR_CLIENT_NO_ENGINE leaves the connection closed.
class Connection {
  public:
    void SetLimits(const Limits &limits) {
        limits_ = limits;
    }
    void Open(const std::string &path);
    void Close();
    // -1: it is closed.
    int Number() const {
        return socket_.Number();
    }

    // Sends a request and receives its reply, whatever its status.
    void Exchange(uint16_t code, std::span<const uint8_t> payload);
    // From the reply on, there is nothing to be had but lines.
    void BeginToFollow();
    // False when no line has come in the time (below 0: there is no limit), or a signal has.
    bool ReceiveLine(int timeoutMs);

    // The last frame that was received. Its payload has a NUL behind it.
    const MundWireHeader &Header() const {
        return header_;
    }
    std::span<const uint8_t> Payload() const {
        return std::span(payload_).first(payload_.empty() ? 0 : payload_.size() - 1);
    }

  private:
    void CheckPeer();
    void Receive(uint16_t code);
    [[noreturn]] void Lose(const std::string &text);
    [[noreturn]] void LoseForErrno();

    Limits limits_;
    std::string path_;
    mund::Descriptor socket_;
    bool follows_ = false;
    MundWireHeader header_ = {};
    std::vector<uint8_t> payload_;
};

}  // namespace client
