// The module as the engine finds it: registration record, constructors and destructors.
#pragma once

#include "kes/module.h"
#include "module/export.h"

// The registration record; linked into the engine's list when the library is loaded.
LYR_API TovModRegRecord mod_kes_lyrhost;

// Module id, 0 until the global constructor has run: the first argument of every allocation.
LYR_API uint32_t mod_kes_lyrhost_id;
// The calling lcore's copy of the module id.
LYR_API __thread uint32_t per_lcore_mod_kes_lyrhost_usrid;
// User-context slots that the engine expects of every module; the module does not use them.
LYR_API void *mod_kes_lyrhost_usrctx;
LYR_API uint32_t mod_kes_lyrhost_usrctx_len;

// Completes the record and links it into the engine's list. Runs once, at library load.
LYR_API void tov_modregfn_mod_kes_lyrhost();
// The address of the registration record.
LYR_API TovModRegRecord *mod_plugin_register();

// The record's constructors and destructors: they take over the module id, and give it up. The
// global destructor also gives up what outlasts a stop.
LYR_API void tov_mod_ctr_mod_kes_lyrhost();
LYR_API void tov_mod_localctr_mod_kes_lyrhost();
LYR_API void tov_mod_dtr_mod_kes_lyrhost();
LYR_API void tov_mod_localdtr_mod_kes_lyrhost();
