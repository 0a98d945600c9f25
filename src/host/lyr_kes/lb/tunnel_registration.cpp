#include "lb/tunnel_registration.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "channel/service_channel.h"
#include "channel/station_service.h"
#include "kes/channel.h"
#include "kes/memory.h"
#include "kes/thread.h"
#include "lb/dist_core.h"
#include "lb/dist_key.h"
#include "module/capability.h"
#include "module/diag_log.h"
#include "module/registration.h"
#include "module/status.h"

namespace {

using lyr::kError;
using lyr::kFailed;
using lyr::kOk;

// What a table is called in lines, by its key, and whether its entries need the instance's channel.
struct TableNames {
    const char *what;
    const char *addOperation;
    bool needsChannel;
};

TableNames NamesOf(const LyrKesDistIpv4Key &) {
    return {"IPv4", "LyrKes_DistAddIPv4Tunnel", true};
}

TableNames NamesOf(const LyrKesDistIpv6Key &) {
    return {"IPv6", "LyrKes_DistAddIPv6Tunnel", true};
}

TableNames NamesOf(const LyrKesDistKaKey &) {
    return {"KA", "LyrKes_DistAddKaTunnel", false};
}

// The two changes of a table, as their lines spell them.
struct Change {
    const char *verb;
    const char *afterNodeId;  // in the IPv4 line
};
constexpr Change kAdd = {"Add", ""};
constexpr Change kDelete = {"Del", ","};

void LogChange(const Change &change, uint32_t index, uint32_t nodeId,
               const LyrKesDistIpv4Key &key) {
    LYR_KES_DiagLog(LYR_HOST_INFO,
                    "%s IPv4 tunnel: hash:%u, nodeId:%u%s srcip:0x%x, srcport:%u, dstip:0x%x, "
                    "dstport:%u, vpnId:%u",
                    change.verb, index, nodeId, change.afterNodeId, key.srcIp, key.srcPort,
                    key.dstIp, key.dstPort, key.vpnId);
}

void LogChange(const Change &change, uint32_t index, uint32_t nodeId,
               const LyrKesDistIpv6Key &key) {
    LYR_KES_DiagLog(LYR_HOST_INFO,
                    "%s IPv6 tunnel: hash: %u, nodeId:%u srcipv6:%x:%x:%x:%x "
                    "dstipv6:%x:%x:%x:%x srcport:%u dstport:%u vpnId:%u",
                    change.verb, index, nodeId, LYR_WORDS_ARGS(key.srcIpv6),
                    LYR_WORDS_ARGS(key.dstIpv6), key.srcPort, key.dstPort, key.vpnId);
}

void LogChange(const Change &change, uint32_t index, uint32_t nodeId, const LyrKesDistKaKey &key) {
    LYR_KES_DiagLog(LYR_HOST_INFO, "%s KA tunnel: hash: %d, nodeId:%u, session: %x-%x-%x-%x",
                    change.verb, static_cast<int>(index), nodeId, LYR_WORDS_ARGS(key.sessionId));
}

enum class Upsert { kRefreshed, kInserted, kAbsent, kImpossible };

// Gives the key's entry a new owner. Without such an entry, inserts `fresh` if there is one. The
// caller's search and its insertion are one step here, so a key cannot enter a table twice.
template <class Table>
Upsert RefreshOrInsert(uint32_t hash, const typename Table::Key &key, uint32_t nodeId,
                       lyr::EntryOf<Table> *fresh) {
    {
        const lyr::HeldForWriting<Table> table;
        LyrKesDistBucket *bucket = table.BucketOf(hash);
        if (bucket == nullptr) {
            return Upsert::kImpossible;
        }
        const lyr::Found<Table> found = lyr::Find<Table>(bucket, key);
        if (found.entry != nullptr) {
            found.entry->nodeId = nodeId;
            return Upsert::kRefreshed;
        }
        if (!found.broken && fresh == nullptr) {
            return Upsert::kAbsent;
        }
        if (!found.broken) {
            lyr::Insert(bucket, fresh);
            return Upsert::kInserted;
        }
    }
    lyr::ReportBrokenChain(__LINE__);
    return Upsert::kImpossible;
}

template <class Table>
lyr::EntryOf<Table> *NewEntry(uint32_t nodeId, const typename Table::Key &key) {
    using Entry = lyr::EntryOf<Table>;
    void *block = TovMemAllocInner(mod_kes_lyrhost_id, 0, sizeof(Entry), 0,
                                   NamesOf(key).addOperation, __LINE__);
    return block != nullptr ? new (block) Entry{{nullptr, nullptr}, key, nodeId, 0} : nullptr;
}

// A new entry is made and its instance resolved with no lock held.
template <class Table>
uint32_t AddEntry(uint32_t nodeId, const typename Table::Key &key) {
    const uint32_t hash = lyr::HashOf(key);
    LogChange(kAdd, lyr::IndexOf<Table>(hash), nodeId, key);
    if (lyr::Buckets<Table>() == nullptr) {
        return kError;
    }
    const TableNames names = NamesOf(key);
    if (!lyr::IsInstance(nodeId)) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Add %s tunnel nodeId %u out of bound, svc num %u",
                        names.what, nodeId, g_lyrHostsvcNum + 1);
        return kFailed;
    }
    Upsert done = RefreshOrInsert<Table>(hash, key, nodeId, nullptr);
    if (done == Upsert::kAbsent) {
        lyr::EntryOf<Table> *fresh = NewEntry<Table>(nodeId, key);
        if (fresh == nullptr) {
            LYR_KES_DiagLog(LYR_HOST_ERR, "Add %s tunnel TovMemAlloc failed", names.what);
            return kFailed;
        }
        if (names.needsChannel) {
            LyrKes_DistAddChannel(nodeId, LYR_PKT_TYPE_CAPWAP);
        }
        done = RefreshOrInsert<Table>(hash, key, nodeId, fresh);
        if (done != Upsert::kInserted) {
            TovMemFreeInner(fresh);
        }
    }
    return done == Upsert::kImpossible ? kError : kOk;
}

