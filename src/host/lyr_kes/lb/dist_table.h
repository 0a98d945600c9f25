// The distribution tables: which service instance owns each tunnel and each keepalive session.
//
// Three chained hash tables with one locker each. Packets and queries read them; operations and
// reconciliation write. No path holds two lockers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "module/export.h"

// Link of a circular doubly linked list; a bucket is the head of one. An empty bucket's links point
// at the bucket itself.
struct LyrKesDistBucket {
    LyrKesDistBucket *prev;
    LyrKesDistBucket *next;
};
static_assert(sizeof(LyrKesDistBucket) == 16, "bucket of two links");

// Keys are hashed and compared as raw bytes; none has padding.
struct LyrKesDistIpv4Key {
    uint32_t srcIp;  // host order, as all fields
    uint32_t dstIp;
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;  // receive VRF index
};
static_assert(offsetof(LyrKesDistIpv4Key, srcPort) == 8, "source port at 8");
static_assert(offsetof(LyrKesDistIpv4Key, vpnId) == 12, "VPN id at 12");
static_assert(sizeof(LyrKesDistIpv4Key) == 16, "IPv4 key of 16 bytes");

struct LyrKesDistIpv6Key {
    uint32_t srcIpv6[4];  // host-order words, the most significant first
    uint32_t dstIpv6[4];
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;
};
static_assert(offsetof(LyrKesDistIpv6Key, dstIpv6) == 16, "destination at 16");
static_assert(offsetof(LyrKesDistIpv6Key, srcPort) == 32, "source port at 32");
static_assert(offsetof(LyrKesDistIpv6Key, vpnId) == 36, "VPN id at 36");
static_assert(sizeof(LyrKesDistIpv6Key) == 40, "IPv6 key of 40 bytes");

struct LyrKesDistKaKey {
    uint32_t sessionId[4];  // host-order words, in the order of the session id element
};
static_assert(sizeof(LyrKesDistKaKey) == 16, "session key of 16 bytes");

template <class TableKey>
struct LyrKesDistEntry : LyrKesDistBucket {
    TableKey key;
    uint32_t nodeId;     // owning service instance
    uint32_t reconMark;  // confirmations in the audit that is open for the node
};
using LyrKesDistIpv4Entry = LyrKesDistEntry<LyrKesDistIpv4Key>;
using LyrKesDistIpv6Entry = LyrKesDistEntry<LyrKesDistIpv6Key>;
using LyrKesDistKaEntry = LyrKesDistEntry<LyrKesDistKaKey>;
static_assert(sizeof(LyrKesDistIpv4Entry) == 40, "IPv4 entry of 40 bytes");
static_assert(sizeof(LyrKesDistIpv6Entry) == 64, "IPv6 entry of 64 bytes");
static_assert(sizeof(LyrKesDistKaEntry) == 40, "session entry of 40 bytes");

// Bucket arrays: null while a table does not exist.
LYR_API LyrKesDistBucket *g_LyrKes_DistIpv4Tbl;
LYR_API LyrKesDistBucket *g_LyrKes_DistIpv6Tbl;
LYR_API LyrKesDistBucket *g_LyrKes_DistKaTbl;
// Bucket counts: odd once sized, never 0, and unchanged while a table exists.
LYR_API uint32_t g_LyrKes_DistIpv4Cap;
LYR_API uint32_t g_LyrKes_DistIpv6Cap;
LYR_API uint32_t g_LyrKes_DistKaCap;
// Locker words.
LYR_API uint32_t g_LyrKes_DistIpv4RwLocker;
LYR_API uint32_t g_LyrKes_DistIpv6RwLocker;
LYR_API uint32_t g_LyrKes_DistKaRwLocker;

// Computes the three bucket counts from the capabilities.
LYR_API void LyrKes_InitHashSize();

// Sizes and creates the three tables. Returns 0, or 0xFFFFFFFF with none left.
LYR_API uint32_t LyrKes_Dist_CreateHashTable();

// A block of `cap` empty buckets, or null.
LYR_API LyrKesDistBucket *LyrKes_Dist_HashTblInit(uint32_t cap);
// Releases the block; null is ignored.
LYR_API void LyrKes_Dist_HashTblDeinit(LyrKesDistBucket *buckets);

// The bucket of a key of `length` bytes.
LYR_API uint32_t LyrKes_DistIpv4_GetHashIndex(const void *key, uint32_t length);
LYR_API uint32_t LyrKes_DistIpv6_GetHashIndex(const void *key, uint32_t length);
LYR_API uint32_t LyrKes_DistKa_GetHashIndex(const void *key, uint32_t length);

// 0 for equal keys, else the order of their bytes: -1 or 1. -1 for a null key.
LYR_API int32_t LyrKes_DistIpv4_KeyCmp(const LyrKesDistIpv4Key *a, const LyrKesDistIpv4Key *b);
LYR_API int32_t LyrKes_DistIpv6_KeyCmp(const LyrKesDistIpv6Key *a, const LyrKesDistIpv6Key *b);
LYR_API int32_t LyrKes_DistKa_KeyCmp(const LyrKesDistKaKey *a, const LyrKesDistKaKey *b);

namespace lyr {

// Releases the three tables and the entries in them, once no one reads them any more.
void ReleaseTables();

}  // namespace lyr
