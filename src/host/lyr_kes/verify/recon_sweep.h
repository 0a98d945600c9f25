// The audit of one service instance: a begin opens it, each confirmation marks an entry of the
// instance, and the finish removes the instance's entries that were not marked.
//
// All of this runs on the reconciliation thread, for node ids that there are. Each operation
// returns 0 for done and 1 for not done.
#pragma once

#include <cstdint>

#include "lb/dist_table.h"
#include "module/export.h"
#include "mund/reconciliation_messages.h"

// Opens an audit; a begin that repeats an open one changes nothing.
LYR_API uint32_t LyrKes_Recon_BeginProc(uint32_t nodeId);

// Build a table key from a record.
LYR_API void LyrKes_Recon_IPv4SetKey(LyrKesDistIpv4Key *key, const LyrKesReconRecord *record);
LYR_API void LyrKes_Recon_IPv6SetKey(LyrKesDistIpv6Key *key, const LyrKesReconRecord *record);

// Confirm an entry of the node, if there is one; an entry of another node stays unmarked.
LYR_API uint32_t LyrKes_Recon_IPv4CwpProc(uint32_t nodeId, const LyrKesDistIpv4Key *key);
LYR_API uint32_t LyrKes_Recon_IPv6CwpProc(uint32_t nodeId, const LyrKesDistIpv6Key *key);
LYR_API uint32_t LyrKes_Recon_KaProc(uint32_t nodeId, const void *sessionId, uint32_t length);

// Closes the audit: sweeps the three tables.
LYR_API uint32_t LyrKes_Recon_FinishProc(uint32_t nodeId);

// Sweep one table: the node's unmarked entries go, the marks of its others are cleared. Holds the
// table's write lock for the walk; what is said and freed afterwards needs no lock.
LYR_API uint32_t LyrKes_Recon_FinishProcLoopIpv4Tbl(uint32_t nodeId);
LYR_API uint32_t LyrKes_Recon_FinishProcLoopIpv6Tbl(uint32_t nodeId);
LYR_API uint32_t LyrKes_Recon_FinishProcLoopKaTbl(uint32_t nodeId);
