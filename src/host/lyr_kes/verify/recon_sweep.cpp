#include "verify/recon_sweep.h"

#include <algorithm>

#include "kes/bounded.h"
#include "kes/memory.h"
#include "lb/dist_core.h"
#include "lb/dist_key.h"
#include "module/diag_log.h"
#include "module/status.h"
#include "verify/recon_queue.h"
#include "verify/recon_task.h"
#include "verify/verify_records.h"

namespace {

using lyr::kFailed;
using lyr::kOk;

constexpr uint32_t kPrefetchDistance = 16;  // buckets

bool AuditIsOpen(uint32_t nodeId) {
    return lyr::LoadRelaxed(reconBeginFlag[nodeId]) != 0;
}

void ReportBrokenChain(uint32_t line) {
    TovOndAssert(lyr::kReconSource, line, 0);
}

template <class Table>
uint32_t Confirm(uint32_t nodeId, const typename Table::Key &key) {
    if (!AuditIsOpen(nodeId)) {
        return kFailed;
    }
    const uint32_t hash = lyr::HashOf(key);
    {
        const lyr::HeldForWriting<Table> table;
        LyrKesDistBucket *bucket = table.BucketOf(hash);
        if (bucket == nullptr) {
            return kFailed;
        }
        const lyr::Found<Table> found = lyr::Find<Table>(bucket, key);
        if (found.entry != nullptr && found.entry->nodeId == nodeId) {
            ++found.entry->reconMark;
        }
        if (!found.broken) {
            return kOk;
        }
    }
    ReportBrokenChain(__LINE__);
    return kFailed;
}

// Says that an entry is gone.
void Report(uint32_t nodeId, const LyrKesDistIpv4Key &key) {
    LYR_KES_DiagLog(LYR_HOST_ERR,
                    "recon del IPv4 tunnel: nodeId:%u srcip:0x%x, srcport:%u, dstip:0x%x, "
                    "dstport:%u, vpnId:%u",
                    nodeId, key.srcIp, key.srcPort, key.dstIp, key.dstPort, key.vpnId);
    LyrKes_LbIpv4VerifyExcptionRcdAdd(&key);
}

void Report(uint32_t nodeId, const LyrKesDistIpv6Key &key) {
    LYR_KES_DiagLog(LYR_HOST_ERR,
                    "recon del IPv6 tunnel: nodeId:%u, srcipv6:%x:%x:%x:%x, dstipv6:%x:%x:%x:%x, "
                    "srcport:%u, dstport:%u, vpnId:%u",
                    nodeId, LYR_WORDS_ARGS(key.srcIpv6), LYR_WORDS_ARGS(key.dstIpv6), key.srcPort,
                    key.dstPort, key.vpnId);
    LyrKes_LbIpv6VerifyExcptionRcdAdd(&key);
}

void Report(uint32_t nodeId, const LyrKesDistKaKey &key) {
    LYR_KES_DiagLog(LYR_HOST_ERR, "recon del KA tunnel: nodeId:%u, session: %x-%x-%x-%x", nodeId,
                    LYR_WORDS_ARGS(key.sessionId));
}

// Entries that a sweep has taken out, in the order of the walk, chained by their next link.
class Removed {
  public:
    void Append(LyrKesDistBucket *entry) {
        *end_ = entry;
        end_ = &entry->next;
    }
    LyrKesDistBucket *Take() {
        LyrKesDistBucket *entry = first_;
        if (entry != nullptr) {
            first_ = entry->next;
        }
        return entry;
    }

