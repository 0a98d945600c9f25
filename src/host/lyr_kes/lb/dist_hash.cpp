#include "lb/dist_hash.h"

#include <array>
#include <cstring>

#if defined(__SSE4_2__)
#include <nmmintrin.h>
#elif defined(__ARM_FEATURE_CRC32)
#include <arm_acle.h>
#endif

namespace {

#if defined(__SSE4_2__)

uint32_t Crc(uint32_t crc, uint64_t data) {
    return static_cast<uint32_t>(_mm_crc32_u64(crc, data));
}
uint32_t Crc(uint32_t crc, uint32_t data) {
    return _mm_crc32_u32(crc, data);
}
uint32_t Crc(uint32_t crc, uint16_t data) {
    return _mm_crc32_u16(crc, data);
}
uint32_t Crc(uint32_t crc, uint8_t data) {
    return _mm_crc32_u8(crc, data);
}

#elif defined(__ARM_FEATURE_CRC32)

uint32_t Crc(uint32_t crc, uint64_t data) {
    return __crc32cd(crc, data);
}
uint32_t Crc(uint32_t crc, uint32_t data) {
    return __crc32cw(crc, data);
}
uint32_t Crc(uint32_t crc, uint16_t data) {
    return __crc32ch(crc, data);
}
uint32_t Crc(uint32_t crc, uint8_t data) {
    return __crc32cb(crc, data);
}

#else

constexpr uint32_t kPolynomial = 0x82F63B78;

constexpr std::array<uint32_t, 256> kTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ (crc & 1 ? kPolynomial : 0);
        }
        table[byte] = crc;
    }
    return table;
}();

// The bytes of a word, in memory order.
template <class Word>
uint32_t Crc(uint32_t crc, Word data) {
    uint8_t bytes[sizeof(Word)];
    std::memcpy(bytes, &data, sizeof(data));
    for (const uint8_t byte : bytes) {
        crc = kTable[(crc ^ byte) & 0xFF] ^ crc >> 8;
    }
    return crc;
}

#endif

template <class Word>
uint32_t TakeWord(uint32_t crc, const uint8_t **bytes, uint32_t *length) {
    Word word;
    std::memcpy(&word, *bytes, sizeof(word));
    *bytes += sizeof(word);
    *length -= static_cast<uint32_t>(sizeof(word));
    return Crc(crc, word);
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
