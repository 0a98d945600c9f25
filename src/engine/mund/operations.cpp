#include <array>

#include "mund/call.h"

namespace {

struct Operation {
    const char *name;
    uint32_t requestSize;
    uint32_t replySize;
};

#define OPERATION_ROW(name, requestSize, replySize) Operation{#name, requestSize, replySize},
constexpr std::array kOperations = {MUND_OPERATIONS(OPERATION_ROW)};
#undef OPERATION_ROW

#define STATUS_TEXT(name, words) words,
constexpr std::array kStatusTexts = {MUND_STATUSES(STATUS_TEXT)};
#undef STATUS_TEXT

}  // namespace

const char *MundStatusText(MundStatus status) {
    return status < MUND_STATUS_COUNT ? kStatusTexts[status] : "unknown status";
}

const char *MundOperationName(uint32_t operation) {
    return operation < kOperations.size() ? kOperations[operation].name : nullptr;
}

uint32_t MundRequestSize(uint32_t operation) {
    return operation < kOperations.size() ? kOperations[operation].requestSize : 0;
}

uint32_t MundReplySize(uint32_t operation) {
    return operation < kOperations.size() ? kOperations[operation].replySize : 0;
}
