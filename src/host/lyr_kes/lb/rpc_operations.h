// The operations of the service "LyrHostKesService". Each takes the request and the address of the
// reply slot; its twin, of the same name followed by _free, releases the reply. They run on the RPC
// framework's threads, several at once.
//
// As a rule an operation returns 0 for success, 1 for failure and 2 for a missing request or an
// unknown sub-operation.
#pragma once

#include <cstdint>

#include "module/export.h"

// X(name): what the module offers; the messages are in mund/*messages.h.
#define LYR_RPC_OPERATIONS(X)                                                   \
    X(CwpTunnel)            /* add or delete a CAPWAP tunnel */                 \
    X(KaTunnel)             /* add or delete a keepalive session */             \
    X(WapiTunnel)           /* set the instances that serve stations */         \
    X(LoadBalanceDfx)       /* count or list tunnels */                         \
    X(CwpSrc)               /* add or delete a CAPWAP source */                 \
    X(CwpSrcReconciliation) /* replace the CAPWAP sources */                    \
    X(DebugTraceSet)        /* set or clear the debug trace */                  \
    X(Reconciliation)       /* queue one reconciliation record */               \
    X(BatchReconciliation)  /* queue a batch of them */                         \
    X(VerifyRcdGet)         /* read the records of what audits removed */       \
    X(VerifyRcdReset)       /* clear them */                                    \
    X(CwpPingStat)          /* read or reset the ping counters, set the peer */ \
    X(CwpTraceRecord)       /* read or clear the probe trace */                 \
    X(CwpMsgTypeStat)       /* read, reset or select counts by message type */  \
    X(GetPktStatistics)     /* read the packet counters */                      \
    X(ResetPktStatistics)   /* zero them */

#define LYR_DECLARE_OPERATION(name)                                        \
    LYR_API uint32_t LyrHost_Kes_##name(const void *inMsg, void **outMsg); \
    LYR_API uint32_t LyrHost_Kes_##name##_free(void *message);
LYR_RPC_OPERATIONS(LYR_DECLARE_OPERATION)
#undef LYR_DECLARE_OPERATION
