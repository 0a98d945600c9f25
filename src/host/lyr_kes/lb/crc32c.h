// CRC-32C (Castagnoli, reflected) by the word: by instruction where the target has one.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#if defined(__SSE4_2__)
#include <nmmintrin.h>
#elif defined(__ARM_FEATURE_CRC32)
#include <arm_acle.h>
#endif

namespace lyr {

// The CRC of what came before and a word's bytes, in memory order.

#if defined(__SSE4_2__)

inline uint32_t Crc32c(uint32_t crc, uint64_t data) {
    return static_cast<uint32_t>(_mm_crc32_u64(crc, data));
}
inline uint32_t Crc32c(uint32_t crc, uint32_t data) {
    return _mm_crc32_u32(crc, data);
}
inline uint32_t Crc32c(uint32_t crc, uint16_t data) {
    return _mm_crc32_u16(crc, data);
}
inline uint32_t Crc32c(uint32_t crc, uint8_t data) {
    return _mm_crc32_u8(crc, data);
}

#elif defined(__ARM_FEATURE_CRC32)

inline uint32_t Crc32c(uint32_t crc, uint64_t data) {
    return __crc32cd(crc, data);
}
inline uint32_t Crc32c(uint32_t crc, uint32_t data) {
    return __crc32cw(crc, data);
}
inline uint32_t Crc32c(uint32_t crc, uint16_t data) {
    return __crc32ch(crc, data);
}
inline uint32_t Crc32c(uint32_t crc, uint8_t data) {
    return __crc32cb(crc, data);
}

#else

inline constexpr std::array<uint32_t, 256> kCrc32cTable = [] {
    constexpr uint32_t kPolynomial = 0x82F63B78;
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

template <class Word>
uint32_t Crc32c(uint32_t crc, Word data) {
    uint8_t bytes[sizeof(Word)];
    std::memcpy(bytes, &data, sizeof(data));
    for (const uint8_t byte : bytes) {
        crc = kCrc32cTable[(crc ^ byte) & 0xFF] ^ crc >> 8;
    }
    return crc;
}

#endif

}  // namespace lyr
