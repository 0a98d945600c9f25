#include "verify/verify_records.h"

#include <new>

#include "kes/bounded.h"
#include "kes/memory.h"
#include "module/diag_log.h"
#include "module/registration.h"
#include "module/shared_word.h"
#include "module/status.h"
#include "module/wall_clock.h"
#include "packet/host_ip_addr.h"

LyrKesVerifyRcdList g_lyrKesVerifyRcd[LYR_VERIFY_LIST_NUM];
TovSpinlock g_lyrKesVerifyRcdLock;

namespace {

using lyr::kFailed;
using lyr::kOk;

constexpr uint8_t kNotConfirmed = 1;

class ListGuard {
  public:
    ListGuard() {
        TovSpinlockLock(&g_lyrKesVerifyRcdLock);
    }
    ~ListGuard() {
        TovSpinlockUnlock(&g_lyrKesVerifyRcdLock);
    }
    ListGuard(const ListGuard &) = delete;
    ListGuard &operator=(const ListGuard &) = delete;
};

// The heads are stored word by word, each whole: an engine may look at them while they change.

// Takes a node out. False for one whose neighbours do not point back at it: it stays where it is.
bool Unlink(LyrKesVerifyRcdList *list, LyrKesVerifyRcdLinks *node) {
    if (node->next == nullptr || node->prev == nullptr || node->next->prev != node ||
        node->prev->next != node) {
        return false;
    }
    lyr::StoreRelaxed(node->next->prev, node->prev);
    lyr::StoreRelaxed(node->prev->next, node->next);
    node->next = nullptr;
    node->prev = nullptr;
    lyr::StoreRelaxed(list->count, list->count - 1);
    return true;
}

void Append(LyrKesVerifyRcdList *list, LyrKesVerifyRcdLinks *node) {
    LyrKesVerifyRcdLinks *head = &list->links;
    node->next = head;
    node->prev = head->prev;
    lyr::StoreRelaxed(head->prev->next, node);
    lyr::StoreRelaxed(head->prev, node);
    lyr::StoreRelaxed(list->count, list->count + 1);
}

bool Remove(LyrKesVerifyRcdList *list, LyrKesVerifyRcdLinks *node) {
    if (!Unlink(list, node)) {
        return false;
    }
    TovMemFreeInner(static_cast<LyrKesVerifyRcdNode *>(node));
    return true;
}

// The lock is never made anew: who reads the records of a former run may hold it.
uint32_t MakeLockOnce() {
    static bool made = false;
    const uint32_t result = made ? kOk : TovSpinlockInit(&g_lyrKesVerifyRcdLock);
    made = result == kOk;
    return result;
}

void Empty(LyrKesVerifyRcdList *list) {
    lyr::StoreRelaxed(list->links.next, &list->links);
    lyr::StoreRelaxed(list->links.prev, &list->links);
    lyr::StoreRelaxed(list->count, 0u);
}

uint32_t AddUnconfirmed(const LyrKesVerifyTunnel &tunnel) {
    return LyrKes_VerifyRcdAdd(LYR_VERIFY_LB_TUNNELS, kNotConfirmed, &tunnel, sizeof(tunnel));
}

}  // namespace

uint32_t LyrKes_VerifyRcdListInit() {
    const uint32_t result = MakeLockOnce();
    const ListGuard guard;
    for (uint32_t listIndex = 0; listIndex < LYR_VERIFY_LIST_NUM; ++listIndex) {
        LyrKes_VerifyRcdClearAll(listIndex);
        Empty(&g_lyrKesVerifyRcd[listIndex]);
    }
    return result;
}

void lyr::ReleaseVerifyRecords() {
    for (uint32_t listIndex = 0; listIndex < LYR_VERIFY_LIST_NUM; ++listIndex) {
        LyrKes_VerifyRcdClearAll(listIndex);
    }
}

LyrKesVerifyRcdList *LyrKes_VerifyRcdListGet(uint32_t listIndex) {
    return listIndex < LYR_VERIFY_LIST_NUM ? &g_lyrKesVerifyRcd[listIndex] : nullptr;
}

TovSpinlock *LyrKes_VerifyRcdListLock() {
    return &g_lyrKesVerifyRcdLock;
}

uint32_t LyrKes_VerifyRcdGetCnt(uint32_t listIndex) {
    const LyrKesVerifyRcdList *list = LyrKes_VerifyRcdListGet(listIndex);
    if (list == nullptr) {
        return 0;
    }
    const ListGuard guard;
    return list->count;
}

