#include "lb/dist_table.h"

#include <algorithm>

#include "kes/bounded.h"
#include "kes/memory.h"
#include "lb/dist_core.h"
#include "module/capability.h"
#include "module/diag_log.h"
#include "module/placement.h"
#include "module/registration.h"
#include "module/status.h"

namespace {

using lyr::kError;
using lyr::kOk;

constexpr uint32_t kDefaultLinkNum = 8999;
// The largest odd count whose bucket array stays within 32 bits.
constexpr uint64_t kMaxCap = (uint64_t{1} << 32) / sizeof(LyrKesDistBucket) - 1;

}  // namespace

LyrKesDistBucket *g_LyrKes_DistIpv4Tbl = nullptr;
LyrKesDistBucket *g_LyrKes_DistIpv6Tbl = nullptr;
LyrKesDistBucket *g_LyrKes_DistKaTbl = nullptr;
uint32_t g_LyrKes_DistIpv4Cap = kDefaultLinkNum;
uint32_t g_LyrKes_DistIpv6Cap = kDefaultLinkNum;
uint32_t g_LyrKes_DistKaCap = kDefaultLinkNum;
LYR_LOCKER_WORD uint32_t g_LyrKes_DistIpv4RwLocker = 0;
LYR_LOCKER_WORD uint32_t g_LyrKes_DistIpv6RwLocker = 0;
LYR_LOCKER_WORD uint32_t g_LyrKes_DistKaRwLocker = 0;

namespace {

// About 1.3 buckets a link, an odd number of them.
uint32_t BucketCount(uint64_t links) {
    return static_cast<uint32_t>(std::min(links * 13 / 10 | 1, kMaxCap));
}

template <class Table>
bool CreateTable() {
    LyrKesDistBucket *buckets = LyrKes_Dist_HashTblInit(lyr::LoadRelaxed(Table::kCap));
    if (buckets == nullptr) {
        return false;
    }
    // Its locker is 0 whenever nobody holds it, and never written while somebody may.
    lyr::StoreRelease(Table::kBuckets, buckets);
    return true;
}

template <class Table>
void FreeEntries(LyrKesDistBucket *buckets) {
    for (uint32_t i = 0; i < Table::kCap; ++i) {
        LyrKesDistBucket *link = buckets[i].next;
        while (link != nullptr && link != &buckets[i]) {
            LyrKesDistBucket *next = link->next;
            TovMemFreeInner(static_cast<lyr::EntryOf<Table> *>(link));
            link = next;
        }
    }
}

// A reader that comes late finds no table; one that is inside holds the locker.
template <class Table>
void ReleaseTable() {
    LyrKesDistBucket *buckets;
    {
        const lyr::HeldForWriting<Table> table;
        buckets = table.Buckets();
        if (buckets == nullptr) {
            return;
        }
        lyr::StoreRelease<LyrKesDistBucket *>(Table::kBuckets, nullptr);
    }
    FreeEntries<Table>(buckets);
    LyrKes_Dist_HashTblDeinit(buckets);
}

template <class Table>
uint32_t HashIndex(const void *key, uint32_t length) {
    return lyr::IndexOf<Table>(LyrKes_Hash(key, length));
}

template <class Key>
int32_t CompareKeys(const Key *a, const Key *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const int order = std::memcmp(a, b, sizeof(Key));
    return (order > 0) - (order < 0);
}

}  // namespace

void LyrKes_InitHashSize() {
    const uint64_t linkNum = LyrKes_GetCapsetSpec("WCWP_SPEC_MAX_LINK_NUM", kDefaultLinkNum);
    const uint64_t dataLinkNum =
        LyrKes_GetCapsetSpec("WCWP_SPEC_MAX_DATA_LINK_NUM", kDefaultLinkNum);
    const uint32_t cwpHashSize = BucketCount(linkNum + dataLinkNum);
    const uint32_t kaHashSize = BucketCount(dataLinkNum);
    lyr::StoreRelaxed(g_LyrKes_DistIpv4Cap, cwpHashSize);
    lyr::StoreRelaxed(g_LyrKes_DistIpv6Cap, cwpHashSize);
    lyr::StoreRelaxed(g_LyrKes_DistKaCap, kaHashSize);
    LYR_KES_DiagLog(LYR_HOST_INFO, "hash size cwpHashSize %u, kaHashSize %u", cwpHashSize,
                    kaHashSize);
}

uint32_t LyrKes_Dist_CreateHashTable() {
    LyrKes_InitHashSize();
    if (CreateTable<lyr::Ipv4Table>() && CreateTable<lyr::Ipv6Table>() &&
        CreateTable<lyr::KaTable>()) {
        return kOk;
    }
    lyr::ReleaseTables();
    TovOndAssert(lyr::kDistSource, __LINE__, 0);
    return kError;
}

void lyr::ReleaseTables() {
    ReleaseTable<lyr::Ipv4Table>();
    ReleaseTable<lyr::Ipv6Table>();
    ReleaseTable<lyr::KaTable>();
}

LyrKesDistBucket *LyrKes_Dist_HashTblInit(uint32_t cap) {
    const auto size = static_cast<uint32_t>(cap * sizeof(LyrKesDistBucket));
    if (size == 0) {
        return nullptr;
    }
    auto *buckets = static_cast<LyrKesDistBucket *>(
        TovMemAllocInner(mod_kes_lyrhost_id, 0, size, 0, "LyrKes_Dist_HashTblInit", __LINE__));
    if (buckets == nullptr) {
        return nullptr;
    }
    for (uint32_t i = 0; i < size / sizeof(LyrKesDistBucket); ++i) {
        buckets[i] = {&buckets[i], &buckets[i]};
    }
    return buckets;
}

void LyrKes_Dist_HashTblDeinit(LyrKesDistBucket *buckets) {
    if (buckets != nullptr) {
        TovMemFreeInner(buckets);
    }
}

uint32_t LyrKes_DistIpv4_GetHashIndex(const void *key, uint32_t length) {
    return HashIndex<lyr::Ipv4Table>(key, length);
}

uint32_t LyrKes_DistIpv6_GetHashIndex(const void *key, uint32_t length) {
    return HashIndex<lyr::Ipv6Table>(key, length);
}

uint32_t LyrKes_DistKa_GetHashIndex(const void *key, uint32_t length) {
    return HashIndex<lyr::KaTable>(key, length);
}

int32_t LyrKes_DistIpv4_KeyCmp(const LyrKesDistIpv4Key *a, const LyrKesDistIpv4Key *b) {
    return CompareKeys(a, b);
}

int32_t LyrKes_DistIpv6_KeyCmp(const LyrKesDistIpv6Key *a, const LyrKesDistIpv6Key *b) {
    return CompareKeys(a, b);
}

int32_t LyrKes_DistKa_KeyCmp(const LyrKesDistKaKey *a, const LyrKesDistKaKey *b) {
    return CompareKeys(a, b);
}
