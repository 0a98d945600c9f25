// Where objects lie that threads share, so that what packets write is not on a cache line with what
// they all read.
#pragma once

#include <cstddef>

namespace lyr {

constexpr size_t kCacheLine = 64;

}  // namespace lyr

// Counters that every packet of some kind writes. They lie together, the first of them at the start
// of a line, so that a packet's counters are on as few lines as can be.
#define LYR_PACKETS_COUNT __attribute__((section("lyr_packets_count")))

// What lockers of different tables are to each other, and to what lookups read beside them.
#define LYR_LOCKER_WORD alignas(lyr::kCacheLine) __attribute__((section("lyr_locker_words")))
