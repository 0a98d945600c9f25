// A connection to an engine's control socket: the client library's, for C++.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "control/engine_view.h"
#include "lyr/client.h"

namespace control {

// There is no engine at the path, or it went away.
class NoEngine : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Connection : public EngineView {
  public:
    // Throws NoEngine, which names the path and the reason, and InputError for a path that no
    // socket can have. The engine has to be of the same user, of root or of the service's user.
    explicit Connection(const std::string &path);

    // Runs one operation; what Execute calls. Throws NoEngine, also when an answer takes longer
    // than 30 seconds.
    Answer Call(MundOperation operation, std::span<const uint8_t> request) override;

    // The reply to a request of any other code. It and the next ones throw NoEngine and Refused.
    Bytes Ask(uint16_t code, std::span<const uint8_t> payload);
    nlohmann::ordered_json State() override;
    Bytes Object(std::string_view name, std::optional<uint32_t> slot = std::nullopt) override;
    Bytes Entries(const MundWireEntriesReq &request) override;
    // What the module would do with a packet.
    nlohmann::ordered_json Explain(const MundWireExplainReq &arrival,
                                   std::span<const uint8_t> frame);

    // Waits, a second at most, for the module's threads to do what they have been asked; whether
    // they have.
    bool Settle();

    // Shows every line to show(header, text) until that answers false, or the engine goes away
    // (NoEngine). `descriptor` is a file descriptor that ends it when it becomes readable, or -1.
    // The connection serves for nothing else afterwards.
    void Follow(const std::function<bool(const MundWireLine &, std::string_view)> &show,
                int descriptor = -1);

  private:
    struct Free {
        void operator()(LyrClient *client) const {
            LyrClientFree(client);
        }
    };

    // Throws what stands for the outcome of a call, unless it is a good one.
    void Check(LyrClientOutcome outcome) const;

    std::unique_ptr<LyrClient, Free> client_;
};

}  // namespace control
