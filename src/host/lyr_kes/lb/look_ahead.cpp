#include "lb/look_ahead.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "lb/packet_key.h"
#include "packet/capwap_header.h"

namespace {

enum class TableKind : uint32_t { kIpv4, kIpv6, kKa };

// A bucket that a lookup will begin with.
struct Fetched {
    uint32_t index;
    TableKind table;
};

// An lcore's burst: the buckets of its packets, of a longer burst the first ones; for how many of
// them the first entry has been fetched, and for how many the second; and how many packets have
// come to receive-out.
struct alignas(128) Burst {
    std::array<Fetched, 64> buckets;
    size_t count;
    size_t firsts;
    size_t seconds;
    size_t leaving;
};

// What was asked for has come when so many packets have gone by.
constexpr size_t kDistance = 8;

constinit std::array<Burst, lyr::kReaderMarks> bursts{};

// Null on a thread that is no lcore.
Burst *BurstOfThisLcore() {
    return lyr::readerMark != nullptr ? &bursts[lyr::ReaderMarkNumber()] : nullptr;
}

using Buckets = std::span<const Fetched>;

bool HaveAny(TableKind kind, Buckets buckets) {
    return std::ranges::find(buckets, kind, &Fetched::table) != buckets.end();
}

// Entries of one table. The buckets may have gone with it, and another table may be smaller.
template <class Table>
void FetchEntriesOf(TableKind kind, Buckets firsts, Buckets seconds) {
    if (!HaveAny(kind, firsts) && !HaveAny(kind, seconds)) {
        return;
    }
    const lyr::HeldForPacket<Table> table;
    if (table.Buckets() == nullptr) {
        return;
    }
    const uint32_t cap = lyr::LoadRelaxed(Table::kCap);
    for (const Fetched &fetched : firsts) {
        if (fetched.table == kind && fetched.index < cap) {
            __builtin_prefetch(table.Buckets()[fetched.index].next);
        }
    }
    for (const Fetched &fetched : seconds) {
        if (fetched.table == kind && fetched.index < cap) {
            const LyrKesDistBucket *first = table.Buckets()[fetched.index].next;
            __builtin_prefetch(first != nullptr ? first->next : nullptr);
        }
    }
}

// Fetches the first entries of the buckets up to a number, and the second ones where the first have
// had their time.
void FetchEntriesUpTo(Burst *burst, size_t end) {
    const Buckets buckets = burst->buckets;
    const Buckets firsts = buckets.subspan(burst->firsts, end - burst->firsts);
    const Buckets seconds = buckets.subspan(burst->seconds, burst->firsts - burst->seconds);
    FetchEntriesOf<lyr::Ipv4Table>(TableKind::kIpv4, firsts, seconds);
    FetchEntriesOf<lyr::Ipv6Table>(TableKind::kIpv6, firsts, seconds);
    FetchEntriesOf<lyr::KaTable>(TableKind::kKa, firsts, seconds);
    burst->seconds = burst->firsts;
    burst->firsts = end;
}

template <class Table>
void Fetch(Burst *burst, TableKind kind, const typename Table::Key &key) {
    const LyrKesDistBucket *buckets = lyr::Buckets<Table>();
    if (buckets == nullptr || burst->count == burst->buckets.size()) {
        return;
    }
    const uint32_t index = lyr::IndexOf<Table>(lyr::HashOf(key));
    // An address alone: nothing is read of a table that may be going.
    __builtin_prefetch(buckets + index);
    burst->buckets[burst->count++] = {index, kind};
    if (burst->count - burst->firsts == 2 * kDistance) {
        FetchEntriesUpTo(burst, burst->count - kDistance);
    }
}

void FetchForControl(Burst *burst, const HostMbuf *packet, lyr::Ports ports) {
    switch (HostMbufGetProtoType(packet)) {
        case HOST_PROTO_IPV4:
            return Fetch<lyr::Ipv4Table>(burst, TableKind::kIpv4,
                                         lyr::PacketKey(packet, ports, lyr::Ipv4Table{}));
        case HOST_PROTO_IPV6:
            return Fetch<lyr::Ipv6Table>(burst, TableKind::kIpv6,
                                         lyr::PacketKey(packet, ports, lyr::Ipv6Table{}));
        default:
            break;
    }
}

void FetchForKeepalive(Burst *burst, const HostMbuf *packet) {
    uint32_t sessionId[4];
    if (lyr::PeekSessionId(packet, sessionId)) {
        Fetch<lyr::KaTable>(burst, TableKind::kKa, lyr::SessionKey(sessionId));
    }
}

}  // namespace

void lyr::FetchBucket(const HostMbuf *packet) {
    Burst *burst = BurstOfThisLcore();
    if (burst == nullptr || IpProtocol(packet) != kIpProtocolUdp) {
        return;
    }
    if (burst->leaving != 0) {
        burst->count = burst->firsts = burst->seconds = burst->leaving = 0;
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
    if (burst != nullptr && burst->seconds != burst->count && burst->leaving++ % kDistance == 0) {
        FetchEntriesUpTo(burst, burst->count);
    }
}
