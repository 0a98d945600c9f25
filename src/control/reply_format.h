// What the replies of operations say.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "client/pages.h"
#include "control/caller.h"
#include "control/message_bytes.h"
#include "mund/messages.h"

namespace control {

// Sends a request of the command's operation. The answer's reply has the operation's size, or is
// empty where the operation failed. Throws ReplyError when there is no such answer.
using Ask = std::function<Answer(std::span<const uint8_t> request)>;

// There is no answer, or none that a command can go on with.
using ReplyError = client::BadReply;

// The operation ran and says that it did not succeed.
struct OperationFailed {
    uint32_t result;
    std::string reason = {};  // where it is more than the command's own reason for such a result
};

struct ReplyFormat {
    uint32_t size;  // bytes of each reply
    // Sends the command's request, and those that replies ask for; tells under names what the
    // replies say (null: no more than that it is done). Throws OperationFailed and ReplyError.
    nlohmann::ordered_json (*read)(const Bytes &request, const Ask &ask);
    // The same laid out for people; null when the result says it all.
    std::string (*render)(const nlohmann::ordered_json &reply);
};

// Asks an operation that has to succeed.
template <typename Reply>
Reply AskFor(const Ask &ask, std::span<const uint8_t> request) {
    const Answer answer = ask(request);
    if (answer.result != MUND_RESULT_OK) {
        throw OperationFailed{answer.result};
    }
    return MessageOf<Reply>(answer.reply);
}

extern const ReplyFormat kWapiReply;
extern const ReplyFormat kVerifyReply;

extern const ReplyFormat kPktStatsReply;
extern const ReplyFormat kPktStatsResetReply;
extern const ReplyFormat kMsgTypeStatsReply;
extern const ReplyFormat kMsgTypeDoneReply;
extern const ReplyFormat kPingStatsReply;
extern const ReplyFormat kPingDoneReply;
extern const ReplyFormat kProbesReply;
extern const ReplyFormat kProbesClearedReply;

extern const ReplyFormat kTunnelCountReply;
extern const ReplyFormat kTunnelListReply;

}  // namespace control
