// One client's connection, served by a thread of its own: who hangs holds up nobody else.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <thread>
#include <vector>

#include "mund/control_socket.h"
#include "mund/followers.h"
#include "mund/server.h"

namespace mund {

using WireHandlers = std::map<uint16_t, WireHandler>;

// What the connections of a server share.
struct Served {
    WireHandlers handlers;
    ControlLimits limits;
    Followers followers;
    Gate *gate;                           // of operations; may be null
    std::atomic<size_t> requestBytes{0};  // that are read, or about to be, and not yet answered
};

enum class Place { kAny, kLast };

// A whole frame.
std::vector<uint8_t> ReplyFrame(uint16_t code, const WireReply &reply);

class Conversation {
  public:
    // Calls `ended` once it has. Throws std::system_error when there is no thread to be had.
    Conversation(Descriptor socket, pid_t client, Place place, Served &served,
                 std::function<void()> ended);
    // Waits for the request that is running.
    ~Conversation();
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;

    // The process at the other end.
    pid_t Client() const {
        return client_;
    }
    bool Ended() const {
        return ended_;
    }
    // Ends it after the request that is running.
    void HangUp() const;

  private:
    void Run(const std::function<void()> &ended);
    bool ServeRequest();
    std::vector<uint8_t> ReplyTo(const MundWireHeader &header, Deadline deadline) const;
    bool Send(std::span<const uint8_t> frame) const;
    std::vector<uint8_t> Answer(const MundWireHeader &header,
                                std::span<const uint8_t> request) const;
    WireReply AnswerExtra(uint16_t code, std::span<const uint8_t> request) const;
    bool Follow();
    void SendLines(Follower &follower) const;

    const Descriptor socket_;
    const pid_t client_;
    const Place place_;
    Served &served_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

}  // namespace mund
