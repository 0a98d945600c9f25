#include "lb/table_query.h"

#include "lb/dist_core.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "packet/cwp_source.h"
#include "packet/host_ip_addr.h"

namespace {

// How a walk over a bucket ended.
enum class Walk { kDone, kStopped, kBroken };

// Shows the bucket's entries with a port to show(entry), until that answers false.
template <class Table, class Show>
Walk WalkBucket(const LyrKesDistBucket *bucket, uint16_t port, Show show) {
    for (const LyrKesDistBucket *link = bucket->next; link != bucket; link = link->next) {
        if (link == nullptr) {
            return Walk::kBroken;
        }
        const auto &entry = *static_cast<const lyr::EntryOf<Table> *>(link);
        if ((entry.key.srcPort == port || entry.key.dstPort == port) && !show(entry)) {
            return Walk::kStopped;
        }
    }
    return Walk::kDone;
}

template <class Table>
bool TableExists(const char *query) {
    if (lyr::Buckets<Table>() != nullptr) {
        return true;
    }
    LYR_KES_DiagLog(LYR_HOST_ERR, "%s failed to get lb hash table.", query);
    return false;
}

void ReportIfBroken(Walk walk, uint32_t line) {
    if (walk == Walk::kBroken) {
        lyr::ReportBrokenChain(line);
    }
}

template <class Table>
uint32_t CountEntries(const LyrKesLbDfxReq &request, const char *query) {
    if (!TableExists<Table>(query)) {
        return 0;
    }
    uint32_t count = 0;
    Walk walk = Walk::kDone;
    {
        const lyr::HeldForReading<Table> table;
        const LyrKesDistBucket *buckets = table.Buckets();
        const uint32_t cap = buckets != nullptr ? lyr::LoadRelaxed(Table::kCap) : 0;
        for (uint32_t b = 0; b < cap && walk == Walk::kDone; ++b) {
            walk = WalkBucket<Table>(&buckets[b], request.tunnelPort, [&count](const auto &) {
                ++count;
                return true;
            });
        }
    }
    ReportIfBroken(walk, __LINE__);
    return count;
}

void SetAddresses(LyrKesLbDfxEntry &entry, const LyrKesDistIpv4Key &key) {
    entry.srcIp = key.srcIp;
    entry.dstIp = key.dstIp;
}

void SetAddresses(LyrKesLbDfxEntry &entry, const LyrKesDistIpv6Key &key) {
    lyr::WordsToGroups(key.srcIpv6, entry.srcIpv6);
    lyr::WordsToGroups(key.dstIpv6, entry.dstIpv6);
}

template <class Key>
LyrKesLbDfxEntry Describe(const LyrKesDistEntry<Key> &entry, uint32_t ipVer) {
    LyrKesLbDfxEntry described = {};
    described.ipVer = ipVer;
    SetAddresses(described, entry.key);
    described.srcPort = entry.key.srcPort;
    described.dstPort = entry.key.dstPort;
    described.vpnId = entry.key.vpnId;
    described.nodeId = entry.nodeId;
    return described;
}

// A page being filled.
struct Page {
    LyrKesLbDfxEntry *entries;
    uint32_t used = 0;