uint32_t LyrKes_VerifyRcdNodeAdd(const LyrKesVerifyRcd *record, uint32_t listIndex) {
    LyrKesVerifyRcdList *list = LyrKes_VerifyRcdListGet(listIndex);
    if (record == nullptr || list == nullptr) {
        return kFailed;
    }
    // Readers have room for so many, also if the oldest cannot be taken out.
    if (list->count == LYR_KES_VERIFY_RCD_NUM && !Remove(list, list->links.next)) {
        return kFailed;
    }
    void *block = TovMemAllocInner(mod_kes_lyrhost_id, 0, sizeof(LyrKesVerifyRcdNode), 0,
                                   "LyrKes_VerifyRcdNodeAdd", __LINE__);
    if (block == nullptr) {
        return kFailed;
    }
    Append(list, new (block) LyrKesVerifyRcdNode{{nullptr, nullptr}, *record});
    return kOk;
}

uint32_t LyrKes_VerifyRcdClearAll(uint32_t listIndex) {
    LyrKesVerifyRcdList *list = LyrKes_VerifyRcdListGet(listIndex);
    if (list == nullptr) {
        return kFailed;
    }
    if (list->count == 0 || list->links.next == nullptr) {
        return kOk;
    }
    for (LyrKesVerifyRcdLinks *node = list->links.next; node != nullptr && node != &list->links;) {
        LyrKesVerifyRcdLinks *next = node->next;
        Remove(list, node);
        node = next;
    }
    return kOk;
}

uint32_t LyrKes_VerifyRcdAdd(uint32_t listIndex, uint8_t type, const void *tunnel,
                             uint32_t length) {
    if (tunnel == nullptr || length > sizeof(LyrKesVerifyTunnel)) {
        return kFailed;
    }
    LyrKesVerifyRcd record = {};
    record.time = LyrKes_GetCurTime();
    record.excptType = type;
    const int error = memcpy_s(&record.tunnel, sizeof(record.tunnel), tunnel, length);
    if (error != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "kes verify recd add fail. ret: %d", error);
        return kFailed;
    }
    const ListGuard guard;
    LyrKes_VerifyRcdNodeAdd(&record, listIndex);
    return kOk;
}

uint32_t LyrKes_VerifyRcdGet(uint32_t listIndex, uint16_t *count, LyrKesVerifyRcd *records,
                             uint32_t recordSize) {
    const LyrKesVerifyRcdList *list = LyrKes_VerifyRcdListGet(listIndex);
    if (recordSize != sizeof(LyrKesVerifyRcd) || list == nullptr) {
        return kFailed;
    }
    const ListGuard guard;
    if (list->count == 0) {
        return kOk;
    }
    *count = static_cast<uint16_t>(list->count);
    LyrKesVerifyRcd *slot = records + list->count;
    for (const LyrKesVerifyRcdLinks *node = list->links.next;
         slot != records && node != nullptr && node != &list->links; node = node->next) {
        *--slot = static_cast<const LyrKesVerifyRcdNode *>(node)->record;
    }
    return kOk;
}

void LyrKes_VerifyRcdClearAllTable() {
    const ListGuard guard;
    for (uint32_t listIndex = 0; listIndex < LYR_VERIFY_LIST_NUM; ++listIndex) {
        LyrKes_VerifyRcdClearAll(listIndex);
    }
}

uint32_t LyrKes_LbIpv4VerifyExcptionRcdAdd(const LyrKesDistIpv4Key *key) {
    LyrKesVerifyTunnel tunnel = {};
    tunnel.srcIpv4 = key->srcIp;
    tunnel.dstIpv4 = key->dstIp;
    tunnel.srcPort = key->srcPort;
    tunnel.dstPort = key->dstPort;
    return AddUnconfirmed(tunnel);
}

uint32_t LyrKes_LbIpv6VerifyExcptionRcdAdd(const LyrKesDistIpv6Key *key) {
    LyrKesVerifyTunnel tunnel = {};
    tunnel.ipVer = 1;
    lyr::WordsToGroups(key->srcIpv6, tunnel.srcIpv6);
    lyr::WordsToGroups(key->dstIpv6, tunnel.dstIpv6);
    tunnel.srcPort = key->srcPort;
    tunnel.dstPort = key->dstPort;
    return AddUnconfirmed(tunnel);
}
