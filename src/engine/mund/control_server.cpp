#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <list>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "mund/conversation.h"
#include "mund/server.h"
#include "mund/socket_file.h"

namespace mund {
namespace {

// How long new clients wait in the queue when the process is out of descriptors or memory.
constexpr int kExhaustedMs = 100;

// A request of nobody's: the client is told before it has said anything.
void TurnAway(const Descriptor &socket, std::string_view reason) {
    SetStallLimit(socket.Number(), SO_SNDTIMEO, std::chrono::milliseconds(1));
    SendAll(socket.Number(), ReplyFrame(0, Refusal(reason)));
}

bool IsMember(int socket, gid_t primary, gid_t group) {
    std::vector<gid_t> groups(NGROUPS_MAX);
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const bool known = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0;
    groups.resize(known ? size / sizeof(gid_t) : 0);
    return primary == group || std::ranges::find(groups, group) != groups.end();
}

// Whose program may be served: the engine's own user's, and where the socket is a group's, a
// member's or root's. The mode of the file says the same.
bool MaySpeak(int socket, const ucred &peer, std::optional<gid_t> group) {
    return peer.uid == geteuid() ||
           (group && (peer.uid == 0 || IsMember(socket, peer.gid, *group)));
}

}  // namespace

class ControlServer::Impl {
  public:
    Impl(const std::string &path, WireHandlers handlers, const ControlLimits &limits,
         std::optional<gid_t> group, Gate *gate);
    ~Impl();

    Followers &AllFollowers() {
        return served_.followers;
    }

  private:
    void Wake() const {
        eventfd_write(wake_.Number(), 1);
    }
    void AcceptUntilStopped();
    void RemoveEnded();
    bool AcceptOne();
    void Admit(Descriptor socket, pid_t client);

    const std::optional<gid_t> group_;
    Served served_;
    Descriptor wake_;
    SocketFile file_;
    std::list<Conversation> conversations_;  // the accepting thread's while it runs
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
};

ControlServer::Impl::Impl(const std::string &path, WireHandlers handlers,
                          const ControlLimits &limits, std::optional<gid_t> group, Gate *gate)
    : group_(group),
      served_{.handlers = std::move(handlers),
              .limits = limits,
              .followers = Followers(limits.lines),
              .gate = gate},
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      file_(path, group) {
    if (!wake_.Open()) {
        throw std::runtime_error("control socket " + path + ": " +
                                 std::generic_category().message(errno));
    }
    acceptor_ = std::thread([this] { AcceptUntilStopped(); });
}

ControlServer::Impl::~Impl() {
    stopping_ = true;
    Wake();
    acceptor_.join();
    for (const Conversation &conversation : conversations_) {
        conversation.HangUp();
    }
}

void ControlServer::Impl::AcceptUntilStopped() {
    bool exhausted = false;
    while (!stopping_) {
        pollfd waiting[] = {{.fd = wake_.Number(), .events = POLLIN, .revents = 0},
                            {.fd = file_.Listener(), .events = POLLIN, .revents = 0}};
        // A client that cannot be accepted keeps the listener readable.
        poll(waiting, exhausted ? 1 : 2, exhausted ? kExhaustedMs : -1);
        eventfd_t count;
        eventfd_read(wake_.Number(), &count);
        RemoveEnded();
        exhausted = !AcceptOne();
    }
}

void ControlServer::Impl::RemoveEnded() {
    conversations_.remove_if([](const Conversation &conversation) { return conversation.Ended(); });
}

// False when the process has nothing left to accept a client with.
bool ControlServer::Impl::AcceptOne() {
    Descriptor socket(accept4(file_.Listener(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket.Open()) {
        return errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    }
    if (const std::optional<ucred> peer = Peer(socket.Number());
        peer && MaySpeak(socket.Number(), *peer, group_)) {
        Admit(std::move(socket), peer->pid);
    }
    return true;
}

void ControlServer::Impl::Admit(Descriptor socket, pid_t client) {
    const size_t limit = served_.limits.clients;
    const Place place = conversations_.size() + 1 < limit ? Place::kAny : Place::kLast;
    const bool known =
        std::ranges::find(conversations_, client, &Conversation::Client) != conversations_.end();
    if (conversations_.size() >= limit || (place == Place::kLast && known)) {
        TurnAway(socket, "no more than " + std::to_string(limit) + " clients at once");
        return;
    }
    try {
        conversations_.emplace_back(std::move(socket), client, place, served_, [this] { Wake(); });
    } catch (const std::exception &) {
        // No thread or no memory for it: the connection has closed with its socket.
    }
}

ControlServer::ControlServer(const std::string &path, std::map<uint16_t, WireHandler> handlers,
                             const ControlLimits &limits, std::optional<gid_t> group, Gate *gate)
    : impl_(std::make_unique<Impl>(path, std::move(handlers), limits, group, gate)) {}

ControlServer::~ControlServer() = default;

void ControlServer::Publish(uint32_t kind, std::string_view text) {
    impl_->AllFollowers().Publish(kind, text);
}

}  // namespace mund
