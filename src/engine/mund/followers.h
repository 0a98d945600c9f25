// The engine's lines on their way to the clients that follow them.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "mund/control_socket.h"

namespace mund {

struct Line {
    uint32_t kind;
    uint64_t timeNs;
    std::string text;
};

class Follower;

class Followers {
  public:
    // Each of them is kept so many lines; when one more comes, the oldest is lost.
    explicit Followers(size_t limit) : limit_(limit) {}

    void Publish(uint32_t kind, std::string_view text);

  private:
    friend class Follower;

    const size_t limit_;
    // Spares the engine the making of lines that nobody follows.
    std::atomic<size_t> count_{0};
    std::mutex mutex_;  // for all followers' lines
    std::vector<Follower *> followers_;
};

// One client's lines, from its creation on.
class Follower {
  public:
    // Throws std::runtime_error when the process is out of descriptors.
    explicit Follower(Followers &all);
    ~Follower();
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;

    // A descriptor that is readable while lines wait.
    int Waiting() const {
        return waiting_.Number();
    }
    // Takes lines that wait, as frames of MUND_WIRE_FOLLOW.
    std::vector<uint8_t> Take();

  private:
    friend class Followers;

    void Add(std::shared_ptr<const Line> line);

    Followers &all_;
    Descriptor waiting_;
    std::deque<std::shared_ptr<const Line>> lines_;
    uint32_t lost_ = 0;  // before the first of the lines
};

}  // namespace mund
