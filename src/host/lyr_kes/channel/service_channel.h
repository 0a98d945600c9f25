// The channels and threads of the service instances, by packet type and instance number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kes/thread.h"
#include "module/export.h"

// Packet types; each has channels, threads and an event bit of its own.
enum LyrKesPktType : uint32_t {
    LYR_PKT_TYPE_CAPWAP = 0,
    LYR_PKT_TYPE_WAPI = 1,
    LYR_PKT_TYPE_NUM = 2,
};

// Per packet type, an array with a slot for each instance. Packets read the slots without a lock;
// a slot is in use once its channel id is set, and its thread is there before that.
LYR_API uint32_t *g_kes2lyrHostChnMap[LYR_PKT_TYPE_NUM];          // 0xFFFFFFFF: unresolved
LYR_API TovThreadInfo **g_lyrHostThreadInfoId[LYR_PKT_TYPE_NUM];  // null: unresolved

// Creates the arrays of both packet types, all unresolved. Returns 0, or 0xFFFFFFFF with none left.
LYR_API uint32_t LyrKes_InitChannelInfo();
LYR_API uint32_t LyrKes_InitChannelInfoByPktType(uint32_t pktType);
// Releases what exists of them.
LYR_API void LyrKes_DeinitChannelInfo();
LYR_API void LyrKes_DeinitChannelInfoByPktType(uint32_t pktType);

// The array of a packet type; null while there is none, and for a type that has none.
LYR_API uint32_t *LyrKes_GetChnMapByPktType(uint32_t pktType);
LYR_API TovThreadInfo **LyrKes_GetThdInfoByPktType(uint32_t pktType);

// What the names of an instance's channel and thread begin with.
LYR_API const char *TOV_CHN_KES2LYR(uint32_t pktType);
LYR_API const char *TOV_THD_KES2LYR(uint32_t pktType);

// Builds prefix and index into a name. `prefixLength` counts the prefix's NUL. Returns 0, or the
// failure of a bounded string operation, or 0xFFFFFFFF for a null or too long prefix.
LYR_API uint32_t LyrKes_ConstructName(char *name, uint32_t size, const char *prefix,
                                      uint32_t prefixLength, uint32_t index);
