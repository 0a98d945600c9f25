// The control socket: serves the module's operations, and what an engine adds to them, to programs
// of the same user, or of a group, on the same machine.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mund/control_socket.h"
#include "mund/gate.h"
#include "mund/wire.h"

#pragma GCC visibility push(default)
namespace mund {

struct WireReply {
    uint32_t status = MUND_WIRE_OK;
    std::vector<uint8_t> payload = {};
};

// MUND_WIRE_REFUSED, and why.
WireReply Refusal(std::string_view reason);

// Answers requests of one code; called from several threads at once. It sees no request that is
// shorter or longer than its code allows. What it throws refuses the request.
using WireHandler = std::function<WireReply(std::span<const uint8_t> request)>;

struct ControlLimits {
    // Clients at once; one more is refused. The last place is kept for a process that has no other.
    size_t clients = 128;
    // A frame that stands still for so long, on its way in or out, or takes longer than that to
    // come in, ends its connection.
    std::chrono::milliseconds stall{30'000};
    // How long a client may pause between frames; who follows may take its time.
    std::chrono::milliseconds idle{600'000};
    // The same for who has the last place, and may not follow.
    std::chrono::milliseconds lastIdle{10'000};
    // Bytes of requests that are read and not yet answered; one more is answered with
    // MUND_WIRE_BUSY. Requests of up to 4,096 bytes do not count.
    size_t requestBytes = 32u << 20;
    // Lines that wait for a client that follows; when one more comes, the oldest is lost.
    size_t lines = 1024;
};

class ControlServer {
  public:
    // Opens the socket, mode 0600; with a group, mode 0660, for its members and root too. A socket
    // that nobody listens on any more is replaced; one that somebody does, and a file that is no
    // socket, is left alone. Throws std::runtime_error, which names the path and the reason.
    // `handlers` answer the codes from MUND_WIRE_STATE on, all but MUND_WIRE_FOLLOW. The module's
    // operations run inside the gate, if there is one, which outlives the server.
    ControlServer(const std::string &path, std::map<uint16_t, WireHandler> handlers,
                  const ControlLimits &limits = {}, std::optional<gid_t> group = std::nullopt,
                  Gate *gate = nullptr);
    // Closes every connection, waits for requests that are running, removes the socket.
    ~ControlServer();
    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    // Sends a line to those who follow, of a long one its first MUND_WIRE_MAX_LINE bytes. Never
    // waits: who is too slow for a line loses it and is told. Callable from any thread.
    void Publish(uint32_t kind, std::string_view text);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace mund
#pragma GCC visibility pop
