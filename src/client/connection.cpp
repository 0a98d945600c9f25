#include "connection.h"

#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <system_error>

namespace client {
namespace {

// By the error of connect().
std::string WhyNobodyListens(const std::string &path) {
    if (errno == EAGAIN) {
        return "it does not take clients";
    }
    if (errno != ECONNREFUSED) {
        return std::generic_category().message(errno);
    }
    struct stat file {};
    return stat(path.c_str(), &file) == 0 && !S_ISSOCK(file.st_mode)
               ? "it is no socket"
               : "the one that served it has ended";
}

bool IsServiceUser(uid_t user) {
    passwd entry = {};
    passwd *found = nullptr;
    char texts[1024];
    return getpwnam_r(mund::kServiceUser, &entry, texts, sizeof texts, &found) == 0 &&
           found != nullptr && found->pw_uid == user;
}

// Who may offer an engine to this user.
bool IsTrusted(uid_t user) {
    return user == geteuid() || user == 0 || IsServiceUser(user);
}

std::string TimeText(std::chrono::milliseconds time) {
    const int64_t count = time.count();
    return count % 1000 == 0 ? std::to_string(count / 1000) + " seconds"
                             : std::to_string(count) + " milliseconds";
}

}  // namespace

void Connection::Open(const std::string &path) {
    Close();
    path_ = path;
    sockaddr_un address;
    if (const std::string complaint = mund::SetAddress(address, path); !complaint.empty()) {
        throw Failure(LYR_CLIENT_INVALID, complaint);
    }
    socket_ = mund::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket_.Open()) {
        Lose("cannot create a socket: " + std::generic_category().message(errno));
    }
    mund::SetStallLimit(Number(), SO_SNDTIMEO, limits_.connect);
    if (connect(Number(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        Lose("no engine at " + path + ": " + WhyNobodyListens(path));
    }
    CheckPeer();
    mund::SetStallLimit(Number(), SO_SNDTIMEO, limits_.silence);
    mund::SetStallLimit(Number(), SO_RCVTIMEO, limits_.silence);
}

void Connection::Close() {
    socket_ = mund::Descriptor();
    follows_ = false;
}

// In a directory that others may write to, anyone can offer a socket of any name.
void Connection::CheckPeer() {
    const std::optional<ucred> engine = mund::Peer(Number());
    if (!engine || !IsTrusted(engine->uid)) {
        Lose("the engine at " + path_ + " is that of user " +
             (engine ? std::to_string(engine->uid) : "?") +
             ", neither this user's nor root's nor " + "that of the service " + mund::kServiceUser);
    }
}

void Connection::Exchange(uint16_t code, std::span<const uint8_t> payload) {
    if (follows_) {
        throw Failure(LYR_CLIENT_INVALID, "this connection follows, and serves for nothing else");
    }
    if (payload.size() > MUND_WIRE_MAX_PAYLOAD) {
        throw Failure(LYR_CLIENT_INVALID, "the request has " + std::to_string(payload.size()) +
                                              " bytes, and a frame takes at most " +
                                              std::to_string(MUND_WIRE_MAX_PAYLOAD));
    }
    if (!socket_.Open()) {
        throw Failure(LYR_CLIENT_NO_ENGINE, "there is no connection to an engine");
    }
    std::vector<uint8_t> frame;
    mund::AppendFrame(frame, code, payload);
    // An engine that closes before it has read everything has said why.
    if (!mund::SendAll(Number(), frame) && errno != EPIPE && errno != ECONNRESET) {
        LoseForErrno();
    }
    Receive(code);
}

void Connection::BeginToFollow() {
    follows_ = true;
}

bool Connection::ReceiveLine(int timeoutMs) {
    if (!follows_) {
        throw Failure(LYR_CLIENT_INVALID, "this connection does not follow");
    }
    pollfd waiting = {.fd = Number(), .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, timeoutMs) <= 0) {
        return false;
    }
    Receive(MUND_WIRE_FOLLOW);
    if (Payload().size() < sizeof(MundWireLine)) {
        Lose(path_ + ": a line of " + std::to_string(Payload().size()) + " bytes");
    }
    return true;
}

void Connection::Receive(uint16_t code) {
    payload_.clear();
    if (!mund::ReceiveHeader(Number(), header_)) {
        LoseForErrno();
    }
    // A client that is turned away is told so before its request is read.
    const bool expected = header_.code == code || header_.status == MUND_WIRE_REFUSED;
    if (header_.version != MUND_WIRE_VERSION || !expected ||
        header_.length > MUND_WIRE_MAX_PAYLOAD) {
        Lose(path_ + ": what answers there does not speak version " +
             std::to_string(MUND_WIRE_VERSION) + " of the protocol");
    }
    if (!mund::ReceivePayload(Number(), header_, payload_)) {
        LoseForErrno();
    }
    payload_.push_back(0);
}

void Connection::Lose(const std::string &text) {
    Close();
    throw Failure(LYR_CLIENT_NO_ENGINE, text);
}

void Connection::LoseForErrno() {
    Lose("the engine at " + path_ +
         (errno == EAGAIN ? " has not answered for " + TimeText(limits_.silence)
                          : " has closed the connection"));
}

}  // namespace client
