// What operations return, in words.
#pragma once

#include <cstdint>
#include <string>

#include "mund/messages.h"

namespace client {

inline std::string ResultText(uint32_t result) {
    constexpr uint32_t kNoTable = 0xFFFFFFFF;
    switch (result) {
        case MUND_RESULT_OK:
            return "ok";
        case MUND_RESULT_FAILED:
            return "failed (1)";
        case MUND_RESULT_REFUSED:
            return "refused (2): the module does not know such a request";
        case kNoTable:
            return "failed (0xFFFFFFFF): no table, or a broken chain in it";
        default:
            return "result " + std::to_string(result);
    }
}

}  // namespace client
