#include <atomic>

#include "kes/memory.h"
#include "mund/call.h"
#include "mund/rpc.h"
#include "standin/runtime.h"

// Above the ids that modules get.
uint32_t g_uiMundModuleId = 0x80000000u + MUND_SERVICE_NUMBER;

namespace {

std::atomic<uint32_t> inUse{0};

}  // namespace

void *RPC_IdlMsgCreate(uint32_t size, uint32_t moduleId, const char *tag) {
    if (standin::CallFails("RPC_IdlMsgCreate") || tag == nullptr) {
        return nullptr;
    }
    void *message = standin::AllocateBlock(moduleId, size, tag, 0);
    inUse += message != nullptr ? 1 : 0;
    return message;
}

uint32_t RPC_IdlMsgDestroy(void *message, uint32_t /*moduleId*/, const char * /*tag*/) {
    if (message == nullptr) {
        return 1;
    }
    TovMemFreeInner(message);
    --inUse;
    return 0;
}

uint32_t MundMessagesInUse(void) {
    return inUse;
}
