// The reconciliation's queue: operations put records in, the reconciliation thread takes them out.
#pragma once

#include <cstdint>

#include "kes/queue.h"
#include "module/export.h"
#include "mund/reconciliation_messages.h"

// A message in the queue: one block of the engine's allocator, owned by the queue.
struct LyrKesReconMsg {
    uint32_t length;              // bytes of records
    LyrKesReconRecord records[];  // processed in order
};

// The queue; null while there is none.
LYR_API TovPipeQue *g_lyrKesReconMsgQueue;

// Creates the queue, unless it is there. Returns 0 or 1.
LYR_API uint32_t LyrKes_CreateReconMsgQueue();

// Copies records into a message, queues it and wakes the thread, whether it could be queued or not.
// Returns 0 when queued, else 1. Callable from any RPC thread.
LYR_API uint32_t LyrKes_WriteReconMsgQueue(const LyrKesReconRecord *records, uint32_t length);

// Takes out and processes every message, those that arrive meanwhile included. Returns the status
// of the dequeue that found none. On the reconciliation thread.
LYR_API uint32_t LyrKes_ReadReconMsgQueue();

// Process the records of a message; an array of records; one record. On the reconciliation thread.
LYR_API uint32_t LyrHost_Kes_MsgQueueReconciliationProc(const LyrKesReconMsg *message);
LYR_API uint32_t LyrHost_Kes_BatchReconciliationProc(const LyrKesReconRecord *records,
                                                     uint32_t count);
LYR_API uint32_t LyrHost_Kes_ReconciliationProc(const LyrKesReconRecord *record);

namespace lyr {

// Deletes the queue with what is in it. No thread uses it any more.
void DeleteReconQueue();

// The name that the reconciliation thread is known by.
constexpr const char *kReconThreadName = "LYR_KES_RECON";
// Where the reconciliation's broken invariants are reported from.
constexpr const char *kReconSource = "src/host/lyr_kes/verify/lyr_kes_reconciliation";

}  // namespace lyr
