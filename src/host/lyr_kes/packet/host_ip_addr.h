// IP addresses inside the module. An IPv6 address is four 32-bit words in host order, the most
// significant first: the form of the engine's packet accessors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// An address value, compared as a whole.
struct HostIpAddr {
    uint8_t ipVer;      // 4 or 6; 0 in an unused record
    uint8_t filler[3];  // zero
    uint32_t ip[4];     // IPv4: word 0, the others zero
};
static_assert(sizeof(HostIpAddr) == 20, "address value of 20 bytes");

namespace lyr {

constexpr uint8_t kIpVersion4 = 4;
constexpr uint8_t kIpVersion6 = 6;

// Eight 16-bit groups, the most significant first, as four words.
inline void GroupsToWords(const uint16_t *groups, uint32_t *words) {
    for (size_t i = 0; i < 4; ++i) {
        words[i] = static_cast<uint32_t>(groups[2 * i]) << 16 | groups[2 * i + 1];
    }
}

// Four words as eight groups.
inline void WordsToGroups(const uint32_t *words, uint16_t *groups) {
    for (size_t i = 0; i < 4; ++i) {
        groups[2 * i] = static_cast<uint16_t>(words[i] >> 16);
        groups[2 * i + 1] = static_cast<uint16_t>(words[i]);
    }
}

inline bool SameAddress(const HostIpAddr &a, const HostIpAddr &b) {
    return std::memcmp(&a, &b, sizeof(HostIpAddr)) == 0;
}

// An IPv6 address in a line: "%x:%x:%x:%x".
#define LYR_WORDS_ARGS(words) (words)[0], (words)[1], (words)[2], (words)[3]

}  // namespace lyr
