/* The client's side of the service: one call of one operation, in this process. */
#ifndef MUND_CALL_H
#define MUND_CALL_H

#include "mund/operations.h"
#include "mund/status.h"

KES_BEGIN_DECLS

#define MUND_STATUS_ENUM(name, words) MUND_STATUS_##name,
typedef enum MundStatus { MUND_STATUSES(MUND_STATUS_ENUM) MUND_STATUS_COUNT } MundStatus;
#undef MUND_STATUS_ENUM

/* The status in words. */
KES_API const char *MundStatusText(MundStatus status);
/* The operation's name without the module's prefix, or null for an unknown code. */
KES_API const char *MundOperationName(uint32_t operation);
/* The bytes of the operation's request, and of its reply (0: it has none). */
KES_API uint32_t MundRequestSize(uint32_t operation);
KES_API uint32_t MundReplySize(uint32_t operation);

/*
 * Runs one operation on the calling thread, which is the framework's for the time of the call.
 * Stores the operation's result, and its reply (`*replySize` bytes, 0 if it made none) in `reply`,
 * a buffer of `replyCapacity` bytes. The module's own reply is released through its free twin.
 * An operation never sees a request of another length than its own. Reconciliation records that the
 * module has not worked off hold 64 MB of its memory at most: more are answered with
 * MUND_STATUS_BUSY. Callable from any thread.
 */
KES_API MundStatus MundCall(uint32_t operation, const void *request, uint32_t requestSize,
                            void *reply, uint32_t replyCapacity, uint32_t *replySize,
                            uint32_t *result);

/* Messages created and not yet destroyed. */
KES_API uint32_t MundMessagesInUse(void);

KES_END_DECLS

#endif