template <class Table>
uint32_t DeleteEntry(uint32_t nodeId, const typename Table::Key &key) {
    const uint32_t hash = lyr::HashOf(key);
    LogChange(kDelete, lyr::IndexOf<Table>(hash), nodeId, key);
    lyr::Found<Table> found;
    {
        const lyr::HeldForWriting<Table> table;
        LyrKesDistBucket *bucket = table.BucketOf(hash);
        if (bucket == nullptr) {
            return kError;
        }
        found = lyr::Find<Table>(bucket, key);
        if (found.entry != nullptr && !lyr::Unlink(found.entry)) {
            found = {.broken = true};
        }
    }
    if (found.broken) {
        lyr::ReportBrokenChain(__LINE__);
        return kError;
    }
    if (found.entry != nullptr) {
        TovMemFreeInner(found.entry);
    }
    return kOk;
}

constexpr size_t kNameSize = 20;

bool BuildName(char (&name)[kNameSize], const char *prefix, uint32_t nodeId) {
    const auto prefixLength = static_cast<uint32_t>(std::strlen(prefix) + 1);
    return LyrKes_ConstructName(name, sizeof(name), prefix, prefixLength, nodeId) == 0;
}

uint32_t ResolveChannel(uint32_t nodeId, uint32_t pktType) {
    char name[kNameSize];
    if (!BuildName(name, TOV_CHN_KES2LYR(pktType), nodeId)) {
        return TOV_CHANNEL_ID_NONE;
    }
    const uint32_t channelId = TOV_ChannelGetIdByName(name);
    if (channelId == TOV_CHANNEL_ID_NONE) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "get channel id by channel name %s failed.", name);
    }
    return channelId;
}

TovThreadInfo *ResolveThread(uint32_t nodeId, uint32_t pktType) {
    char name[kNameSize];
    if (!BuildName(name, TOV_THD_KES2LYR(pktType), nodeId)) {
        return nullptr;
    }
    TovThreadInfo *thread = TOV_ThreadInfoGetByName(name);
    if (thread == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "get thread info by thread name %s failed.", name);
    }
    return thread;
}

}  // namespace

