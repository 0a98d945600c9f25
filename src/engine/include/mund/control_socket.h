// What both ends of the control socket need: its place, and whole frames through it. Header only,
// for clients that have nothing of the engine but its headers.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "mund/wire.h"

namespace mund {

// The socket in the user's runtime directory: $XDG_RUNTIME_DIR/lyr_host.sock, or
// /tmp/lyr_host-UID.sock without one.
inline std::string DefaultSocketPath() {
    // Nobody changes the environment.
    const char *directory = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
    if (directory != nullptr && *directory != '\0') {
        return std::string(directory) + "/lyr_host.sock";
    }
    return "/tmp/lyr_host-" + std::to_string(geteuid()) + ".sock";
}

// The user and the socket of the service that a system runs an engine as.
inline constexpr const char *kServiceUser = "lyr-host";
inline constexpr const char *kServiceSocket = "/run/lyr-host/lyr_host.sock";

// Where a client that has been told nothing finds an engine: at the user's own socket, or at that
// of the service where there is no other.
inline std::string ClientSocketPath() {
    const std::string own = DefaultSocketPath();
    const bool other = access(own.c_str(), F_OK) != 0 && access(kServiceSocket, F_OK) == 0;
    return other ? kServiceSocket : own;
}

// A file descriptor that is closed with its owner; -1 for none.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }

    int Number() const {
        return number_;
    }
    bool Open() const {
        return number_ >= 0;
    }
    // Leaves it to another owner.
    int Release() {
        return std::exchange(number_, -1);
    }

  private:
    int number_ = -1;
};

// Sets the address of a path. Returns an empty text, or what is wrong with the path.
inline std::string SetAddress(sockaddr_un &address, const std::string &path) {
    constexpr size_t kLongest = sizeof address.sun_path - 1;
    if (path.empty()) {
        return "the path of the control socket is empty";
    }
    if (path.size() > kLongest) {
        return path + ": the path has " + std::to_string(path.size()) +
               " bytes, and a socket's path at most " + std::to_string(kLongest);
    }
    address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return {};
}

// The process at the other end and its user; for the end that connected, of the one who listens.
inline std::optional<ucred> Peer(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return std::nullopt;
    }
    return peer;
}

// How long a send (SO_SNDTIMEO) or a receive (SO_RCVTIMEO) may stand still; 0: as long as it likes.
inline void SetStallLimit(int socket, int option, std::chrono::milliseconds limit) {
    const timeval time = {.tv_sec = limit.count() / 1000, .tv_usec = limit.count() % 1000 * 1000};
    setsockopt(socket, SOL_SOCKET, option, &time, sizeof time);
}

// Sends every byte, or answers false with the reason in errno: EAGAIN when it stood still for too
// long.
inline bool SendAll(int socket, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(sent < 0 ? 0 : static_cast<size_t>(sent));
    }
    return true;
}

using Deadline = std::chrono::steady_clock::time_point;

// Fills `bytes`, or answers false with the reason in errno: 0 when the other end closed, EAGAIN
// when it stood still for too long, or is at it still after the deadline.
inline bool ReceiveAll(int socket, std::span<uint8_t> bytes, Deadline deadline = Deadline::max()) {
    while (!bytes.empty()) {
        if (std::chrono::steady_clock::now() > deadline) {
            errno = EAGAIN;
            return false;
        }
        const ssize_t received = recv(socket, bytes.data(), bytes.size(), 0);
        if (received == 0) {
            errno = 0;
        }
        if (received == 0 || (received < 0 && errno != EINTR)) {
            return false;
        }
        bytes = bytes.subspan(received < 0 ? 0 : static_cast<size_t>(received));
    }
    return true;
}

inline bool ReceiveHeader(int socket, MundWireHeader &header, Deadline deadline = Deadline::max()) {
    return ReceiveAll(socket, {reinterpret_cast<uint8_t *>(&header), sizeof header}, deadline);
}

// Replaces `payload` by as many bytes as the header says; otherwise as ReceiveAll.
inline bool ReceivePayload(int socket, const MundWireHeader &header, std::vector<uint8_t> &payload,
                           Deadline deadline = Deadline::max()) {
    // Memory is touched for what comes, not for what is promised.
    constexpr size_t kStep = size_t{64} * 1024;
    payload.clear();
    payload.reserve(header.length);
    while (payload.size() < header.length) {
        const size_t begin = payload.size();
        payload.resize(std::min<size_t>(header.length, begin + kStep));
        if (!ReceiveAll(socket, std::span(payload).subspan(begin), deadline)) {
            return false;
        }
    }
    return true;
}

// Appends a request, or the reply to one that is no operation.
inline void AppendFrame(std::vector<uint8_t> &frames, uint16_t code,
                        std::span<const uint8_t> payload, uint32_t status = MUND_WIRE_OK) {
    const MundWireHeader header = {.version = MUND_WIRE_VERSION,
                                   .code = code,
                                   .length = static_cast<uint32_t>(payload.size()),
                                   .status = status,
                                   .result = 0};
    const size_t begin = frames.size();
    frames.resize(begin + sizeof header + payload.size());
    std::memcpy(&frames[begin], &header, sizeof header);
    std::ranges::copy(payload, &frames[begin] + sizeof header);
}

}  // namespace mund
