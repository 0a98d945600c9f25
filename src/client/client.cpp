// The connection, and what travels through it as it is.
#include "client.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "address_text.h"
#include "result_text.h"

namespace client {
namespace {

#define STATUS_TEXT(name, words) words,
constexpr std::array kStatusTexts = {MUND_STATUSES(STATUS_TEXT)};
#undef STATUS_TEXT

// Why the last request did not run.
std::string Refusal(const Connection &connection) {
    const uint32_t status = connection.Header().status;
    if (status == MUND_WIRE_REFUSED) {
        return {connection.Payload().begin(), connection.Payload().end()};
    }
    return status < kStatusTexts.size() ? kStatusTexts[status]
                                        : "unknown status " + std::to_string(status);
}

std::span<const uint8_t> BytesOf(const void *bytes, size_t size) {
    return {static_cast<const uint8_t *>(bytes), size};
}

const char *Text(const LyrClient &client) {
    return reinterpret_cast<const char *>(client.connection.Payload().data());
}

}  // namespace

void Send(LyrClient &client, uint16_t code, std::span<const uint8_t> request) {
    client.status = MUND_WIRE_OK;
    client.result = 0;
    client.connection.Exchange(code, request);
    client.status = client.connection.Header().status;
    client.result = client.connection.Header().result;
    if (client.status != MUND_WIRE_OK) {
        throw Failure(LYR_CLIENT_REFUSED, Refusal(client.connection));
    }
}

void CheckResult(const LyrClient &client) {
    if (client.result != MUND_RESULT_OK) {
        throw Failure(LYR_CLIENT_FAILED, ResultText(client.result));
    }
}

}  // namespace client

using client::BytesOf;
using client::Run;
using client::Send;

LyrClient *LyrClientNew() {
    return new (std::nothrow) LyrClient;
}

void LyrClientFree(LyrClient *client) {
    delete client;
}

void LyrClientSetLimits(LyrClient *client, uint32_t connectMs, uint32_t silenceMs) {
    client->connection.SetLimits(
        {std::chrono::milliseconds(connectMs), std::chrono::milliseconds(silenceMs)});
}

LyrClientOutcome LyrClientConnect(LyrClient *client, const char *path) {
    return Run(*client,
               [&] { client->connection.Open(path != nullptr ? path : mund::ClientSocketPath()); });
}

void LyrClientDisconnect(LyrClient *client) {
    client->connection.Close();
}

int LyrClientDescriptor(const LyrClient *client) {
    return client->connection.Number();
}

const char *LyrClientError(const LyrClient *client) {
    return client->error.c_str();
}

uint32_t LyrClientStatus(const LyrClient *client) {
    return client->status;
}

uint32_t LyrClientResult(const LyrClient *client) {
    return client->result;
}

int LyrClientAddressFromText(const char *text, LyrKesRpcIpAddr *address) {
    const std::optional<LyrKesRpcIpAddr> read = client::AddressFromText(text);
    *address = read.value_or(LyrKesRpcIpAddr{});
    return read ? 0 : -1;
}

void LyrClientAddressToText(const LyrKesRpcIpAddr *address, char text[LYR_CLIENT_ADDRESS_LEN]) {
    const std::string written = address->ipVer == 0 ? client::AddressText(address->ipv4Addr)
                                                    : client::AddressText(address->ipv6Addr);
    std::memcpy(text, written.c_str(), written.size() + 1);
}

LyrClientOutcome LyrClientAsk(LyrClient *client, uint16_t code, const void *request,
                              size_t requestSize, const void **reply, size_t *replySize) {
    *reply = nullptr;
    *replySize = 0;
    return Run(*client, [&] {
        Send(*client, code, BytesOf(request, requestSize));
        const std::span<const uint8_t> payload = client->connection.Payload();
        *reply = payload.data();
        *replySize = payload.size();
        client::CheckResult(*client);
    });
}

LyrClientOutcome LyrClientState(LyrClient *client, const char **json) {
    *json = nullptr;
    return Run(*client, [&] {
        Send(*client, MUND_WIRE_STATE, {});
        *json = client::Text(*client);
    });
}

LyrClientOutcome LyrClientExplain(LyrClient *client, const MundWireExplainReq *arrival,
                                  const void *frame, size_t size, const char **json) {
    *json = nullptr;
    return Run(*client, [&] {
        std::vector<uint8_t> request(sizeof *arrival + size);
        std::memcpy(request.data(), arrival, sizeof *arrival);
        std::ranges::copy(BytesOf(frame, size), &request[0] + sizeof *arrival);
        Send(*client, MUND_WIRE_EXPLAIN, request);
        *json = client::Text(*client);
    });
}

LyrClientOutcome LyrClientSettle(LyrClient *client, int *settled) {
    *settled = 0;
    return Run(*client, [&] {
        Send(*client, MUND_WIRE_SETTLE, {});
        uint32_t done = 0;
        const std::span<const uint8_t> payload = client->connection.Payload();
        if (payload.size() != sizeof done) {
            throw client::BadReply("the engine answers with " + std::to_string(payload.size()) +
                                   " bytes, not " + std::to_string(sizeof done) +
                                   ", whether it has done all");
        }
        std::memcpy(&done, payload.data(), sizeof done);
        *settled = done == 1 ? 1 : 0;
    });
}

LyrClientOutcome LyrClientFollow(LyrClient *client) {
    return Run(*client, [&] {
        Send(*client, MUND_WIRE_FOLLOW, {});
        client->connection.BeginToFollow();
    });
}

LyrClientOutcome LyrClientNextLine(LyrClient *client, int timeoutMs, LyrClientLine *line) {
    *line = {};
    bool came = false;
    const LyrClientOutcome outcome = Run(*client, [&] {
        came = client->connection.ReceiveLine(timeoutMs);
        if (came) {
            const std::span<const uint8_t> payload = client->connection.Payload();
            std::memcpy(&line->header, payload.data(), sizeof line->header);
            line->text = client::Text(*client) + sizeof line->header;
            line->length = payload.size() - sizeof line->header;
        }
    });
    return outcome == LYR_CLIENT_OK && !came ? LYR_CLIENT_NOTHING : outcome;
}
