/* The RPC framework as a module sees it: registration of its service, and memory for replies. */
#ifndef MUND_RPC_H
#define MUND_RPC_H

#include <assert.h>

#include "kes/api.h"

KES_BEGIN_DECLS

/* What a module says of the service that it offers. */
typedef struct LyrKesRpcServerRegInfo {
    uint8_t reserved0[12];
    uint16_t serviceNumber;
    char serviceName[32]; /* NUL-terminated */
    uint8_t reserved1[2];
} LyrKesRpcServerRegInfo;

static_assert(offsetof(LyrKesRpcServerRegInfo, serviceNumber) == 12, "service number at 12");
static_assert(offsetof(LyrKesRpcServerRegInfo, serviceName) == 14, "service name at 14");
static_assert(sizeof(LyrKesRpcServerRegInfo) == 48, "registration record of 48 bytes");

/*
 * Opens a service: its operations are bound by name, in the library that calls this, and calls may
 * arrive before it returns.
 * Returns 0, or an error code: 1 invalid record, 2 already registered.
 */
KES_API uint32_t RegRavelRpcServerToKes(const LyrKesRpcServerRegInfo *info);

/* Closes a service: no call of it begins any more. Whether it also waits for the operations that
 * are running is the framework's affair; the library that offers them stays loaded until they have
 * returned. Not to be called from within an operation. Returns 0, or 1 if no service of that name
 * is open. */
KES_API uint32_t RavelRpcServerUnReg(const char *serviceName);

/* Creates a message of `size` bytes, contents undefined; null when there is no memory. `tag` names
 * the creating operation and must outlive the message. Callable from any thread. */
KES_API void *RPC_IdlMsgCreate(uint32_t size, uint32_t moduleId, const char *tag);
/* Destroys a message. Returns 0, or 1 for null. */
KES_API uint32_t RPC_IdlMsgDestroy(void *message, uint32_t moduleId, const char *tag);

/* The stub library's own module id, to which message memory is accounted. */
extern KES_API uint32_t g_uiMundModuleId;

KES_END_DECLS

#endif
