#include "control/connection.h"

#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "control/input_error.h"
#include "control/message_bytes.h"

namespace control {
namespace {

constexpr std::chrono::seconds kPatience{30};

#define STATUS_TEXT(name, words) words,
constexpr std::array kStatusTexts = {MUND_STATUSES(STATUS_TEXT)};
#undef STATUS_TEXT

// Why there is no result; empty when there is one.
std::string FailureOf(const MundWireHeader &header, const Bytes &payload) {
    switch (header.status) {
        case MUND_WIRE_OK:
            return {};
        case MUND_WIRE_REFUSED:
            return {payload.begin(), payload.end()};
        default:
            return header.status < kStatusTexts.size()
                       ? kStatusTexts[header.status]
                       : "unknown status " + std::to_string(header.status);
    }
}

std::string TooLong(size_t size) {
    return "the request has " + std::to_string(size) + " bytes, and a frame takes at most " +
           std::to_string(MUND_WIRE_MAX_PAYLOAD);
}

// By the error of connect().
std::string WhyNobodyListens(const std::string &path) {
    if (errno != ECONNREFUSED) {
        return std::generic_category().message(errno);
    }
    struct stat file {};
    return stat(path.c_str(), &file) == 0 && !S_ISSOCK(file.st_mode)
               ? "it is no socket"
               : "the one that served it has ended";
}

// Waits until the socket has something to read; false if `descriptor` has.
bool AwaitLine(int socket, int descriptor) {
    pollfd waiting[] = {{.fd = socket, .events = POLLIN, .revents = 0},
                        {.fd = descriptor, .events = POLLIN, .revents = 0}};
    while (poll(waiting, std::size(waiting), -1) < 0 && errno == EINTR) {
    }
    return waiting[1].revents == 0;
}

}  // namespace

Connection::Connection(const std::string &path)
    : path_(path), socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address;
    if (const std::string complaint = mund::SetAddress(address, path); !complaint.empty()) {
        throw InputError("--control: " + complaint);
    }
    if (!socket_.Open()) {
        throw NoEngine(std::string("cannot create a socket: ") +
                       std::generic_category().message(errno));
    }
    mund::SetStallLimit(socket_.Number(), SO_SNDTIMEO, kPatience);
    mund::SetStallLimit(socket_.Number(), SO_RCVTIMEO, kPatience);
    if (connect(socket_.Number(), reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
        0) {
        throw NoEngine("no engine at " + path + ": " + WhyNobodyListens(path));
    }
    const std::optional<ucred> engine = mund::Peer(socket_.Number());
    if (!engine || engine->uid != geteuid()) {
        throw NoEngine("the engine at " + path + " is that of user " +
                       (engine ? std::to_string(engine->uid) : "?") + ", and serves nobody else");
    }
}

Answer Connection::Call(MundOperation operation, std::span<const uint8_t> request) {
    if (request.size() > MUND_WIRE_MAX_PAYLOAD) {
        return {TooLong(request.size()), 0, {}};
    }
    Reply reply = Exchange(static_cast<uint16_t>(operation), request);
    std::string failure = FailureOf(reply.header, reply.payload);
    if (!failure.empty()) {
        return {std::move(failure), 0, {}};
    }
    return {{}, reply.header.result, std::move(reply.payload)};
}

nlohmann::ordered_json Connection::State() {
    return AskJson(MUND_WIRE_STATE, {});
}

Bytes Connection::Object(std::string_view name, std::optional<uint32_t> slot) {
    MundWireObjectReq request = {};
    if (name.size() >= sizeof request.name) {
        throw Refused("the name '" + std::string(name) + "' has " + std::to_string(name.size()) +
                      " bytes, and an object's at most " + std::to_string(sizeof request.name - 1));
    }
    name.copy(request.name, name.size());
    request.slot = slot.value_or(MUND_WIRE_NO_SLOT);
    return Ask(MUND_WIRE_OBJECT, BytesOf(request));
}

nlohmann::ordered_json Connection::Explain(const MundWireExplainReq &arrival,
                                           std::span<const uint8_t> frame) {
    Bytes request = BytesOf(arrival);
    request.insert(request.end(), frame.begin(), frame.end());
    return AskJson(MUND_WIRE_EXPLAIN, request);
}

Bytes Connection::Entries(const MundWireEntriesReq &request) {
    return Ask(MUND_WIRE_ENTRIES, BytesOf(request));
}

bool Connection::Settle() {
    const Bytes reply = Ask(MUND_WIRE_SETTLE, {});
    if (reply.size() != sizeof(uint32_t)) {
        throw Refused("the engine answers with " + std::to_string(reply.size()) + " bytes, not " +
                      std::to_string(sizeof(uint32_t)) + ", whether it has done all");
    }
    return MessageOf<uint32_t>(reply) == 1;
}

void Connection::Follow(const std::function<bool(const MundWireLine &, std::string_view)> &show,
                        int descriptor) {
    Ask(MUND_WIRE_FOLLOW, {});
    while (AwaitLine(socket_.Number(), descriptor)) {
        const Bytes payload = Receive(MUND_WIRE_FOLLOW).payload;
        if (payload.size() < sizeof(MundWireLine)) {
            throw NoEngine(path_ + ": a line of " + std::to_string(payload.size()) + " bytes");
        }
        const std::string_view text(reinterpret_cast<const char *>(payload.data()), payload.size());
        if (!show(MessageOf<MundWireLine>(payload), text.substr(sizeof(MundWireLine)))) {
            return;
        }
    }
}

Bytes Connection::Ask(uint16_t code, std::span<const uint8_t> payload) {
    if (payload.size() > MUND_WIRE_MAX_PAYLOAD) {
        throw Refused(TooLong(payload.size()));
    }
    Reply reply = Exchange(code, payload);
    if (const std::string failure = FailureOf(reply.header, reply.payload); !failure.empty()) {
        throw Refused(failure);
    }
    return std::move(reply.payload);
}

nlohmann::ordered_json Connection::AskJson(uint16_t code, std::span<const uint8_t> payload) {
    const Bytes text = Ask(code, payload);
    nlohmann::ordered_json json = nlohmann::ordered_json::parse(text, nullptr, false);
    if (!json.is_object()) {
        throw Refused("the engine's answer is no JSON object");
    }
    return json;
}

Connection::Reply Connection::Exchange(uint16_t code, std::span<const uint8_t> payload) {
    Bytes frame;
    mund::AppendFrame(frame, code, payload);
    // An engine that closes before it has read everything has said why.
    if (!mund::SendAll(socket_.Number(), frame) && errno != EPIPE && errno != ECONNRESET) {
        FailToReceive();
    }
    return Receive(code);
}

Connection::Reply Connection::Receive(uint16_t code) {
    Reply reply;
    if (!mund::ReceiveHeader(socket_.Number(), reply.header)) {
        FailToReceive();
    }
    const MundWireHeader &header = reply.header;
    // A client that is turned away is told so before its request is read.
    const bool expected = header.code == code || header.status == MUND_WIRE_REFUSED;
    if (header.version != MUND_WIRE_VERSION || !expected || header.length > MUND_WIRE_MAX_PAYLOAD) {
        throw NoEngine(path_ + ": what answers there does not speak version " +
                       std::to_string(MUND_WIRE_VERSION) + " of the protocol");
    }
    if (!mund::ReceivePayload(socket_.Number(), header, reply.payload)) {
        FailToReceive();
    }
    return reply;
}

void Connection::FailToReceive() const {
    if (errno == EAGAIN) {
        throw NoEngine("the engine at " + path_ + " has not answered for " +
                       std::to_string(kPatience.count()) + " seconds");
    }
    throw NoEngine("the engine at " + path_ + " has closed the connection");
}

}  // namespace control