  private:
    LyrKesDistBucket *first_ = nullptr;
    LyrKesDistBucket **end_ = &first_;
};

// Sweeps one bucket under the write lock. False for a broken chain.
template <class Table>
bool SweepBucket(LyrKesDistBucket *bucket, uint32_t nodeId, Removed *removed) {
    LyrKesDistBucket *link = bucket->next;
    while (link != bucket) {
        if (link == nullptr) {
            return false;
        }
        auto *entry = static_cast<lyr::EntryOf<Table> *>(link);
        link = link->next;
        if (entry->nodeId != nodeId) {
            continue;
        }
        if (entry->reconMark == 0) {
            if (!lyr::Unlink(entry)) {
                return false;
            }
            removed->Append(entry);
        }
        entry->reconMark = 0;
    }
    return true;
}

// Sweeps all buckets. False for a broken chain, which ends the sweep of the table.
template <class Table>
bool TakeOutUnconfirmed(uint32_t nodeId, Removed *removed) {
    const lyr::HeldForWriting<Table> table;
    LyrKesDistBucket *buckets = table.Buckets();
    if (buckets == nullptr) {
        return true;
    }
    const uint32_t cap = lyr::LoadRelaxed(Table::kCap);
    for (uint32_t i = 0; i < cap; ++i) {
        // The first entry of a bucket further on travels while this one is walked.
        __builtin_prefetch(buckets[std::min(i + kPrefetchDistance, cap - 1)].next, 1);
        if (!SweepBucket<Table>(&buckets[i], nodeId, removed)) {
            return false;
        }
    }
    return true;
}

template <class Table>
uint32_t Sweep(uint32_t nodeId) {
    Removed removed;
    const bool whole = TakeOutUnconfirmed<Table>(nodeId, &removed);
    if (!whole) {
        ReportBrokenChain(__LINE__);
    }
    while (LyrKesDistBucket *link = removed.Take()) {
        auto *entry = static_cast<lyr::EntryOf<Table> *>(link);
        Report(nodeId, entry->key);
        TovMemFreeInner(entry);
    }
    return whole ? kOk : kFailed;
}

}  // namespace

uint32_t LyrKes_Recon_BeginProc(uint32_t nodeId) {
    lyr::StoreRelaxed(reconBeginFlag[nodeId], uint8_t{1});
    return kOk;
}

void LyrKes_Recon_IPv4SetKey(LyrKesDistIpv4Key *key, const LyrKesReconRecord *record) {
    *key = lyr::Ipv4KeyOf(*record);
}

void LyrKes_Recon_IPv6SetKey(LyrKesDistIpv6Key *key, const LyrKesReconRecord *record) {
    *key = lyr::Ipv6KeyOf(*record);
}

uint32_t LyrKes_Recon_IPv4CwpProc(uint32_t nodeId, const LyrKesDistIpv4Key *key) {
    return Confirm<lyr::Ipv4Table>(nodeId, *key);
}

uint32_t LyrKes_Recon_IPv6CwpProc(uint32_t nodeId, const LyrKesDistIpv6Key *key) {
    return Confirm<lyr::Ipv6Table>(nodeId, *key);
}

uint32_t LyrKes_Recon_KaProc(uint32_t nodeId, const void *sessionId, uint32_t length) {
    LyrKesDistKaKey key = {};
    if (memcpy_s(&key, sizeof(key), sessionId, length) != 0) {
        return kFailed;
    }
    return Confirm<lyr::KaTable>(nodeId, key);
}

uint32_t LyrKes_Recon_FinishProc(uint32_t nodeId) {
    if (!AuditIsOpen(nodeId)) {
        return kFailed;
    }
    LyrKes_Recon_FinishProcLoopIpv4Tbl(nodeId);
    LyrKes_Recon_FinishProcLoopIpv6Tbl(nodeId);
    LyrKes_Recon_FinishProcLoopKaTbl(nodeId);
    lyr::StoreRelaxed(reconBeginFlag[nodeId], uint8_t{0});
    return kOk;
}

uint32_t LyrKes_Recon_FinishProcLoopIpv4Tbl(uint32_t nodeId) {
    return Sweep<lyr::Ipv4Table>(nodeId);
}

uint32_t LyrKes_Recon_FinishProcLoopIpv6Tbl(uint32_t nodeId) {
    return Sweep<lyr::Ipv6Table>(nodeId);
}

uint32_t LyrKes_Recon_FinishProcLoopKaTbl(uint32_t nodeId) {
    return Sweep<lyr::KaTable>(nodeId);
}
