#include "lb/look_ahead.h"

#include <array>
#include <cstddef>

#include "lb/packet_key.h"
#include "packet/capwap_header.h"

namespace {

// What was asked for has come when so many packets have gone by.
constexpr size_t kDistance = 8;

// The buckets that a burst's lookups in one table will begin with, of a longer burst the first
// ones; for how many of them the first entry has been fetched, and for how many the second.
template <class Table>
struct Fetched {
    std::array<uint32_t, 64> buckets;
    size_t count;
    size_t firsts;
    size_t seconds;

    void Forget() {
        count = firsts = seconds = 0;
    }

    void FetchBucket(const typename Table::Key &key) {
        const LyrKesDistBucket *table = lyr::Buckets<Table>();
        if (table == nullptr || count == buckets.size()) {
            return;
        }
        const uint32_t index = lyr::IndexOf<Table>(lyr::HashOf(key));
        // An address alone: nothing is read of a table that may be going.
        __builtin_prefetch(table + index);
        buckets[count++] = index;
        if (count - firsts == 2 * kDistance) {
            FetchEntriesUpTo(count - kDistance);
        }
    }

    // Fetches the first entries of the buckets up to a number, and the second ones where the first
    // have had their time; none while somebody writes, for whom this does not wait.
    void FetchEntriesUpTo(size_t end) {
        if (lyr::readerMark->Enter(Table::kLocker)) {
            if (const LyrKesDistBucket *table = lyr::Buckets<Table>()) {
                FetchEntriesOf(table, end);
            }
            lyr::readerMark->Leave();
        }
        seconds = firsts;
        firsts = end;
    }

    // The buckets may be those of a larger table that has gone.
    void FetchEntriesOf(const LyrKesDistBucket *table, size_t end) const {
        const uint32_t cap = lyr::LoadRelaxed(Table::kCap);
        for (size_t i = seconds; i < firsts; ++i) {
            const LyrKesDistBucket *first = buckets[i] < cap ? table[buckets[i]].next : nullptr;
            __builtin_prefetch(first != nullptr ? first->next : nullptr);
        }
        for (size_t i = firsts; i < end; ++i) {
            __builtin_prefetch(buckets[i] < cap ? table[buckets[i]].next : nullptr);
        }
    }

    void FetchEntriesLeft() {
        if (seconds != count) {
            FetchEntriesUpTo(count);
        }
    }
};

// An lcore's burst, and how many of its packets have come to receive-out.
struct alignas(128) Burst {
    size_t leaving;
    Fetched<lyr::Ipv4Table> ipv4;
    Fetched<lyr::Ipv6Table> ipv6;
    Fetched<lyr::KaTable> ka;
};

constinit std::array<Burst, lyr::kReaderMarks> bursts{};

// Null on a thread that is no lcore.
Burst *BurstOfThisLcore() {
    return lyr::readerMark != nullptr ? &bursts[lyr::ReaderMarkNumber()] : nullptr;
}

void FetchForControl(Burst *burst, const HostMbuf *packet, lyr::Ports ports) {
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            return burst->ipv4.FetchBucket(lyr::PacketKey(packet, ports, lyr::Ipv4Table{}));
        case HOST_PROTO_IPV6:
            return burst->ipv6.FetchBucket(lyr::PacketKey(packet, ports, lyr::Ipv6Table{}));
        default:
            break;
    }
}

void FetchForKeepalive(Burst *burst, const HostMbuf *packet) {
    uint32_t sessionId[4];
    if (lyr::PeekSessionId(packet, sessionId)) {
        burst->ka.FetchBucket(lyr::SessionKey(sessionId));
    }
}

}  // namespace

void lyr::FetchBucket(const HostMbuf *packet) {
    Burst *burst = BurstOfThisLcore();
    if (burst == nullptr || IpProtocol(packet) != kIpProtocolUdp) {
        return;
    }
    if (burst->leaving != 0) {
        burst->leaving = 0;
        burst->ipv4.Forget();
        burst->ipv6.Forget();
        burst->ka.Forget();
    }
    const Ports ports(packet);
    if (ports.Have(kCapwapControlPort)) {
        FetchForControl(burst, packet, ports);
    } else if (ports.Have(kCapwapDataPort)) {
        FetchForKeepalive(burst, packet);
    }
}

void lyr::FetchEntries() {
    Burst *burst = BurstOfThisLcore();
    if (burst != nullptr && burst->leaving++ % kDistance == 0) {
        burst->ipv4.FetchEntriesLeft();
        burst->ipv6.FetchEntriesLeft();
        burst->ka.FetchEntriesLeft();
    }
}
