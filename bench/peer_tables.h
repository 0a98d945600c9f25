// The peers: DPDK's hash table, in the ways in which it lets readers and writers run at once.
#pragma once

#include <rte_hash.h>
#include <rte_hash_crc.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "lb/dist_table.h"

namespace bench {

// DPDK's environment layer without huge pages, devices or files, for as long as this lives.
class DpdkEnvironment {
  public:
    // Ends the program where the environment cannot be started. The calling thread keeps its
    // processors: the environment would bind it to one, and what it starts later with it.
    explicit DpdkEnvironment(uint32_t megabytes);
    ~DpdkEnvironment();
    DpdkEnvironment(const DpdkEnvironment &) = delete;
    DpdkEnvironment &operator=(const DpdkEnvironment &) = delete;

    static std::string Version();
};

enum class Readers { kLockFree, kReadWriteLock };

// Node ids by IPv4 key, hashed with the same CRC as the module's. Any thread may look up; what
// looks up is inline, so that the table is reached as directly as a program of its own would.
class PeerTable {
  public:
    static constexpr uint32_t kNone = 0xFFFFFFFF;
    static constexpr size_t kBulk = 32;

    // Empty, with room for so many entries and a quarter more: its buckets fill up before it does.
    PeerTable(const char *name, uint32_t entries, Readers readers);
    ~PeerTable();
    PeerTable(const PeerTable &) = delete;
    PeerTable &operator=(const PeerTable &) = delete;

    void Add(const LyrKesDistIpv4Key &key, uint32_t node);

    // The node of a key, or kNone.
    uint32_t Find(const LyrKesDistIpv4Key &key) const {
        void *data;
        return rte_hash_lookup_data(table_, &key, &data) >= 0 ? ToNode(data) : kNone;
    }

    // Calls found(i, node) for each of so many keys at once: with kNone where there is none.
    template <class Found>
    void FindBulk(const std::array<const void *, kBulk> &keys, Found found) const {
        std::array<void *, kBulk> data;
        uint64_t hits = 0;
        // The table's interface lacks a const; it leaves the pointers alone.
        rte_hash_lookup_bulk_data(table_, const_cast<const void **>(keys.data()), kBulk, &hits,
                                  data.data());
        for (size_t i = 0; i < kBulk; ++i) {
            found(i, (hits >> i & 1) != 0 ? ToNode(data[i]) : kNone);
        }
    }

    static uint32_t Hash(const LyrKesDistIpv4Key &key) {
        // It reads its bytes as words of 64 bits.
        const auto words = std::bit_cast<std::array<uint64_t, sizeof(key) / sizeof(uint64_t)>>(key);
        return rte_hash_crc(words.data(), sizeof(words), 0);
    }

  private:
    // Nodes travel in the pointers that the table keeps with its keys.
    static void *ToData(uint32_t node) {
        return reinterpret_cast<void *>(static_cast<uintptr_t>(node));
    }
    static uint32_t ToNode(const void *data) {
        return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(data));
    }

    rte_hash *table_;
};

}  // namespace bench
