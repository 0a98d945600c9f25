// What a LyrClient is, for the functions that make up the library.
#pragma once

#include <exception>
#include <new>
#include <span>
#include <string>

#include "connection.h"
#include "pages.h"

struct LyrClient {
    client::Limits limits;
    client::Connection connection;
    std::string error;
    uint32_t status = MUND_WIRE_OK;
    uint32_t result = 0;
};

namespace client {

// Runs the body of a call; what it throws becomes the outcome, and the text of the error.
template <typename Body>
LyrClientOutcome Run(LyrClient &client, Body body) noexcept {
    try {
        client.error.clear();
        body();
        return LYR_CLIENT_OK;
    } catch (const Failure &failure) {
        client.error = failure.what();
        return failure.Outcome();
    } catch (const BadReply &reply) {
        client.error = reply.what();
        return LYR_CLIENT_BAD_REPLY;
    } catch (const std::exception &) {
        // As short as a text may be that needs no memory.
        client.error = "out of memory";
        return LYR_CLIENT_NO_MEMORY;
    }
}

// Sends a request; the reply is the connection's payload. Throws Failure of LYR_CLIENT_REFUSED for
// one that did not run, and then of LYR_CLIENT_FAILED for an operation that did not succeed.
void Send(LyrClient &client, uint16_t code, std::span<const uint8_t> request);
void CheckResult(const LyrClient &client);

}  // namespace client
