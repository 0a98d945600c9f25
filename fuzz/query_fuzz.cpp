// Tables filled at will, before the queries that count and list them.
#include <array>
#include <map>

#include "lb/dist_table.h"
#include "lb/tunnel_registration.h"
#include "mund/call.h"
#include "mund/statistics_messages.h"
#include "standin/runtime.h"
#include "started_module.h"

namespace {

using fuzz::Require;

// The front of an input. Fills follow.
struct Question {
    uint8_t ipv6;   // lowest bit
    uint8_t port;   // of kPorts
    uint8_t index;  // of a listing besides the one from 0
};

// Adds tunnels whose sources count up.
struct Fill {
    uint8_t count;  // as Count says
    uint8_t firstSource;
    uint8_t step;
    uint8_t ports;  // source port in the high half
};

constexpr std::array<uint16_t, 6> kPorts = {5246, 5247, 40000, 0, 1, 65535};

constexpr uint8_t kManyFrom = 248;

uint16_t Port(unsigned choice) {
    return kPorts[choice % kPorts.size()];
}

// Few as a rule: an add walks the whole bucket.
uint32_t Count(uint8_t code) {
    return code < kManyFrom ? code % 8u : (code - kManyFrom + 1u) * 32;
}

struct Ipv4 {
    using Entry = LyrKesDistIpv4Entry;
    static constexpr auto &kBuckets = g_LyrKes_DistIpv4Tbl;
    static constexpr auto &kCap = g_LyrKes_DistIpv4Cap;
    static constexpr uint32_t kVersion = 0;

    static void Add(uint32_t source, uint16_t srcPort, uint16_t dstPort, uint32_t nodeId) {
        const LyrKesDistIpv4Key key = {source, 1, srcPort, dstPort, nodeId};
        LyrKes_DistAddIPv4Tunnel(nodeId, &key);
    }
    static void Delete(const Entry &entry) {
        const LyrKesDistIpv4Key key = entry.key;
        LyrKes_DistDelIPv4Tunnel(0, &key);
    }
    static void SetAddresses(const Entry &entry, LyrKesLbDfxEntry &listed) {
        listed.srcIp = entry.key.srcIp;
        listed.dstIp = entry.key.dstIp;
    }
};

struct Ipv6 {
    using Entry = LyrKesDistIpv6Entry;
    static constexpr auto &kBuckets = g_LyrKes_DistIpv6Tbl;
    static constexpr auto &kCap = g_LyrKes_DistIpv6Cap;
    static constexpr uint32_t kVersion = 7;