    bool IsFull() const {
        return used == LYR_KES_LB_PAGE_NUM;
    }
    void TakeBack(uint32_t from) {
        std::memset(&entries[from], 0, (used - from) * sizeof(entries[0]));
        used = from;
    }
};

// Adds a bucket's entries to the page. Stopped if they do not fit: then none of them is on the
// page, unless it was empty.
template <class Table>
Walk AddBucket(const LyrKesDistBucket *bucket, const LyrKesLbDfxReq &request, Page &page) {
    const uint32_t before = page.used;
    const Walk walk = WalkBucket<Table>(bucket, request.tunnelPort, [&](const auto &entry) {
        if (page.IsFull()) {
            return false;
        }
        page.entries[page.used++] = Describe(entry, request.ipVer);
        return true;
    });
    if (walk == Walk::kStopped && before > 0) {
        page.TakeBack(before);
    }
    return walk;
}

// Where the page ended.
struct PageEnd {
    uint32_t bucket = 0;  // the first one not examined
    uint32_t cap = 0;
    bool overfull = false;  // the bucket before it fits into no page
    Walk walk = Walk::kDone;
};

// Under the table's locker.
template <class Table>
PageEnd FillPage(const LyrKesDistBucket *buckets, const LyrKesLbDfxReq &request, Page &page) {
    PageEnd end = {.bucket = request.index, .cap = lyr::LoadRelaxed(Table::kCap)};
    while (end.bucket < end.cap && !page.IsFull()) {
        const bool empty = page.used == 0;
        end.walk = AddBucket<Table>(&buckets[end.bucket], request, page);
        if (end.walk == Walk::kBroken || (end.walk == Walk::kStopped && !empty)) {
            break;
        }
        end.overfull = end.walk == Walk::kStopped;
        ++end.bucket;
    }
    return end;
}

void SetNextIndex(const PageEnd &end, LyrKesLbDfxRsp &reply, const char *query) {
    if (end.walk == Walk::kBroken || end.bucket >= end.cap) {
        return;
    }
    if (end.bucket + 1 >= LYR_KES_LB_END) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "%s cannot name bucket %u, the table is not listed further.",
                        query, end.bucket);
        return;
    }
    reply.nextIndex = static_cast<uint16_t>(end.bucket + 1);
}

template <class Table>
void ListEntries(const LyrKesLbDfxReq &request, LyrKesLbDfxRsp &reply, const char *query) {
    if (!TableExists<Table>(query)) {
        return;
    }
    Page page = {.entries = reply.entries};
    PageEnd end;
    {
        const lyr::HeldForReading<Table> table;
        const LyrKesDistBucket *buckets = table.Buckets();
        if (buckets != nullptr) {
            end = FillPage<Table>(buckets, request, page);
        }
    }
    ReportIfBroken(end.walk, __LINE__);
    if (end.overfull) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "%s bucket %u has more than %u entries with port %u.", query,
                        end.bucket - 1, page.used, request.tunnelPort);
    }
    SetNextIndex(end, reply, query);
}

}  // namespace

uint32_t LyrHost_Kes_GetIpv4LbEntryNum(const LyrKesLbDfxReq *request) {
    return CountEntries<lyr::Ipv4Table>(*request, __func__);
}

uint32_t LyrHost_Kes_GetIpv6LbEntryNum(const LyrKesLbDfxReq *request) {
    return CountEntries<lyr::Ipv6Table>(*request, __func__);
}

void LyrHost_Kes_GetIpv4LbEntryInfo(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply) {
    ListEntries<lyr::Ipv4Table>(*request, *reply, __func__);
}

void LyrHost_Kes_GetIpv6LbEntryInfo(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply) {
    ListEntries<lyr::Ipv6Table>(*request, *reply, __func__);
}

uint32_t LyrHost_Kes_LbEntryNum(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply) {
    if (request->ipVer == 0) {
        reply->entryNum = static_cast<uint16_t>(LyrHost_Kes_GetIpv4LbEntryNum(request));
        LyrKes_QueryCwpSrc();
    } else {
        reply->entryNum = static_cast<uint16_t>(LyrHost_Kes_GetIpv6LbEntryNum(request));
    }
    return lyr::kOk;
}

uint32_t LyrHost_Kes_LbEntryInfo(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply) {
    reply->nextIndex = LYR_KES_LB_END;
    const auto list =
        request->ipVer == 0 ? LyrHost_Kes_GetIpv4LbEntryInfo : LyrHost_Kes_GetIpv6LbEntryInfo;
    list(request, reply);
    return lyr::kOk;
}
