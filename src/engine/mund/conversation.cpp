#include "mund/conversation.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "mund/call.h"

namespace mund {
namespace {

bool IsRequest(const MundWireHeader &header) {
    return header.status == 0 && header.result == 0;
}

// Whether a request of a code that is no operation may have this length.
bool LengthFits(uint16_t code, size_t length) {
    switch (code) {
        case MUND_WIRE_STATE:
        case MUND_WIRE_FOLLOW:
        case MUND_WIRE_SETTLE:
            return length == 0;
        case MUND_WIRE_OBJECT:
            return length == sizeof(MundWireObjectReq);
        case MUND_WIRE_ENTRIES:
            return length == sizeof(MundWireEntriesReq);
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

// Waits for the first byte of a frame, or the end of the connection. False if neither comes.
bool AwaitFrame(int socket, std::chrono::milliseconds patience) {
    pollfd waiting = {.fd = socket, .events = POLLIN, .revents = 0};
    int ready;
    do {
        ready = poll(&waiting, 1, static_cast<int>(patience.count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool SkipPayload(int socket, size_t length, Deadline deadline) {
    std::array<uint8_t, size_t{16} * 1024> bytes;
    while (length != 0) {
        const size_t size = std::min(length, bytes.size());
        if (!ReceiveAll(socket, std::span(bytes).first(size), deadline)) {
            return false;
        }
        length -= size;
    }
    return true;
}

// A request's part of the bytes that all connections may have in hand.
class Share {
  public:
    Share(std::atomic<size_t> &all, size_t bytes, size_t limit)
        : all_(all), bytes_(bytes <= kSmallRequest ? 0 : bytes), granted_(Grant(limit)) {}
    ~Share() {
        all_ -= granted_ ? bytes_ : 0;
    }
    Share(const Share &) = delete;
    Share &operator=(const Share &) = delete;

    bool Granted() const {
        return granted_;
    }

  private:
    // So that the operator is heard whatever the others send.
    static constexpr size_t kSmallRequest = 4096;

    bool Grant(size_t limit) {
        size_t before = all_;
        do {
            if (bytes_ != 0 && before + bytes_ > limit) {
                return false;
            }
        } while (!all_.compare_exchange_weak(before, before + bytes_));
        return true;
    }

    std::atomic<size_t> &all_;
    const size_t bytes_;
    const bool granted_;
};

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

Conversation::Conversation(Descriptor socket, pid_t client, Place place, Served &served,
                           std::function<void()> ended)
    : socket_(std::move(socket)), client_(client), place_(place), served_(served) {
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
    const ControlLimits &limits = served_.limits;
    if (!AwaitFrame(socket_.Number(), place_ == Place::kLast ? limits.lastIdle : limits.idle)) {
        return false;
    }
    const Deadline deadline = std::chrono::steady_clock::now() + limits.stall;
    MundWireHeader header{};
    if (!ReceiveHeader(socket_.Number(), header, deadline)) {
        return false;
    }
    if (header.version != MUND_WIRE_VERSION || header.length > MUND_WIRE_MAX_PAYLOAD) {
        Send(ReplyFrame(header.code, {header.version != MUND_WIRE_VERSION ? MUND_WIRE_BAD_VERSION
                                                                          : MUND_WIRE_BAD_LENGTH}));
        return false;
    }
    if (header.code == MUND_WIRE_FOLLOW && header.length == 0 && IsRequest(header)) {
        return Follow();
    }
    const std::vector<uint8_t> reply = ReplyTo(header, deadline);
    return !reply.empty() && Send(reply);
}

// Nothing if the client is not through with its request in time.
std::vector<uint8_t> Conversation::ReplyTo(const MundWireHeader &header, Deadline deadline) const {
    const Share share(served_.requestBytes, header.length, served_.limits.requestBytes);
    if (!share.Granted()) {
        return SkipPayload(socket_.Number(), header.length, deadline)
                   ? ReplyFrame(header.code, {MUND_WIRE_BUSY})
                   : std::vector<uint8_t>();
    }
    std::vector<uint8_t> request;
    return ReceivePayload(socket_.Number(), header, request, deadline) ? Answer(header, request)
                                                                       : std::vector<uint8_t>();
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
        std::shared_lock<std::shared_mutex> inside;
        if (served_.gate != nullptr) {
            inside = served_.gate->Enter();
        }
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

// False when the connection is at its end.
bool Conversation::Follow() {
    if (place_ == Place::kLast) {
        return Send(ReplyFrame(
            MUND_WIRE_FOLLOW,
            Refusal("every other place is taken, and who follows would keep the last one")));
    }
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
    return false;
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
