// What all operations of the service share: the checks of their messages, and their replies.
#pragma once

#include <cstring>

#include "lb/rpc_server.h"
#include "module/diag_log.h"
#include "mund/messages.h"
#include "mund/rpc.h"

namespace lyr {

inline void ReportNoMessages(const char *operation) {
    LYR_KES_DiagLog(LYR_HOST_ERR, "%s inMsg or outMsg is NULL, proc fail.", operation);
}

// A zero-filled reply, stored in the reply slot, or null.
template <class Reply>
Reply *CreateReply(const char *operation, void **outMsg) {
    void *message = RPC_IdlMsgCreate(sizeof(Reply), LyrHost_GetMundModuleId(), operation);
    if (message == nullptr) {
        return nullptr;
    }
    std::memset(message, 0, sizeof(Reply));
    *outMsg = message;
    return static_cast<Reply *>(message);
}

// The same; a reply that cannot be created is logged in the words of most operations.
template <class Reply>
Reply *NewReply(const char *operation, void **outMsg) {
    auto *reply = CreateReply<Reply>(operation, outMsg);
    if (reply == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "%s rpc msg new fail.", operation);
    }
    return reply;
}

// Runs an operation: work(request, reply) fills the zeroed reply and answers the result. An
// operation that did not get both of its messages answers `withoutMessages`.
template <class Request, class Reply, class Work>
uint32_t Answer(const char *operation, const void *inMsg, void **outMsg, uint32_t withoutMessages,
                Work work) {
    if (inMsg == nullptr || outMsg == nullptr) {
        ReportNoMessages(operation);
        return withoutMessages;
    }
    auto *reply = NewReply<Reply>(operation, outMsg);
    if (reply == nullptr) {
        return MUND_RESULT_FAILED;
    }
    return work(*static_cast<const Request *>(inMsg), *reply);
}

// What every free twin does; null is ignored.
inline uint32_t DestroyMessage(const char *twin, void *message) {
    return message != nullptr ? RPC_IdlMsgDestroy(message, LyrHost_GetMundModuleId(), twin) : 0;
}

}  // namespace lyr
