#include "module_caller.h"

#include "mund/call.h"

namespace kes_engine {

control::Answer CallModule(MundOperation operation, std::span<const uint8_t> request) {
    control::Answer answer;
    answer.reply.resize(MundReplySize(operation));
    uint32_t replySize = 0;
    const MundStatus status = MundCall(
        operation, request.data(), static_cast<uint32_t>(request.size()), answer.reply.data(),
        static_cast<uint32_t>(answer.reply.size()), &replySize, &answer.result);
    answer.reply.resize(replySize);
    if (status != MUND_STATUS_OK) {
        answer.failure = MundStatusText(status);
    }
    return answer;
}

}  // namespace kes_engine
