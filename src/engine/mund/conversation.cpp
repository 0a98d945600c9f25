#include "mund/conversation.h"

#include <poll.h>

#include <cstring>
#include <exception>
#include <utility>

#include "mund/call.h"

namespace mund {
namespace {

#define SAME_STATUS(name, words) \
    static_assert(static_cast<int>(MUND_WIRE_##name) == static_cast<int>(MUND_STATUS_##name));
MUND_STATUSES(SAME_STATUS)
#undef SAME_STATUS

bool IsRequest(const MundWireHeader &header) {
    return header.status == 0 && header.result == 0;
}

// Whether a request of a code that is no operation may have this length.
bool LengthFits(uint16_t code, size_t length) {
    switch (code) {
        case MUND_WIRE_STATE:
        case MUND_WIRE_FOLLOW:
            return length == 0;
        case MUND_WIRE_OBJECT:
            return length == sizeof(MundWireObjectReq);
        case MUND_WIRE_EXPLAIN:
            return length >= sizeof(MundWireExplainReq);
        default:
            return true;
    }
}

// The module's answer, received where the frame needs it.
std::vector<uint8_t> RunOperation(uint16_t code, std::span<const uint8_t> request) {
    std::vector<uint8_t> frame(sizeof(MundWireHeader) + MundReplySize(code));
    MundWireHeader header = {};
    header.version = MUND_WIRE_VERSION;
    header.code = code;
    header.status =
        MundCall(code, request.data(), static_cast<uint32_t>(request.size()),
                 frame.data() + sizeof header, MundReplySize(code), &header.length, &header.result);
    std::memcpy(frame.data(), &header, sizeof header);
    frame.resize(sizeof header + header.length);
    return frame;
}

// Waits without end for the first byte of a frame, or the end of the connection.
void AwaitFrame(int socket) {
    pollfd waiting = {.fd = socket, .events = POLLIN, .revents = 0};
    while (poll(&waiting, 1, -1) < 0 && errno == EINTR) {
    }
}

}  // namespace

WireReply Refusal(std::string_view reason) {
    return {MUND_WIRE_REFUSED, {reason.begin(), reason.end()}};
}

std::vector<uint8_t> ReplyFrame(uint16_t code, const WireReply &reply) {
    std::vector<uint8_t> frame;
    if (reply.payload.size() > MUND_WIRE_MAX_PAYLOAD) {
        AppendFrame(frame, code, {}, MUND_WIRE_REPLY_TOO_LONG);
    } else {
        AppendFrame(frame, code, reply.payload, reply.status);
    }
    return frame;
}

Conversation::Conversation(Descriptor socket, Served &served, std::function<void()> ended)
    : socket_(std::move(socket)), served_(served) {
    SetStallLimit(socket_.Number(), SO_RCVTIMEO, served_.limits.stall);
    SetStallLimit(socket_.Number(), SO_SNDTIMEO, served_.limits.stall);
    thread_ = std::thread([this, ended = std::move(ended)] { Run(ended); });
}

Conversation::~Conversation() {
    thread_.join();
}

void Conversation::HangUp() const {
    shutdown(socket_.Number(), SHUT_RDWR);
}

void Conversation::Run(const std::function<void()> &ended) {
    try {
        while (ServeRequest()) {
        }
    } catch (const std::exception &) {
        // No memory for the request: the client sees the connection close.
    }
    HangUp();
    ended_ = true;
    ended();
}

// One request and its reply; false when the connection is at its end.
bool Conversation::ServeRequest() {
    AwaitFrame(socket_.Number());
    MundWireHeader header{};
    if (!ReceiveHeader(socket_.Number(), header)) {
        return false;
    }
    if (header.version != MUND_WIRE_VERSION || header.length > MUND_WIRE_MAX_PAYLOAD) {
        Send(ReplyFrame(header.code, {header.version != MUND_WIRE_VERSION ? MUND_WIRE_BAD_VERSION
                                                                          : MUND_WIRE_BAD_LENGTH}));
        return false;
    }
    std::vector<uint8_t> request;
    if (!ReceivePayload(socket_.Number(), header, request)) {
        return false;
    }
    if (header.code == MUND_WIRE_FOLLOW && request.empty() && IsRequest(header)) {
        Follow();
        return false;
    }
    return Send(Answer(header, request));
}

bool Conversation::Send(std::span<const uint8_t> frame) const {
    return SendAll(socket_.Number(), frame);
}

std::vector<uint8_t> Conversation::Answer(const MundWireHeader &header,
                                          std::span<const uint8_t> request) const {
    if (!IsRequest(header)) {
        return ReplyFrame(header.code, Refusal("a request has the status 0 and the result 0"));
    }
    if (header.code < MUND_OPERATION_COUNT) {
        return RunOperation(header.code, request);
    }
    return ReplyFrame(header.code, AnswerExtra(header.code, request));
}

WireReply Conversation::AnswerExtra(uint16_t code, std::span<const uint8_t> request) const {
    if (!LengthFits(code, request.size())) {
        return {MUND_WIRE_BAD_LENGTH};
    }
    const auto handler = served_.handlers.find(code);
    if (handler == served_.handlers.end()) {
        return {MUND_WIRE_NO_OPERATION};
    }
    try {
        return handler->second(request);
    } catch (const std::exception &error) {
        return Refusal(error.what());
    }
}

void Conversation::Follow() {
    try {
        Follower follower(served_.followers);
        if (Send(ReplyFrame(MUND_WIRE_FOLLOW, {}))) {
            // A client may look at its lines when it likes.
            SetStallLimit(socket_.Number(), SO_SNDTIMEO, {});
            SendLines(follower);
        }
    } catch (const std::runtime_error &error) {
        Send(ReplyFrame(MUND_WIRE_FOLLOW, Refusal(error.what())));
    }
}

// Until the client closes, or says anything more.
void Conversation::SendLines(Follower &follower) const {
    pollfd waiting[] = {{.fd = socket_.Number(), .events = POLLIN, .revents = 0},
                        {.fd = follower.Waiting(), .events = POLLIN, .revents = 0}};
    while (waiting[0].revents == 0) {
        if (poll(waiting, std::size(waiting), -1) > 0 && waiting[1].revents != 0 &&
            !Send(follower.Take())) {
            return;
        }
    }
}

}  // namespace mund