    static void Add(uint32_t source, uint16_t srcPort, uint16_t dstPort, uint32_t nodeId) {
        const LyrKesDistIpv6Key key = {
            {0x20010DB8, 0, 0, source}, {0xFFFF0000}, srcPort, dstPort, nodeId};
        LyrKes_DistAddIPv6Tunnel(nodeId, &key);
    }
    static void Delete(const Entry &entry) {
        const LyrKesDistIpv6Key key = entry.key;
        LyrKes_DistDelIPv6Tunnel(0, &key);
    }
    static void SetAddresses(const Entry &entry, LyrKesLbDfxEntry &listed) {
        for (size_t i = 0; i < 8; ++i) {
            const uint32_t shift = i % 2 == 0 ? 16 : 0;
            listed.srcIpv6[i] = static_cast<uint16_t>(entry.key.srcIpv6[i / 2] >> shift);
            listed.dstIpv6[i] = static_cast<uint16_t>(entry.key.dstIpv6[i / 2] >> shift);
        }
    }
};

template <class Table>
void Insert(fuzz::Reader &input) {
    while (!input.AtEnd()) {
        const auto fill = input.Take<Fill>();
        for (uint32_t i = 0; i < Count(fill.count); ++i) {
            Table::Add(fill.firstSource + i * fill.step, Port(fill.ports >> 4), Port(fill.ports),
                       i % fuzz::StartedModule::kInstances);
        }
    }
}

// Tunnels with a port, by bucket.
using Listing = std::vector<std::vector<LyrKesLbDfxEntry>>;

template <class Table>
Listing Walk(uint16_t port) {
    Listing buckets(Table::kCap);
    for (uint32_t i = 0; i < Table::kCap; ++i) {
        const LyrKesDistBucket *bucket = &Table::kBuckets[i];
        for (const LyrKesDistBucket *link = bucket->next; link != bucket; link = link->next) {
            const auto &entry = *static_cast<const typename Table::Entry *>(link);
            if (entry.key.srcPort != port && entry.key.dstPort != port) {
                continue;
            }
            LyrKesLbDfxEntry listed = {};
            listed.ipVer = Table::kVersion;
            Table::SetAddresses(entry, listed);
            listed.srcPort = entry.key.srcPort;
            listed.dstPort = entry.key.dstPort;
            listed.vpnId = entry.key.vpnId;
            listed.nodeId = entry.nodeId;
            buckets[i].push_back(listed);
        }
    }
    return buckets;
}

const LyrKesLbDfxRsp &Ask(const LyrKesLbDfxReq &request) {
    static LyrKesLbDfxRsp page;
    uint32_t size = 0, result = 1;
    Require(MundCall(MUND_OP_LoadBalanceDfx, &request, sizeof request, &page, sizeof page, &size,
                     &result) == MUND_STATUS_OK &&
                result == 0 && size == sizeof page,
            "queries are answered");
    return page;
}

// Whether the page is the one that begins with a bucket. A bucket stays whole, but for one that is
// longer than a page and has a page of its own.
void CheckPage(const LyrKesLbDfxRsp &page, const Listing &buckets, uint32_t bucket) {
    size_t used = 0;
    for (; bucket < buckets.size() && used < LYR_KES_LB_PAGE_NUM; ++bucket) {
        const size_t fits = LYR_KES_LB_PAGE_NUM - used;
        if (used > 0 && buckets[bucket].size() > fits) {
            break;
        }
        const size_t shown = std::min(buckets[bucket].size(), fits);
        for (size_t i = 0; i < shown; ++i) {
            Require(std::memcmp(&page.entries[used + i], &buckets[bucket][i],
                                sizeof(LyrKesLbDfxEntry)) == 0,
                    "a page shows the buckets in their order");
        }
        used += shown;
    }
    constexpr LyrKesLbDfxEntry kUnused[LYR_KES_LB_PAGE_NUM] = {};
    Require(
        std::memcmp(&page.entries[used], kUnused, sizeof kUnused - used * sizeof kUnused[0]) == 0,
        "behind its entries a page is zero");
    Require(page.nextIndex == (bucket < buckets.size() ? bucket + 1 : LYR_KES_LB_END),
            "a page names the bucket that comes next");
    Require(page.entryNum == 0, "a page has no count");
}

template <class Table>
void CheckQueries(const Question &question) {
    const uint16_t port = Port(question.port);
    const Listing buckets = Walk<Table>(port);
    size_t count = 0;
    for (const auto &bucket : buckets) {
        count += bucket.size();
    }
    LyrKesLbDfxReq request = {Table::kVersion, 0, port, LYR_KES_LB_COUNT, {}};
    Require(Ask(request).entryNum == count, "the count is of all entries with the port");
    request.msgType = LYR_KES_LB_LIST;
    request.index = question.index;
    CheckPage(Ask(request), buckets, question.index);
    for (uint32_t next = 1; next != LYR_KES_LB_END;) {
        request.index = static_cast<uint16_t>(next - 1);
        const LyrKesLbDfxRsp &page = Ask(request);
        CheckPage(page, buckets, request.index);
        Require(page.nextIndex > next, "a listing moves on");
        next = page.nextIndex;
    }
}

template <class Table>
void Clear() {
    for (uint32_t i = 0; i < Table::kCap; ++i) {
        LyrKesDistBucket *bucket = &Table::kBuckets[i];
        while (bucket->next != bucket) {
            Table::Delete(*static_cast<const typename Table::Entry *>(bucket->next));
        }
    }
}

template <class Table>
void Run(const Question &question, fuzz::Reader &input) {
    Insert<Table>(input);
    CheckQueries<Table>(question);
    Clear<Table>();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Three buckets.
    static const fuzz::StartedModule module(1);
    constexpr size_t kMostFills = 8;
    fuzz::Reader whole(data, size);
    const auto question = whole.Take<Question>();
    const fuzz::ByteSpan fills = whole.TakeBytes(kMostFills * sizeof(Fill));
    fuzz::Reader input(fills.data(), fills.size());
    (question.ipv6 & 1) != 0 ? Run<Ipv6>(question, input) : Run<Ipv4>(question, input);
    Require(standin::ModuleMemory(fuzz::StartedModule::kId).blocks < 100, "nothing is left behind");
    return 0;
}

std::vector<fuzz::Bytes> fuzz::Seeds() {
    return {};  // the corpus has them
}
