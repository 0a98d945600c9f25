/* Capabilities: numbers that the platform configures per product and licence. */
#ifndef KES_CAPABILITY_H
#define KES_CAPABILITY_H

#include "kes/api.h"

KES_BEGIN_DECLS

/* Reads a capability of `size` bytes (4) into a buffer. Returns 0, or an error code: 1 invalid
 * argument, 2 capability not configured. */
KES_API uint32_t TovCapabilityQueryItem(const char *name, void *value, uint32_t size);

KES_END_DECLS

#endif
