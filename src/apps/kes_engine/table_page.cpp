#include "table_page.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "client/pages.h"
#include "failure.h"
#include "mund/table_entries.h"

namespace kes_engine {
namespace {

using std::to_string;

// Buckets that are read before writers get their turn.
constexpr uint32_t kHandful = 64;
// A page that has so many entries ends.
constexpr size_t kPageEntries = 4096;

// A page being filled.
struct Page {
    std::vector<uint8_t> bytes;
    MundWireEntriesRsp head;
};

enum class Bucket { kRead, kTooLong, kBroken };

// Each link has to lead to one that leads back, so a walk ends: no chain runs into itself.
bool Follows(const MundTableLink *link, const MundTableLink *before) {
    return link != nullptr && reinterpret_cast<uintptr_t>(link) % alignof(MundTableLink) == 0 &&
           link->prev == before;
}

// Adds the entries of a bucket, under the table's locker. What is read of a bucket that is not as
// it should be stays on the page.
template <class Key>
Bucket AddBucket(const Table<Key> &table, const MundTableLink *buckets, uint32_t bucket,
                 Page &page) {
    using Entry = typename EntryOf<Key>::Type;
    const MundTableLink *before = &buckets[bucket];
    const MundTableLink *link = before->next;
    for (; Follows(link, before) && link != &buckets[bucket]; before = link, link = link->next) {
        const auto *entry = reinterpret_cast<const Entry *>(link);
        if (table.bucketOf(&entry->key, sizeof entry->key) != bucket) {
            return Bucket::kBroken;
        }
        if (page.head.count == MUND_WIRE_MAX_ENTRIES) {
            return Bucket::kTooLong;
        }
        const auto *begin = reinterpret_cast<const uint8_t *>(&entry->key);
        page.bytes.insert(page.bytes.end(), begin, reinterpret_cast<const uint8_t *>(entry + 1));
        ++page.head.count;
    }
    return Follows(link, before) ? Bucket::kRead : Bucket::kBroken;
}

// Adds a handful of buckets, under the table's locker. kTooLong where the next one does not fit on
// the page, and nothing of it is there unless the page was empty.
template <class Key>
Bucket AddBuckets(const Table<Key> &table, const MundTableLink *buckets, Page &page) {
    MundWireEntriesRsp &head = page.head;
    const uint32_t end = std::min(head.nextBucket + kHandful, head.buckets);
    while (head.nextBucket < end && head.count < kPageEntries) {
        const uint32_t before = head.count;
        const Bucket bucket = AddBucket(table, buckets, head.nextBucket, page);
        if (bucket == Bucket::kTooLong && before > 0) {
            page.bytes.resize(sizeof head + size_t{before} * head.entrySize);
            head.count = before;
            return bucket;
        }
        if (bucket != Bucket::kRead) {
            return bucket;
        }
        ++head.nextBucket;
    }
    return Bucket::kRead;
}

template <class Key>
std::vector<uint8_t> ReadPage(const ModuleView &module, const Table<Key> &table,
                              const MundWireEntriesReq &request) {
    const std::string name = std::string(client::kTableWords[request.table]) + " table";
    Page page = {
        .bytes = std::vector<uint8_t>(sizeof(MundWireEntriesRsp)),
        .head = {.buckets = request.bucket,
                 .nextBucket = request.bucket,
                 .count = 0,
                 .entrySize = sizeof(typename EntryOf<Key>::Type) - sizeof(MundTableLink)}};
    MundWireEntriesRsp &head = page.head;
    page.bytes.reserve(sizeof head + (kPageEntries + kHandful) * head.entrySize);
    Bucket bucket = Bucket::kRead;
    do {
        const bool exists =
            module.WhileHeld(table, [&](const MundTableLink *buckets, uint32_t count) {
                head.buckets = count;
                bucket = AddBuckets(table, buckets, page);
            });
        if (!exists) {
            throw Failure("the " + name + " does not exist: the module starts or stops");
        }
    } while (bucket == Bucket::kRead && head.nextBucket < head.buckets &&
             head.count < kPageEntries);
    if (request.bucket > head.buckets) {
        throw Failure("the " + name + " has no bucket " + to_string(request.bucket) + " of " +
                      to_string(head.buckets));
    }
    if (bucket == Bucket::kBroken) {
        throw Failure("the chain of bucket " + to_string(head.nextBucket) + " of the " + name +
                      " is broken");
    }
    if (bucket == Bucket::kTooLong && head.count == MUND_WIRE_MAX_ENTRIES) {
        throw Failure("bucket " + to_string(head.nextBucket) + " of the " + name +
                      " has more than " + to_string(MUND_WIRE_MAX_ENTRIES) + " entries");
    }
    std::memcpy(page.bytes.data(), &head, sizeof head);
    return page.bytes;
}

}  // namespace

std::vector<uint8_t> ReadTablePage(const ModuleView &module, const MundWireEntriesReq &request) {
    switch (request.table) {
        case MUND_TABLE_IPV4_TUNNELS:
            return ReadPage(module, module.ipv4Tunnels, request);
        case MUND_TABLE_IPV6_TUNNELS:
            return ReadPage(module, module.ipv6Tunnels, request);
        case MUND_TABLE_SESSIONS:
            return ReadPage(module, module.sessions, request);
        default:
            throw Failure("there is no table " + to_string(request.table));
    }
}

}  // namespace kes_engine
