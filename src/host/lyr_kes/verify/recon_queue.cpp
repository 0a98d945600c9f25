#include "verify/recon_queue.h"

#include "kes/bounded.h"
#include "kes/diag.h"
#include "kes/memory.h"
#include "kes/thread.h"
#include "module/capability.h"
#include "module/diag_log.h"
#include "module/registration.h"
#include "module/shared_word.h"
#include "module/status.h"
#include "verify/recon_sweep.h"
#include "verify/recon_task.h"

TovPipeQue *g_lyrKesReconMsgQueue = nullptr;

namespace {

using lyr::kFailed;
using lyr::kOk;

constexpr uint32_t kQueueSize = 512;  // messages

// A message with a copy of the records, or null.
LyrKesReconMsg *NewMessage(const LyrKesReconRecord *records, uint32_t length) {
    if (length > UINT32_MAX - sizeof(LyrKesReconMsg)) {
        return nullptr;
    }
    auto *message = static_cast<LyrKesReconMsg *>(TovMemAllocInner(
        mod_kes_lyrhost_id, 0, static_cast<uint32_t>(length + sizeof(LyrKesReconMsg)), 0,
        "LyrKes_WriteReconMsgQueue", __LINE__));
    if (message == nullptr) {
        return nullptr;
    }
    message->length = length;
    if (memcpy_s(message->records, length, records, length) != 0) {
        TovMemFreeInner(message);
        return nullptr;
    }
    return message;
}

// The oldest message, now the caller's, or null: `status` says why.
LyrKesReconMsg *Dequeue(uint32_t *status) {
    void *message = nullptr;
    *status = TovQueDeq(g_lyrKesReconMsgQueue, &message);
    return *status == kOk ? static_cast<LyrKesReconMsg *>(message) : nullptr;
}

// Looks the thread up once the message is queued: a thread that is not known yet has its first look
// at the queue still to come.
void WakeThread() {
    if (TovThreadInfo *thread = TOV_ThreadInfoGetByName(lyr::kReconThreadName)) {
        TOV_EventWrite(thread, lyr::kReconEventQueued);
        lyr::EndReconIdleWait();
    }
}

uint32_t ConfirmTunnel(const LyrKesReconRecord &record) {
    if (record.srcAddr.ipVer == 0) {
        LyrKesDistIpv4Key key = {};
        LyrKes_Recon_IPv4SetKey(&key, &record);
        return LyrKes_Recon_IPv4CwpProc(record.nodeId, &key);
    }
    LyrKesDistIpv6Key key = {};
    LyrKes_Recon_IPv6SetKey(&key, &record);
    return LyrKes_Recon_IPv6CwpProc(record.nodeId, &key);
}

}  // namespace

uint32_t LyrKes_CreateReconMsgQueue() {
    if (g_lyrKesReconMsgQueue != nullptr) {
        return kOk;
    }
    lyr::StoreRelease(g_lyrKesReconMsgQueue, TovCreatePipeQue("LYR_KES_RECON_QUEUE", kQueueSize));
    if (g_lyrKesReconMsgQueue == nullptr) {
        TovOndAssert(lyr::kReconSource, __LINE__, 0);
        return kFailed;
    }
    return kOk;
}

void lyr::DeleteReconQueue() {
    TovPipeQue *const queue = g_lyrKesReconMsgQueue;
    if (queue == nullptr) {
        return;
    }
    uint32_t status = 0;
    // A dequeue that fails once is no end of the queue.
    for (uint32_t i = 0; i < kQueueSize && TovQueCount(queue) > 0; ++i) {
        if (LyrKesReconMsg *message = Dequeue(&status)) {
            TovMemFreeInner(message);
        }
    }
    lyr::StoreRelease<TovPipeQue *>(g_lyrKesReconMsgQueue, nullptr);
    TovQueDelete(queue);
}

uint32_t LyrKes_WriteReconMsgQueue(const LyrKesReconRecord *records, uint32_t length) {
    LyrKesReconMsg *message = NewMessage(records, length);
    if (message == nullptr) {
        return kFailed;
    }
    TovPipeQue *const queue = lyr::LoadAcquire(g_lyrKesReconMsgQueue);
    const uint32_t error = queue != nullptr ? TovQueEnq(queue, message) : kFailed;
    if (error != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR,
                        "Failed to enqueue node into recon msg queue, ret %d, count %u",
                        static_cast<int>(error), queue != nullptr ? TovQueCount(queue) : 0);
        TovMemFreeInner(message);
    }
    WakeThread();
    return error == 0 ? kOk : kFailed;
}

uint32_t LyrKes_ReadReconMsgQueue() {
    uint32_t status = 0;
    while (LyrKesReconMsg *message = Dequeue(&status)) {
        LyrHost_Kes_MsgQueueReconciliationProc(message);
        TovMemFreeInner(message);
    }
    return status;
}

uint32_t LyrHost_Kes_MsgQueueReconciliationProc(const LyrKesReconMsg *message) {
    return LyrHost_Kes_BatchReconciliationProc(
        message->records, static_cast<uint32_t>(message->length / sizeof(LyrKesReconRecord)));
}

uint32_t LyrHost_Kes_BatchReconciliationProc(const LyrKesReconRecord *records, uint32_t count) {
    if (records == nullptr) {
        return kFailed;
    }
    for (uint32_t i = 0; i < count; ++i) {
        LyrHost_Kes_ReconciliationProc(&records[i]);
    }
    return kOk;
}

uint32_t LyrHost_Kes_ReconciliationProc(const LyrKesReconRecord *record) {
    if (record == nullptr || !lyr::IsInstance(record->nodeId)) {
        return kFailed;
    }
    switch (record->reconType) {
        case LYR_KES_RECON_BEGIN:
            return LyrKes_Recon_BeginProc(record->nodeId);
        case LYR_KES_RECON_TUNNEL:
            return ConfirmTunnel(*record);
        case LYR_KES_RECON_SESSION:
            return LyrKes_Recon_KaProc(record->nodeId, record->sessionId,
                                       sizeof(record->sessionId));
        case LYR_KES_RECON_FINISH:
            return LyrKes_Recon_FinishProc(record->nodeId);
        default:
            return kFailed;
    }
}