void LyrKes_DistIPv4SetKey(LyrKesDistIpv4Key *key, const LyrKesCwpTunnelReq *request) {
    *key = lyr::Ipv4KeyOf(*request);
}

void LyrKes_DistIPv6SetKey(LyrKesDistIpv6Key *key, const LyrKesCwpTunnelReq *request) {
    *key = lyr::Ipv6KeyOf(*request);
}

uint32_t LyrKes_DistAddIPv4Tunnel(uint32_t nodeId, const LyrKesDistIpv4Key *key) {
    return AddEntry<lyr::Ipv4Table>(nodeId, *key);
}

uint32_t LyrKes_DistAddIPv6Tunnel(uint32_t nodeId, const LyrKesDistIpv6Key *key) {
    return AddEntry<lyr::Ipv6Table>(nodeId, *key);
}

uint32_t LyrKes_DistAddKaTunnel(uint32_t nodeId, const LyrKesDistKaKey *key) {
    return AddEntry<lyr::KaTable>(nodeId, *key);
}

uint32_t LyrKes_DistDelIPv4Tunnel(uint32_t nodeId, const LyrKesDistIpv4Key *key) {
    return DeleteEntry<lyr::Ipv4Table>(nodeId, *key);
}

uint32_t LyrKes_DistDelIPv6Tunnel(uint32_t nodeId, const LyrKesDistIpv6Key *key) {
    return DeleteEntry<lyr::Ipv6Table>(nodeId, *key);
}

uint32_t LyrKes_DistDelKaTunnel(uint32_t nodeId, const LyrKesDistKaKey *key) {
    return DeleteEntry<lyr::KaTable>(nodeId, *key);
}

uint32_t LyrKes_DistAddWapiTunnel(uint32_t startVcpuId, uint32_t instSpec) {
    const uint32_t limit = g_lyrHostsvcNum + 1;
    if (limit < startVcpuId || limit < instSpec) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Invalid sta vcpu info, startVcpuId:%u, instSpec:%u",
                        startVcpuId, instSpec);
        return kFailed;
    }
    const uint64_t end = std::min<uint64_t>(uint64_t{startVcpuId} + instSpec, limit);
    for (uint32_t nodeId = startVcpuId; nodeId < end; ++nodeId) {
        LyrKes_DistAddChannel(nodeId, LYR_PKT_TYPE_WAPI);
    }
    LyrKes_SetStaSvcInfo(static_cast<uint64_t>(instSpec) << 32 | startVcpuId);
    const uint64_t stored = LyrKes_GetStaSvcInfo();
    LYR_KES_DiagLog(LYR_HOST_INFO, "sta start vcpuid is %u, sta inst spec is %u",
                    static_cast<uint32_t>(stored), static_cast<uint32_t>(stored >> 32));
    return kOk;
}

uint32_t LyrKes_DistAddChannel(uint32_t nodeId, uint32_t pktType) {
    uint32_t *channels = LyrKes_GetChnMapByPktType(pktType);
    if (channels == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "channel map not initialized, pid %u, pktType %u", nodeId,
                        pktType);
        return kError;
    }
    TovThreadInfo **threads = LyrKes_GetThdInfoByPktType(pktType);
    if (threads == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "thread info not initialized, pid %u, pktType %u", nodeId,
                        pktType);
        return kError;
    }
    if (!lyr::IsInstance(nodeId)) {
        return kError;
    }
    if (lyr::LoadRelaxed(channels[nodeId]) != TOV_CHANNEL_ID_NONE) {
        return kOk;
    }
    const uint32_t channelId = ResolveChannel(nodeId, pktType);
    if (channelId == TOV_CHANNEL_ID_NONE) {
        return kError;
    }
    TovThreadInfo *thread = ResolveThread(nodeId, pktType);
    if (thread == nullptr) {
        return kError;
    }
    // The channel id makes the slot usable: whoever sees it sees the thread.
    lyr::StoreRelaxed(threads[nodeId], thread);
    lyr::StoreRelease(channels[nodeId], channelId);
    return kOk;
}
