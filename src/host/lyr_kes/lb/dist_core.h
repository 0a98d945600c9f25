// What the three distribution tables have in common, written once: a table is named by a record
// that says which globals make it up.
#pragma once

#include <cstring>
#include <optional>
#include <utility>

#include "kes/diag.h"
#include "lb/crc32c.h"
#include "lb/dist_hash.h"
#include "lb/dist_locker.h"
#include "lb/dist_table.h"
#include "lb/reader_mark.h"
#include "module/shared_word.h"

namespace lyr {

struct Ipv4Table {
    using Key = LyrKesDistIpv4Key;
    static constexpr auto &kBuckets = g_LyrKes_DistIpv4Tbl;
    static constexpr auto &kCap = g_LyrKes_DistIpv4Cap;
    static constexpr auto &kLocker = g_LyrKes_DistIpv4RwLocker;
};

struct Ipv6Table {
    using Key = LyrKesDistIpv6Key;
    static constexpr auto &kBuckets = g_LyrKes_DistIpv6Tbl;
    static constexpr auto &kCap = g_LyrKes_DistIpv6Cap;
    static constexpr auto &kLocker = g_LyrKes_DistIpv6RwLocker;
};

struct KaTable {
    using Key = LyrKesDistKaKey;
    static constexpr auto &kBuckets = g_LyrKes_DistKaTbl;
    static constexpr auto &kCap = g_LyrKes_DistKaCap;
    static constexpr auto &kLocker = g_LyrKes_DistKaRwLocker;
};

template <class Table>
using EntryOf = LyrKesDistEntry<typename Table::Key>;

template <class Key>
uint64_t KeyWord(const Key &key, size_t i) {
    uint64_t word;
    std::memcpy(&word, reinterpret_cast<const uint8_t *>(&key) + i * sizeof(word), sizeof(word));
    return word;
}

// LyrKes_Hash of a key, whose length is known here.
template <class Key>
uint32_t HashOf(const Key &key) {
    static_assert(sizeof(Key) % sizeof(uint64_t) == 0, "a key of whole words");
    return [&key]<size_t... kWords>(std::index_sequence<kWords...>) {
        uint32_t crc = 0;
        ((crc = Crc32c(crc, KeyWord(key, kWords))), ...);
        return crc;
    }
    (std::make_index_sequence<sizeof(Key) / sizeof(uint64_t)>{});
}

template <class Table>
uint32_t IndexOf(uint32_t hash) {
    return hash % LoadRelaxed(Table::kCap);
}

// The table's buckets, or null while it does not exist.
template <class Table>
LyrKesDistBucket *Buckets() {
    return LoadAcquire(Table::kBuckets);
}

// A table with its locker held by a Guard, if the table exists: one that does not is not locked. A
// table can go at any time but not while its locker is held, so it is looked for once more then.
template <class Table, class Guard>
class Held {
  public:
    Held() {
        if (lyr::Buckets<Table>() != nullptr) {
            guard_.emplace(Table::kLocker);
            buckets_ = lyr::Buckets<Table>();
        }
    }

    // Null while the table does not exist.
    LyrKesDistBucket *Buckets() const {
        return buckets_;
    }
    LyrKesDistBucket *BucketOf(uint32_t hash) const {
        return buckets_ != nullptr ? &buckets_[IndexOf<Table>(hash)] : nullptr;
    }

  private:
    std::optional<Guard> guard_;
    LyrKesDistBucket *buckets_ = nullptr;
};

template <class Table>
using HeldForReading = Held<Table, ReadGuard>;
template <class Table>
using HeldForPacket = Held<Table, PacketReadGuard>;
template <class Table>
using HeldForWriting = Held<Table, WriteGuard>;

// The entry of a key in a bucket, under the table's locker. Without one, `broken` says whether the
// walk met a null link before it came back to the bucket.
template <class Table>
struct Found {
    EntryOf<Table> *entry = nullptr;
    bool broken = false;
};

template <class Table>
Found<Table> Find(LyrKesDistBucket *bucket, const typename Table::Key &key) {
    for (LyrKesDistBucket *link = bucket->next; link != bucket; link = link->next) {
        if (link == nullptr) {
            return {.broken = true};
        }
        auto *entry = static_cast<EntryOf<Table> *>(link);
        if (std::memcmp(&entry->key, &key, sizeof(key)) == 0) {
            return {.entry = entry};
        }
    }
    return {};
}

// Links an entry in at the front, so that a walk meets the newest first. Links are stored whole: an
// engine may look at a bucket while it changes.
inline void Insert(LyrKesDistBucket *bucket, LyrKesDistBucket *entry) {
    entry->prev = bucket;
    entry->next = bucket->next;
    StoreRelaxed(bucket->next->prev, entry);
    StoreRelaxed(bucket->next, entry);
}

// Takes an entry out. False for one whose own links are broken: it stays where it is.
inline bool Unlink(LyrKesDistBucket *entry) {
    if (entry->prev == nullptr || entry->next == nullptr) {
        return false;
    }
    StoreRelaxed(entry->next->prev, entry->prev);
    StoreRelaxed(entry->prev->next, entry->next);
    entry->prev = nullptr;
    entry->next = nullptr;
    return true;
}

// Where the distribution's broken invariants are reported from.
constexpr const char *kDistSource = "src/host/lyr_kes/lb/lyr_kes_dist";

inline void ReportBrokenChain(uint32_t line) {
    TovOndAssert(kDistSource, line, 0);
}

}  // namespace lyr
