#include "lb/dist_hash.h"

#include <cstring>

#include "lb/crc32c.h"

namespace {

template <class Word>
uint32_t TakeWord(uint32_t crc, const uint8_t **bytes, uint32_t *length) {
    Word word;
    std::memcpy(&word, *bytes, sizeof(word));
    *bytes += sizeof(word);
    *length -= static_cast<uint32_t>(sizeof(word));
    return lyr::Crc32c(crc, word);
}

}  // namespace

uint32_t LyrKes_Hash(const void *key, uint32_t length) {
    const auto *bytes = static_cast<const uint8_t *>(key);
    uint32_t crc = 0;
    while (length >= sizeof(uint64_t)) {
        crc = TakeWord<uint64_t>(crc, &bytes, &length);
    }
    if (length >= sizeof(uint32_t)) {
        crc = TakeWord<uint32_t>(crc, &bytes, &length);
    }
    if (length >= sizeof(uint16_t)) {
        crc = TakeWord<uint16_t>(crc, &bytes, &length);
    }
    if (length > 0) {
        crc = TakeWord<uint8_t>(crc, &bytes, &length);
    }
    return crc;
}

uint32_t LyrKes_DjbHashCal(const void *bytes, uint32_t length) {
    const auto *byte = static_cast<const uint8_t *>(bytes);
    uint32_t hash = 5381;
    for (uint32_t i = 0; i < length; ++i) {
        hash = hash * 33 + byte[i];
    }
    return hash & 0x7FFFFFFF;
}
