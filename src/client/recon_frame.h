// Reconciliation records as one request.
#pragma once

#include <cstring>
#include <span>
#include <vector>

#include "mund/reconciliation_messages.h"

namespace client {

// What BatchReconciliation takes on the wire: their number, and the records behind it.
inline std::vector<uint8_t> BatchOf(std::span<const LyrKesReconRecord> records) {
    constexpr size_t kHead = offsetof(LyrKesBatchReconReq, records);
    const LyrKesBatchReconReq head = {static_cast<uint32_t>(records.size()), 0, nullptr};
    std::vector<uint8_t> bytes(kHead + records.size_bytes());
    std::memcpy(bytes.data(), &head, kHead);
    if (!records.empty()) {
        std::memcpy(&bytes[kHead], records.data(), records.size_bytes());
    }
    return bytes;
}

}  // namespace client
