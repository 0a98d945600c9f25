#include "control/connection.h"

#include <poll.h>

#include <cerrno>
#include <iterator>
#include <new>

#include "control/input_error.h"
#include "control/message_bytes.h"

namespace control {
namespace {

// Waits until the socket has something to read; false if `descriptor` has.
bool AwaitLine(int socket, int descriptor) {
    pollfd waiting[] = {{.fd = socket, .events = POLLIN, .revents = 0},
                        {.fd = descriptor, .events = POLLIN, .revents = 0}};
    while (poll(waiting, std::size(waiting), -1) < 0 && errno == EINTR) {
    }
    return waiting[1].revents == 0;
}

Bytes BytesFrom(const void *bytes, size_t size) {
    const auto *begin = static_cast<const uint8_t *>(bytes);
    return {begin, begin + size};
}

nlohmann::ordered_json Parsed(const char *text) {
    nlohmann::ordered_json json = nlohmann::ordered_json::parse(text, nullptr, false);
    if (!json.is_object()) {
        throw Refused("the engine's answer is no JSON object");
    }
    return json;
}

}  // namespace

Connection::Connection(const std::string &path) : client_(LyrClientNew()) {
    if (client_ == nullptr) {
        throw std::bad_alloc();
    }
    const LyrClientOutcome outcome = LyrClientConnect(client_.get(), path.c_str());
    if (outcome == LYR_CLIENT_INVALID) {
        throw InputError("--control: " + std::string(LyrClientError(client_.get())));
    }
    Check(outcome);
}

Answer Connection::Call(MundOperation operation, std::span<const uint8_t> request) {
    const void *reply = nullptr;
    size_t size = 0;
    const LyrClientOutcome outcome = LyrClientAsk(client_.get(), static_cast<uint16_t>(operation),
                                                  request.data(), request.size(), &reply, &size);
    switch (outcome) {
        case LYR_CLIENT_OK:
        case LYR_CLIENT_FAILED:
            return {{}, LyrClientResult(client_.get()), BytesFrom(reply, size)};
        case LYR_CLIENT_REFUSED:
        case LYR_CLIENT_INVALID:
            return {LyrClientError(client_.get()), 0, {}};
        default:
            Check(outcome);
            return {};
    }
}

Bytes Connection::Ask(uint16_t code, std::span<const uint8_t> payload) {
    const void *reply = nullptr;
    size_t size = 0;
    Check(LyrClientAsk(client_.get(), code, payload.data(), payload.size(), &reply, &size));
    return BytesFrom(reply, size);
}

nlohmann::ordered_json Connection::State() {
    const char *text = nullptr;
    Check(LyrClientState(client_.get(), &text));
    return Parsed(text);
}

Bytes Connection::Object(std::string_view name, std::optional<uint32_t> slot) {
    const void *bytes = nullptr;
    size_t size = 0;
    Check(LyrClientObject(client_.get(), std::string(name).c_str(),
                          slot.value_or(MUND_WIRE_NO_SLOT), &bytes, &size));
    return BytesFrom(bytes, size);
}

nlohmann::ordered_json Connection::Explain(const MundWireExplainReq &arrival,
                                           std::span<const uint8_t> frame) {
    const char *text = nullptr;
    Check(LyrClientExplain(client_.get(), &arrival, frame.data(), frame.size(), &text));
    return Parsed(text);
}

Bytes Connection::Entries(const MundWireEntriesReq &request) {
    return Ask(MUND_WIRE_ENTRIES, BytesOf(request));
}

bool Connection::Settle() {
    int settled = 0;
    Check(LyrClientSettle(client_.get(), &settled));
    return settled != 0;
}

void Connection::Follow(const std::function<bool(const MundWireLine &, std::string_view)> &show,
                        int descriptor) {
    Check(LyrClientFollow(client_.get()));
    while (AwaitLine(LyrClientDescriptor(client_.get()), descriptor)) {
        LyrClientLine line;
        const LyrClientOutcome outcome = LyrClientNextLine(client_.get(), 0, &line);
        if (outcome == LYR_CLIENT_NOTHING) {
            continue;
        }
        Check(outcome);
        if (!show(line.header, {line.text, line.length})) {
            return;
        }
    }
}

void Connection::Check(LyrClientOutcome outcome) const {
    switch (outcome) {
        case LYR_CLIENT_OK:
            return;
        case LYR_CLIENT_NO_ENGINE:
            throw NoEngine(LyrClientError(client_.get()));
        case LYR_CLIENT_NO_MEMORY:
            throw std::bad_alloc();
        default:
            throw Refused(LyrClientError(client_.get()));
    }
}

}  // namespace control
