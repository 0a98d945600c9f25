/*
 * The operations of the service "LyrHostKesService", in the order of their wire codes.
 *
 * A module offers an operation X as LyrHost_Kes_X(request, reply slot), with a twin
 * LyrHost_Kes_X_free(reply) that releases the reply. Both are found by name.
 */
#ifndef MUND_OPERATIONS_H
#define MUND_OPERATIONS_H

#include "kes/api.h"

#define MUND_SERVICE_NAME "LyrHostKesService"
#define MUND_SERVICE_NUMBER 20220

/* X(name, request bytes as read by the operation, reply bytes or 0 for none) */
#define MUND_OPERATIONS(X)          \
    X(CwpTunnel, 64, 0)             \
    X(KaTunnel, 24, 0)              \
    X(WapiTunnel, 8, 4)             \
    X(LoadBalanceDfx, 12, 14340)    \
    X(CwpSrc, 36, 0)                \
    X(CwpSrcReconciliation, 256, 0) \
    X(DebugTraceSet, 76, 0)         \
    X(Reconciliation, 80, 0)        \
    X(BatchReconciliation, 16, 0)   \
    X(VerifyRcdGet, 3, 5604)        \
    X(VerifyRcdReset, 0, 0)         \
    X(CwpPingStat, 28, 52)          \
    X(CwpTraceRecord, 8, 16392)     \
    X(CwpMsgTypeStat, 8, 520)       \
    X(GetPktStatistics, 0, 264)     \
    X(ResetPktStatistics, 0, 4)

#define MUND_OPERATION_ENUM(name, requestSize, replySize) MUND_OP_##name,
typedef enum MundOperation {
    MUND_OPERATIONS(MUND_OPERATION_ENUM) MUND_OPERATION_COUNT
} MundOperation;
#undef MUND_OPERATION_ENUM

#endif
