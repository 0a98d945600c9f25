// Which network port leads to a hardware address, learnt from the frames that come in, as a switch
// does.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

namespace kes_dpdk {

// Bounded: where there is no room, a new address takes the place of one that may be older. Callable
// from any lcore; nobody waits for anybody, and nothing is written that is known already.
class ForwardingTable {
  public:
    using Mac = uint8_t[6];

    // The answer for an address that nothing has come from, and for a group's.
    static constexpr unsigned kUnknown = std::numeric_limits<unsigned>::max();

    // Notes that an address is behind a port, of which there are less than 65,536.
    void Learn(const Mac &address, unsigned port);
    unsigned Find(const Mac &address) const;

  private:
    static constexpr size_t kBuckets = 4096;
    // Address and port, 0 as long as there is none; a bucket fills from the front.
    using Entry = std::atomic<uint64_t>;
    struct alignas(64) Bucket {
        std::array<Entry, 8> entries = {};
    };

    Bucket &BucketOf(uint64_t address) const;

    const std::unique_ptr<Bucket[]> buckets_ = std::make_unique<Bucket[]>(kBuckets);
};

}  // namespace kes_dpdk
