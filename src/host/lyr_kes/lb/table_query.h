// Counts and lists the tunnels of the distribution tables by port, for the management plane.
//
// A query reads one table under its read locker from beginning to end: packets pass, changes of the
// table wait.
#pragma once

#include <cstdint>

#include "module/export.h"
#include "mund/statistics_messages.h"

// Count the tunnels whose source or destination port is the request's.
LYR_API uint32_t LyrHost_Kes_GetIpv4LbEntryNum(const LyrKesLbDfxReq *request);
LYR_API uint32_t LyrHost_Kes_GetIpv6LbEntryNum(const LyrKesLbDfxReq *request);

// Fill one page with those from the bucket `index` on, in bucket order and the newest first. A page
// ends before a bucket that does not fit into it whole; of a bucket that fits into no page, the
// newest entries are listed and the rest is logged.
LYR_API void LyrHost_Kes_GetIpv4LbEntryInfo(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply);
LYR_API void LyrHost_Kes_GetIpv6LbEntryInfo(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply);

// The same in the table that the request names. Return 0.
LYR_API uint32_t LyrHost_Kes_LbEntryNum(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply);
LYR_API uint32_t LyrHost_Kes_LbEntryInfo(const LyrKesLbDfxReq *request, LyrKesLbDfxRsp *reply);
