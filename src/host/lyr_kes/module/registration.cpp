#include "module/registration.h"

#include "lb/reader_mark.h"
#include "module/lifecycle.h"
#include "verify/verify_records.h"

namespace {

constexpr TovModRegRecord StaticRecord() {
    TovModRegRecord record = {};
    record.name = "kes_lyrhost";
    record.init = LyrKes_Init;
    record.exit = LyrKes_Exit;
    record.kind = TOV_MOD_KIND_PLUGIN;
    return record;
}

}  // namespace

constinit TovModRegRecord mod_kes_lyrhost = StaticRecord();

uint32_t mod_kes_lyrhost_id = 0;
__thread uint32_t per_lcore_mod_kes_lyrhost_usrid = 0;
void *mod_kes_lyrhost_usrctx = nullptr;
uint32_t mod_kes_lyrhost_usrctx_len = 0;

// 101 is the first priority that is not the toolchain's own.
__attribute__((constructor(101))) void tov_modregfn_mod_kes_lyrhost() {
    mod_kes_lyrhost.recordVersion = TOV_MOD_RECORD_VERSION;
    mod_kes_lyrhost.ctr = tov_mod_ctr_mod_kes_lyrhost;
    mod_kes_lyrhost.localCtr = tov_mod_localctr_mod_kes_lyrhost;
    mod_kes_lyrhost.dtr = tov_mod_dtr_mod_kes_lyrhost;
    mod_kes_lyrhost.localDtr = tov_mod_localdtr_mod_kes_lyrhost;
    mod_kes_lyrhost.next = g_pluginModRegHead;
    g_pluginModRegHead = &mod_kes_lyrhost;
}

TovModRegRecord *mod_plugin_register() {
    return &mod_kes_lyrhost;
}

void tov_mod_ctr_mod_kes_lyrhost() {
    mod_kes_lyrhost_id = mod_kes_lyrhost.moduleId;
}

void tov_mod_localctr_mod_kes_lyrhost() {
    per_lcore_mod_kes_lyrhost_usrid = mod_kes_lyrhost.moduleId;
    lyr::ClaimReaderMark();
}

void tov_mod_dtr_mod_kes_lyrhost() {
    lyr::ReleaseVerifyRecords();
    mod_kes_lyrhost_id = 0;
}

void tov_mod_localdtr_mod_kes_lyrhost() {
    lyr::GiveBackReaderMark();
    per_lcore_mod_kes_lyrhost_usrid = 0;
}
