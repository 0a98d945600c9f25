/* The hot-patch facility: what a module sees of a patch record. */
#ifndef KES_PATCH_H
#define KES_PATCH_H

#include <assert.h>

#include "kes/api.h"

/* Operations that the facility announces. */
enum { HOST_PATCH_ACTIVATE = 0, HOST_PATCH_DEACTIVATE = 1 };

/* A patch record. Only the target library's file name concerns a module. */
typedef struct HostPatchRecord {
    uint8_t facility[397];
    char libraryName[115]; /* NUL-terminated */
} HostPatchRecord;

static_assert(offsetof(HostPatchRecord, libraryName) == 397, "library name at 397");

#endif
