#include "module_view.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "failure.h"

namespace kes_engine {
namespace {

// The address of an object or operation.
template <class Thing>
Thing *Bind(const standin::Module &module, const std::string &name) {
    void *found = module.Symbol(name.c_str());
    if (found == nullptr) {
        throw Failure("the module has no " + name);
    }
    return reinterpret_cast<Thing *>(found);
}

template <class Key>
Table<Key> BindTable(const standin::Module &module, const std::string &family) {
    const std::string object = "g_LyrKes_Dist" + family;
    const std::string operation = "LyrKes_Dist" + family;
    return {
        .buckets = Bind<MundTableLink *>(module, object + "Tbl"),
        .bucketCount = Bind<uint32_t>(module, object + "Cap"),
        .locker = Bind<uint32_t>(module, object + "RwLocker"),
        .bucketOf = Bind<uint32_t(const void *, uint32_t)>(module, operation + "_GetHashIndex"),
        .compare = Bind<int32_t(const Key *, const Key *)>(module, operation + "_KeyCmp"),
    };
}

template <class Word>
Word Load(Word &word) {
    return std::atomic_ref(word).load(std::memory_order_acquire);
}

// The module writes records word by word.
using SharedWord [[gnu::may_alias]] = uint32_t;

Sources CopyOf(const MundSourceRecord *records) {
    Sources copy;
    const auto *from = reinterpret_cast<const SharedWord *>(records);
    auto *to = reinterpret_cast<SharedWord *>(copy.data());
    for (size_t i = 0; i < sizeof copy / sizeof(SharedWord); ++i) {
        to[i] = __atomic_load_n(&from[i], __ATOMIC_ACQUIRE);
    }
    return copy;
}

// Buckets that are walked before writers get their turn.
constexpr uint32_t kStretch = 4096;

template <class Key>
void Walk(const Table<Key> &table, const MundTableLink *bucket, const Key &key, Chain &chain) {
    for (const MundTableLink *link = bucket->next; link != bucket; link = link->next) {
        if (link == nullptr) {
            chain.broken = true;
            return;
        }
        ++chain.entries;
        const auto *entry = reinterpret_cast<const typename EntryOf<Key>::Type *>(link);
        if (chain.position == 0 && table.compare(&entry->key, &key) == 0) {
            chain.position = chain.entries;
            chain.instance = entry->nodeId;
        }
    }
}

uint64_t LengthOf(const MundTableLink &bucket) {
    uint64_t length = 0;
    for (const MundTableLink *link = bucket.next; link != nullptr && link != &bucket;
         link = link->next) {
        ++length;
    }
    return length;
}

}  // namespace

ModuleView::ModuleView(const standin::Module &module)
    :
#define KES_ENGINE_BIND(name, type) name(Bind<type>(module, #name)),
      KES_ENGINE_DRY_RUN_OPERATIONS(KES_ENGINE_BIND)
#undef KES_ENGINE_BIND
          ipv4Tunnels(BindTable<MundIpv4TunnelKey>(module, "Ipv4")),
      ipv6Tunnels(BindTable<MundIpv6TunnelKey>(module, "Ipv6")),
      sessions(BindTable<MundSessionKey>(module, "Ka")),
      sources_(Bind<MundSourceRecord>(module, MUND_OBJECT_SOURCES)),
      lastInstance_(Bind<uint32_t>(module, MUND_OBJECT_LAST_INSTANCE)) {
}

Sources ModuleView::ReadSources() const {
    for (Sources before = CopyOf(sources_);;) {
        const Sources after = CopyOf(sources_);
        if (std::memcmp(&before, &after, sizeof before) == 0) {
            return after;
        }
        before = after;
    }
}

uint32_t ModuleView::LastInstance() const {
    return Load(*lastInstance_);
}

std::optional<ReceiverSlot> ModuleView::ReceiverOf(uint32_t instance, uint32_t packetType) const {
    uint32_t *channels = LyrKes_GetChnMapByPktType(packetType);
    TovThreadInfo **threads = LyrKes_GetThdInfoByPktType(packetType);
    if (channels == nullptr || threads == nullptr) {
        return std::nullopt;
    }
    // Whoever sees a channel sees its thread.
    const uint32_t channel = Load(channels[instance]);
    return ReceiverSlot{channel, Load(threads[instance]) != nullptr};
}

template <class Key>
Chain ModuleView::LookAt(const Table<Key> &table, const Key &key) const {
    Chain chain = {.bucket = table.bucketOf(&key, sizeof key), .buckets = Load(*table.bucketCount)};
    chain.exists = WhileHeld(table, [&](const MundTableLink *buckets, uint32_t) {
        Walk(table, &buckets[chain.bucket], key, chain);
    });
    return chain;
}

template <class Key>
TableFill ModuleView::FillOf(const Table<Key> &table) const {
    TableFill fill = {.entries = 0, .buckets = Load(*table.bucketCount)};
    uint32_t bucket = 0;
    const auto countStretch = [&](const MundTableLink *buckets, uint32_t count) {
        fill.buckets = count;
        for (const uint32_t end = std::min(bucket + kStretch, count); bucket < end; ++bucket) {
            fill.entries += LengthOf(buckets[bucket]);
        }
    };
    while (bucket < fill.buckets && WhileHeld(table, countStretch)) {
    }
    return fill;
}

template Chain ModuleView::LookAt(const Table<MundIpv4TunnelKey> &,
                                  const MundIpv4TunnelKey &) const;
template Chain ModuleView::LookAt(const Table<MundIpv6TunnelKey> &,
                                  const MundIpv6TunnelKey &) const;
template Chain ModuleView::LookAt(const Table<MundSessionKey> &, const MundSessionKey &) const;

template TableFill ModuleView::FillOf(const Table<MundIpv4TunnelKey> &) const;
template TableFill ModuleView::FillOf(const Table<MundIpv6TunnelKey> &) const;
template TableFill ModuleView::FillOf(const Table<MundSessionKey> &) const;

}  // namespace kes_engine
