// Any bytes from a client of the control socket, before a server with a started module.
#include <stdlib.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "fuzz_target.h"
#include "mund/call.h"
#include "mund/control_socket.h"
#include "mund/server.h"
#include "standin/runtime.h"
#include "started_module.h"

namespace {

using fuzz::Require;

// What the handlers answer.
constexpr std::string_view kState = "{\"state\":1}";
constexpr std::string_view kRefusal = "there is no such object";

mund::WireReply Refuse(fuzz::ByteSpan) {
    throw std::runtime_error(std::string(kRefusal));
}

mund::WireReply Answer(fuzz::ByteSpan) {
    return {MUND_WIRE_OK, {kState.begin(), kState.end()}};
}

class Server {
  public:
    Server() {
        Require(mkdtemp(directory_) != nullptr, "there is a directory");
        path_ = std::string(directory_) + "/socket";
        server_.emplace(path_, std::map<uint16_t, mund::WireHandler>{{MUND_WIRE_STATE, Answer},
                                                                     {MUND_WIRE_OBJECT, Refuse}});
    }
    ~Server() {
        server_.reset();
        rmdir(directory_);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // The bytes that come back for a client's, up to the end of the connection.
    fuzz::Bytes Converse(fuzz::ByteSpan bytes) const {
        const mund::Descriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address;
        Require(mund::SetAddress(address, path_).empty() &&
                    connect(client.Number(), reinterpret_cast<const sockaddr *>(&address),
                            sizeof address) == 0,
                "the server listens");
        // The server may have closed before it has read all of it.
        mund::SendAll(client.Number(), bytes);
        shutdown(client.Number(), SHUT_WR);
        fuzz::Bytes answer;
        uint8_t piece[65536];
        ssize_t got;
        while ((got = recv(client.Number(), piece, sizeof piece, 0)) > 0) {
            answer.insert(answer.end(), piece, piece + got);
        }
        return answer;
    }

  private:
    char directory_[32] = "/tmp/control_fuzz-XXXXXX";
    std::string path_;
    std::optional<mund::ControlServer> server_;
};

// What a request is to be answered with.
struct Expected {
    uint32_t status;
    uint32_t length = 0;
    bool last = false;
};

// A request that says what is wrong with itself has an answer of any length.
constexpr uint32_t kAnyText = 0xFFFFFFFF;

Expected ExpectOperation(uint16_t code, fuzz::ByteSpan payload) {
    if (code != MUND_OP_BatchReconciliation) {
        return payload.size() == MundRequestSize(code) ? Expected{MUND_WIRE_OK, MundReplySize(code)}
                                                       : Expected{MUND_WIRE_BAD_LENGTH};
    }
    uint32_t count = 0;
    if (payload.size() >= 8) {
        std::memcpy(&count, payload.data(), sizeof count);
    }
    return payload.size() >= 8 && payload.size() - 8 == uint64_t{count} * 80
               ? Expected{MUND_WIRE_OK}
               : Expected{MUND_WIRE_BAD_LENGTH};
}

Expected Expect(const MundWireHeader &header, fuzz::ByteSpan payload) {
    if (header.status != 0 || header.result != 0) {
        return {MUND_WIRE_REFUSED, kAnyText};
    }
    if (header.code < MUND_OPERATION_COUNT) {
        return ExpectOperation(header.code, payload);
    }
    switch (header.code) {
        case MUND_WIRE_STATE:
            return payload.empty() ? Expected{MUND_WIRE_OK, kState.size()}
                                   : Expected{MUND_WIRE_BAD_LENGTH};
        case MUND_WIRE_OBJECT:
            return payload.size() == sizeof(MundWireObjectReq)
                       ? Expected{MUND_WIRE_REFUSED, kRefusal.size()}
                       : Expected{MUND_WIRE_BAD_LENGTH};
        case MUND_WIRE_FOLLOW:
            return payload.empty() ? Expected{.status = MUND_WIRE_OK, .last = true}
                                   : Expected{MUND_WIRE_BAD_LENGTH};
        case MUND_WIRE_EXPLAIN:
            return payload.size() >= sizeof(MundWireExplainReq) ? Expected{MUND_WIRE_NO_OPERATION}
                                                                : Expected{MUND_WIRE_BAD_LENGTH};
        default:
            return {MUND_WIRE_NO_OPERATION};
    }
}

// The answer to the next request of a client; nothing where there is no whole request.
std::optional<std::pair<uint16_t, Expected>> Next(fuzz::Reader &client) {
    if (client.Rest().size() < sizeof(MundWireHeader)) {
        return std::nullopt;
    }
    const auto header = client.Take<MundWireHeader>();
    if (header.version != MUND_WIRE_VERSION) {
        return {{header.code, {.status = MUND_WIRE_BAD_VERSION, .last = true}}};
    }
    if (header.length > MUND_WIRE_MAX_PAYLOAD) {
        return {{header.code, {.status = MUND_WIRE_BAD_LENGTH, .last = true}}};
    }
    const fuzz::ByteSpan payload = client.TakeBytes(header.length);
    if (payload.size() < header.length) {
        return std::nullopt;
    }
    return {{header.code, Expect(header, payload)}};
}

void CheckConversation(fuzz::Reader client, fuzz::Reader server) {
    while (const auto next = Next(client)) {
        const auto &[code, expected] = *next;
        Require(server.Rest().size() >= sizeof(MundWireHeader), "every request has an answer");
        const auto header = server.Take<MundWireHeader>();
        Require(header.version == MUND_WIRE_VERSION && header.code == code,
                "answers come in the order of the requests");
        Require(header.status == expected.status, "a request has the status that it earns");
        Require(
            header.length == expected.length || (expected.length == kAnyText && header.length > 0),
            "an answer has its length");
        Require(server.TakeBytes(header.length).size() == header.length, "answers are whole");
        if (expected.last) {
            break;
        }
    }
    Require(server.AtEnd(), "nothing else is answered");
}

// What operations may leave behind before the module is started anew.
constexpr size_t kManyBlocks = 1000;

void Renew(std::optional<fuzz::StartedModule> &module) {
    if (!module || standin::ModuleMemory(fuzz::StartedModule::kId).blocks > kManyBlocks) {
        module.reset();
        module.emplace();
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::optional<fuzz::StartedModule> module;
    static const Server server;
    Renew(module);
    // What comes back for more might not fit the buffers of the socket.
    constexpr size_t kLongest = 65536;
    const fuzz::ByteSpan bytes(data, std::min(size, kLongest));
    const fuzz::Bytes answers = server.Converse(bytes);
    CheckConversation({bytes.data(), bytes.size()}, {answers.data(), answers.size()});
    return 0;
}
