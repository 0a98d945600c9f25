#include "dfx/diagnostics.h"

#include "dfx/message_type_stat.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "dfx/stat_hooks.h"

uint32_t LyrKes_InitCwpStatDfx() {
    LyrKes_InitCwpProbe();
    LyrKes_RegCwpStatTrace();
    return LyrKes_InitPktMsgTypeStat();
}

uint32_t LyrKes_DeinitCwpStatDfx() {
    LyrKes_InitCwpPingStat();
    LyrKes_InitCwpProbe();
    LyrKes_UnRegCwpStatTrace();
    return LyrKes_DeinitPktMsgTypeStat();
}
