/* The engine's allocator: every block is accounted to the module that asked for it. */
#ifndef KES_MEMORY_H
#define KES_MEMORY_H

#include "kes/api.h"

KES_BEGIN_DECLS

/* Allocates `size` bytes (0 is a valid size), aligned to 16 bytes, contents undefined. `tag` names
 * the allocating function and must outlive the block; `line` is its source line; `partition` and
 * `flags` are 0. Returns null when there is no memory. Callable from any thread. */
KES_API void *TovMemAllocInner(uint32_t moduleId, uint32_t partition, uint32_t size, uint32_t flags,
                               const char *tag, uint32_t line);
/* Returns a block to the allocator. Null is no block: an engine need not bear it. */
KES_API void TovMemFreeInner(void *block);

KES_END_DECLS

#endif
