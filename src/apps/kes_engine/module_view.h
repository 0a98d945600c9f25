// What the engine reads of the loaded module and asks it: operations and objects, by name.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "kes/mbuf.h"
#include "kes/thread.h"
#include "mund/messages.h"
#include "mund/module_objects.h"
#include "mund/module_tables.h"
#include "standin/module_loader.h"

namespace kes_engine {

template <class Key>
struct Table {
    MundTableLink **buckets;  // null while the table does not exist
    uint32_t *bucketCount;
    uint32_t *locker;
    uint32_t (*bucketOf)(const void *key, uint32_t length);
    int32_t (*compare)(const Key *a, const Key *b);
};

template <class Key>
struct EntryOf;
template <>
struct EntryOf<MundIpv4TunnelKey> {
    using Type = MundIpv4TunnelEntry;
};
template <>
struct EntryOf<MundIpv6TunnelKey> {
    using Type = MundIpv6TunnelEntry;
};
template <>
struct EntryOf<MundSessionKey> {
    using Type = MundSessionEntry;
};

// The chain that a key belongs to.
struct Chain {
    bool exists = false;  // the table; if not, nothing but the bucket is known
    uint32_t bucket = 0;
    uint32_t buckets = 0;
    uint32_t entries = 0;   // as far as the chain goes
    bool broken = false;    // the chain does not come back to its bucket
    uint32_t position = 0;  // of the key's entry, from 1; 0: it has none
    uint32_t instance = 0;  // that the entry names
};

struct TableFill {
    uint64_t entries;
    uint32_t buckets;
};

using Sources = std::array<MundSourceRecord, LYR_KES_CWP_SRC_NUM>;

// Where an instance's packets of one type go.
struct ReceiverSlot {
    uint32_t channel;  // MUND_NO_CHANNEL until it is resolved
    bool threadKnown;
};

// X(name, type)
#define KES_ENGINE_DRY_RUN_OPERATIONS(X)                                    \
    X(LyrKes_IsLocalPkt, bool(const HostMbuf *))                            \
    X(LyrKes_GetCapwapHeader,                                               \
      uint32_t(const HostMbuf *, const uint8_t **, uint16_t *, uint16_t *)) \
    X(LyrKes_CheckIsKaPkt, uint32_t(const HostMbuf *))                      \
    X(LyrKes_CheckIsDtlsHandShakePkt, uint32_t(const HostMbuf *))           \
    X(LyrKes_CheckIfFirstIpFrag, uint32_t(const HostMbuf *))                \
    X(LyrHost_IsPktMatchCwpSrc, bool(const HostMbuf *))                     \
    X(LyrKes_DistCwp_PktProc, uint32_t(HostMbuf *))                         \
    X(LyrKes_DistKa_PktProc, uint32_t(HostMbuf *))                          \
    X(LyrKes_GetKaSessionid, uint32_t(const HostMbuf *, uint32_t *))        \
    X(LyrKes_DistReadLock, void(uint32_t *))                                \
    X(LyrKes_DistReadUnlock, void(uint32_t *))                              \
    X(LyrKes_DjbHashCal, uint32_t(const void *, uint32_t))                  \
    X(LyrKes_GetStaSvcInfo, uint64_t())                                     \
    X(LyrKes_GetPidByMac, uint32_t(const uint8_t *))                        \
    X(LyrKes_GetChnMapByPktType, uint32_t *(uint32_t))                      \
    X(LyrKes_GetThdInfoByPktType, TovThreadInfo **(uint32_t))               \
    X(TOV_CHN_KES2LYR, const char *(uint32_t))                              \
    X(TOV_THD_KES2LYR, const char *(uint32_t))

// Callable from any thread while the module is started.
class ModuleView {
  public:
    // Throws Failure, which names an operation or object that the module lacks.
    explicit ModuleView(const standin::Module &module);

#define KES_ENGINE_OPERATION(name, type) std::add_pointer_t<type> name;
    KES_ENGINE_DRY_RUN_OPERATIONS(KES_ENGINE_OPERATION)
#undef KES_ENGINE_OPERATION

    Table<MundIpv4TunnelKey> ipv4Tunnels;
    Table<MundIpv6TunnelKey> ipv6Tunnels;
    Table<MundSessionKey> sessions;

    // All sources as they were at one moment.
    Sources ReadSources() const;

    // The highest number of a service instance.
    uint32_t LastInstance() const;

    // Of an instance up to the last one; nothing while the module has no channels.
    std::optional<ReceiverSlot> ReceiverOf(uint32_t instance, uint32_t packetType) const;

    // A key's chain, under the table's locker.
    template <class Key>
    Chain LookAt(const Table<Key> &table, const Key &key) const;

    // How full a table is; no entries while it does not exist. Its locker is given up now and then,
    // so an entry that comes or goes meanwhile may be counted or not.
    template <class Key>
    TableFill FillOf(const Table<Key> &table) const;

    // Runs read(buckets, their number) under the table's locker. Runs nothing, and answers false,
    // while the table does not exist.
    template <class Key, class Read>
    bool WhileHeld(const Table<Key> &table, Read read) const {
        if (ExistingBuckets(table.buckets) == nullptr) {
            return false;
        }
        const ReadLock lock(*this, table.locker);
        // A table can go at any time before its locker is held.
        const MundTableLink *buckets = ExistingBuckets(table.buckets);
        if (buckets != nullptr) {
            read(buckets, std::atomic_ref(*table.bucketCount).load(std::memory_order_acquire));
        }
        return buckets != nullptr;
    }

  private:
    class ReadLock {
      public:
        ReadLock(const ModuleView &module, uint32_t *locker) : module_(module), locker_(locker) {
            module_.LyrKes_DistReadLock(locker_);
        }
        ~ReadLock() {
            module_.LyrKes_DistReadUnlock(locker_);
        }
        ReadLock(const ReadLock &) = delete;
        ReadLock &operator=(const ReadLock &) = delete;

      private:
        const ModuleView &module_;
        uint32_t *locker_;
    };

    static const MundTableLink *ExistingBuckets(MundTableLink **buckets) {
        return std::atomic_ref(*buckets).load(std::memory_order_acquire);
    }

    const MundSourceRecord *sources_;
    uint32_t *lastInstance_;
};

}  // namespace kes_engine
