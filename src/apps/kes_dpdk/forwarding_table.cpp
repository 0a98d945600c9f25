#include "forwarding_table.h"

namespace kes_dpdk {
namespace {

constexpr unsigned kPortBits = 16;
constexpr uint64_t kPortMask = (1u << kPortBits) - 1;

// 0 for an address that no frame can come from: a group's, or none.
uint64_t NumberOf(const ForwardingTable::Mac &address) {
    constexpr uint8_t kGroup = 1;
    uint64_t number = 0;
    for (const uint8_t byte : address) {
        number = number << 8 | byte;
    }
    return (address[0] & kGroup) != 0 ? 0 : number;
}

uint64_t Scatter(uint64_t address) {
    return address * 0x9E3779B97F4A7C15 >> 32;
}

}  // namespace

ForwardingTable::Bucket &ForwardingTable::BucketOf(uint64_t address) const {
    return buckets_[Scatter(address) % kBuckets];
}

void ForwardingTable::Learn(const Mac &address, unsigned port) {
    const uint64_t number = NumberOf(address);
    if (number == 0) {
        return;
    }
    const uint64_t entry = number << kPortBits | port;
    auto &entries = BucketOf(number).entries;
    Entry *place = &entries[Scatter(number) / kBuckets % entries.size()];
    for (Entry &there : entries) {
        const uint64_t known = there.load(std::memory_order_relaxed);
        if (known == entry) {
            return;
        }
        if (known == 0 || known >> kPortBits == number) {
            place = &there;
            break;
        }
    }
    place->store(entry, std::memory_order_relaxed);
}

unsigned ForwardingTable::Find(const Mac &address) const {
    const uint64_t number = NumberOf(address);
    if (number == 0) {
        return kUnknown;
    }
    for (const Entry &there : BucketOf(number).entries) {
        const uint64_t known = there.load(std::memory_order_relaxed);
        if (known >> kPortBits == number) {
            return static_cast<unsigned>(known & kPortMask);
        }
    }
    return kUnknown;
}

}  // namespace kes_dpdk
