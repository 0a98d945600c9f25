/*
 * The module interface: how a shared library makes itself known to the engine.
 *
 * At load, the library links its registration record into the engine's list and answers
 * mod_plugin_register with the record's address. The engine fills in the module id and calls, in
 * this order: the global constructor; the per-lcore constructor on every lcore; the initialisation
 * entry; ... the exit entry; the per-lcore destructors; the global destructor.
 */
#ifndef KES_MODULE_H
#define KES_MODULE_H

#include <assert.h>

#include "kes/api.h"

KES_BEGIN_DECLS

typedef struct TovModRegRecord {
    uint8_t reserved0[16];
    struct TovModRegRecord *next; /* link in the engine's list */
    const char *name;
    uint8_t reserved1[8];
    uint32_t (*init)(void); /* 0 when the module has started */
    uint32_t (*exit)(void);
    uint8_t reserved2[16];
    uint32_t kind; /* TOV_MOD_KIND_PLUGIN */
    uint8_t reserved3[12];
    uint32_t moduleId; /* filled in by the engine */
    uint8_t reserved4[28];
    uint32_t recordVersion; /* TOV_MOD_RECORD_VERSION */
    uint8_t reserved5[4];
    void (*ctr)(void);      /* global constructor */
    void (*localCtr)(void); /* per-lcore constructor */
    void (*dtr)(void);      /* global destructor */
    void (*localDtr)(void); /* per-lcore destructor */
    uint8_t reserved6[16];
} TovModRegRecord;

#define TOV_MOD_KIND_PLUGIN 2u
#define TOV_MOD_RECORD_VERSION 720u

static_assert(offsetof(TovModRegRecord, next) == 16, "list link at 16");
static_assert(offsetof(TovModRegRecord, name) == 24, "name at 24");
static_assert(offsetof(TovModRegRecord, init) == 40, "initialisation entry at 40");
static_assert(offsetof(TovModRegRecord, exit) == 48, "exit entry at 48");
static_assert(offsetof(TovModRegRecord, kind) == 72, "kind at 72");
static_assert(offsetof(TovModRegRecord, moduleId) == 88, "module id at 88");
static_assert(offsetof(TovModRegRecord, recordVersion) == 120, "record version at 120");
static_assert(offsetof(TovModRegRecord, ctr) == 128, "global constructor at 128");
static_assert(offsetof(TovModRegRecord, localCtr) == 136, "per-lcore constructor at 136");
static_assert(offsetof(TovModRegRecord, dtr) == 144, "global destructor at 144");
static_assert(offsetof(TovModRegRecord, localDtr) == 152, "per-lcore destructor at 152");
static_assert(sizeof(TovModRegRecord) == 176, "record of 176 bytes");

/* The registration records of the libraries loaded, the newest first. */
extern KES_API TovModRegRecord *g_pluginModRegHead;

KES_END_DECLS

#endif
