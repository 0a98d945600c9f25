/* The host path's diagnostic output and the report of broken invariants. */
#ifndef KES_DIAG_H
#define KES_DIAG_H

#include "kes/api.h"

KES_BEGIN_DECLS

/* Writes one line to the host path's diagnostic output. Callable from any thread. */
KES_API void HostDiagPrintf(const char *format, ...) KES_PRINTF(1, 2);

/* Reports a broken invariant found in `source` at `line`, and returns; the caller fails in an
 * orderly way. `code` is the reporter's own. Returns 0. */
KES_API uint32_t TovOndAssert(const char *source, uint32_t line, uint32_t code);

KES_END_DECLS

#endif
