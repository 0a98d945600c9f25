// The controller's own CAPWAP sources: what packets must be addressed to.
//
// Operations change the table one at a time; a sequence lock lets packets read it without waiting
// for a lock and without ever seeing a record, or a replaced table, half.
#pragma once

#include <cstddef>
#include <cstdint>

#include "module/export.h"
#include "mund/messages.h"
#include "packet/host_ip_addr.h"

// Source types with a behaviour of their own; the codes are the management plane's.
enum CwpSrcType : uint32_t {
    CWP_SRC_NONE = 0,         // in a replacement: no source at this position
    CWP_SRC_ADDRESS = 1,      // known by its address
    CWP_SRC_INTERFACE_A = 2,  // known by interface and IP version
    CWP_SRC_INTERFACE_B = 3,  // known by interface and IP version
    CWP_SRC_ANY_IF = 4,       // known by its address; admits broadcast on every interface
    CWP_SRC_FREE = 5,         // the record is free
};

struct CwpSrcRcd {
    uint32_t srcType;
    uint32_t ifIndex;  // control-plane interface index
    HostIpAddr address;
};
static_assert(offsetof(CwpSrcRcd, address) == 8, "address at 8");
static_assert(sizeof(CwpSrcRcd) == 28, "source record of 28 bytes");

// The table. Positions count: every search goes from 0 up.
LYR_API CwpSrcRcd g_LyrHostCwpSrcRcd[LYR_KES_CWP_SRC_NUM];
static_assert(sizeof(g_LyrHostCwpSrcRcd) == 224, "source table of 224 bytes");

// Makes every record free; makes the whole table zero.
LYR_API void LyrKes_InitCwpSrcInfo();
LYR_API void LyrKes_DeinitCwpSrcInfo();

// Replaces the first `length` bytes of the table. Returns 0, or 1 if they do not fit.
LYR_API uint32_t LyrKes_SetCwpSrcInfo(const CwpSrcRcd *image, uint32_t length);

// The record that an add or a delete of this source means, or null.
LYR_API CwpSrcRcd *LyrKes_FindCwpSrc(uint32_t type, const HostIpAddr *address, uint32_t ifIndex);

// Builds an address value in zero-filled storage.
LYR_API void LyrKes_FillInHostIpAddr(bool ipv4, uint32_t ipv4Address, const uint16_t *ipv6Groups,
                                     HostIpAddr *address);
LYR_API void LyrKes_FillInCwpSrcInfo(uint32_t type, uint32_t ifIndex, const HostIpAddr *address,
                                     CwpSrcRcd *record);

// Adds a source, or refreshes the record that it means. Returns 0, or 1 if the table is full.
LYR_API uint32_t LyrKes_AddCwpSrc(bool ipv4, uint32_t type, uint32_t ipv4Address,
                                  const uint16_t *ipv6Groups, uint32_t ifIndex);
// Deletes a source, if it is there. Returns 0.
LYR_API uint32_t LyrKes_DelCwpSrc(bool ipv4, uint32_t type, uint32_t ipv4Address,
                                  const uint16_t *ipv6Groups, uint32_t ifIndex);

// Converts an entry of a replacement into a zero-filled record.
LYR_API void LyrHost_Kes_CwpSrcInfoGet(CwpSrcRcd *record, const LyrKesCwpSrcEntry *entry);

// Writes the table to the debug trace.
LYR_API void LyrKes_QueryCwpSrc();

namespace lyr {

// Replaces the whole table by what the request says, positions included. Returns 0 or 1.
uint32_t ReplaceCwpSources(const LyrKesCwpSrcReconReq &request);

}  // namespace lyr
