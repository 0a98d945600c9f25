#include "packet/cwp_source.h"

#include <iterator>

#include "dfx/debug_trace.h"
#include "kes/bounded.h"
#include "module/diag_log.h"
#include "module/spin_guard.h"
#include "module/status.h"
#include "packet/cwp_source_reader.h"

CwpSrcRcd g_LyrHostCwpSrcRcd[LYR_KES_CWP_SRC_NUM];
lyr::SequenceLock lyr::cwpSourceLock;

namespace {

using lyr::kFailed;
using lyr::kOk;

// Operations may run on several threads: one writer at a time.
std::atomic_flag writing;

// Copies records over the table, from a position on, with readers kept off. Under the writer lock.
void Publish(size_t position, const CwpSrcRcd *records, size_t count) {
    lyr::cwpSourceLock.Apply([&] {
        for (size_t i = 0; i < count; ++i) {
            lyr::StoreWords(g_LyrHostCwpSrcRcd[position + i], records[i]);
        }
    });
}

void PublishTable(const CwpSrcRcd (&image)[LYR_KES_CWP_SRC_NUM]) {
    const lyr::SpinGuard lock(writing);
    Publish(0, image, std::size(image));
}

CwpSrcRcd *FindFree() {
    for (CwpSrcRcd &record : g_LyrHostCwpSrcRcd) {
        if (record.srcType == CWP_SRC_FREE) {
            return &record;
        }
    }
    return nullptr;
}

// What the lines of an add and a delete say of a source.
#define CWP_SRC_FORMAT "Cwp Type %u SrcIpVer %u SrcIp 0x%x SrcIpv6 %x:%x:%x:%x SrcIf %u"
#define CWP_SRC_ARGS(type, address, ifIndex) \
    (type), (address).ipVer, (address).ip[0], LYR_WORDS_ARGS((address).ip), (ifIndex)

void Store(CwpSrcRcd *record, uint32_t type, uint32_t ifIndex, const HostIpAddr &address) {
    CwpSrcRcd filled = {};
    LyrKes_FillInCwpSrcInfo(type, ifIndex, &address, &filled);
    Publish(static_cast<size_t>(record - g_LyrHostCwpSrcRcd), &filled, 1);
}

}  // namespace

void LyrKes_InitCwpSrcInfo() {
    CwpSrcRcd image[LYR_KES_CWP_SRC_NUM] = {};
    for (CwpSrcRcd &record : image) {
        record.srcType = CWP_SRC_FREE;
    }
    PublishTable(image);
}

void LyrKes_DeinitCwpSrcInfo() {
    const CwpSrcRcd image[LYR_KES_CWP_SRC_NUM] = {};
    PublishTable(image);
}

uint32_t LyrKes_SetCwpSrcInfo(const CwpSrcRcd *image, uint32_t length) {
    const lyr::SpinGuard lock(writing);
    CwpSrcRcd table[LYR_KES_CWP_SRC_NUM];
    std::memcpy(table, g_LyrHostCwpSrcRcd, sizeof(table));
    const int error = memcpy_s(table, sizeof(table), image, length);
    if (error != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "g_LyrHostCwpSrcRcd memcpy_s failed, err = %d", error);
        return kFailed;
    }
    Publish(0, table, std::size(table));
    return kOk;
}

CwpSrcRcd *LyrKes_FindCwpSrc(uint32_t type, const HostIpAddr *address, uint32_t ifIndex) {
    for (CwpSrcRcd &record : g_LyrHostCwpSrcRcd) {
        if (record.srcType != type) {
            continue;
        }
        switch (type) {
            case CWP_SRC_INTERFACE_A:
            case CWP_SRC_INTERFACE_B:
                if (record.ifIndex == ifIndex && record.address.ipVer == address->ipVer) {
                    return &record;
                }
                break;
            case CWP_SRC_ADDRESS:
            case CWP_SRC_ANY_IF:
                if (lyr::SameAddress(record.address, *address)) {
                    return &record;
                }
                break;
            default:
                return nullptr;
        }
    }
    return nullptr;
}

void LyrKes_FillInHostIpAddr(bool ipv4, uint32_t ipv4Address, const uint16_t *ipv6Groups,
                             HostIpAddr *address) {
    if (ipv4) {
        address->ipVer = lyr::kIpVersion4;
        address->ip[0] = ipv4Address;
    } else {
        address->ipVer = lyr::kIpVersion6;
        lyr::GroupsToWords(ipv6Groups, address->ip);
    }
}

void LyrKes_FillInCwpSrcInfo(uint32_t type, uint32_t ifIndex, const HostIpAddr *address,
                             CwpSrcRcd *record) {
    record->srcType = type;
    record->ifIndex = ifIndex;
    record->address = *address;
}

uint32_t LyrKes_AddCwpSrc(bool ipv4, uint32_t type, uint32_t ipv4Address,
                          const uint16_t *ipv6Groups, uint32_t ifIndex) {
    HostIpAddr address = {};
    LyrKes_FillInHostIpAddr(ipv4, ipv4Address, ipv6Groups, &address);
    const lyr::SpinGuard lock(writing);
    if (CwpSrcRcd *known = LyrKes_FindCwpSrc(type, &address, ifIndex)) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Refresh " CWP_SRC_FORMAT ".",
                        CWP_SRC_ARGS(type, address, ifIndex));
        Store(known, type, ifIndex, address);
        return kOk;
    }
    CwpSrcRcd *record = FindFree();
    if (record == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Add " CWP_SRC_FORMAT " fail",
                        CWP_SRC_ARGS(type, address, ifIndex));
        return kFailed;
    }
    LYR_KES_DiagLog(LYR_HOST_ERR, "Add " CWP_SRC_FORMAT ".", CWP_SRC_ARGS(type, address, ifIndex));
    Store(record, type, ifIndex, address);
    return kOk;
}

uint32_t LyrKes_DelCwpSrc(bool ipv4, uint32_t type, uint32_t ipv4Address,
                          const uint16_t *ipv6Groups, uint32_t ifIndex) {
    HostIpAddr address = {};
    LyrKes_FillInHostIpAddr(ipv4, ipv4Address, ipv6Groups, &address);
    const lyr::SpinGuard lock(writing);
    CwpSrcRcd *record = LyrKes_FindCwpSrc(type, &address, ifIndex);
    if (record == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Del " CWP_SRC_FORMAT ", not found.",
                        CWP_SRC_ARGS(type, address, ifIndex));
        return kOk;
    }
    LYR_KES_DiagLog(LYR_HOST_ERR, "Del " CWP_SRC_FORMAT, CWP_SRC_ARGS(type, address, ifIndex));
    Store(record, CWP_SRC_FREE, 0, HostIpAddr{});
    return kOk;
}

void LyrHost_Kes_CwpSrcInfoGet(CwpSrcRcd *record, const LyrKesCwpSrcEntry *entry) {
    record->srcType = entry->cwpType;
    record->ifIndex = entry->srcIf;
    LyrKes_FillInHostIpAddr(entry->srcAddr.ipVer == 0, entry->srcAddr.ipv4Addr,
                            entry->srcAddr.ipv6Addr, &record->address);
}

uint32_t lyr::ReplaceCwpSources(const LyrKesCwpSrcReconReq &request) {
    CwpSrcRcd image[LYR_KES_CWP_SRC_NUM] = {};
    for (size_t i = 0; i < std::size(image); ++i) {
        const LyrKesCwpSrcEntry &entry = request.entries[i];
        if (entry.cwpType == CWP_SRC_NONE) {
            image[i].srcType = CWP_SRC_FREE;
            continue;
        }
        LyrHost_Kes_CwpSrcInfoGet(&image[i], &entry);
        LYR_KES_DiagLog(LYR_HOST_INFO, "CwpSrcReconciliation Cwp Type %u SrcIp 0x%x SrcIf %u",
                        entry.cwpType, entry.srcAddr.ipv4Addr, entry.srcIf);
    }
    return LyrKes_SetCwpSrcInfo(image, sizeof(image));
}

void LyrKes_QueryCwpSrc() {
    const auto table = lyr::ReadCwpSources([] {
        struct {
            CwpSrcRcd records[LYR_KES_CWP_SRC_NUM];
        } copy;
        for (size_t i = 0; i < LYR_KES_CWP_SRC_NUM; ++i) {
            copy.records[i] = lyr::LoadCwpSource(i);
        }
        return copy;
    });
    uint32_t printed = 0;
    LyrKesDebugTrace(LYR_TRACE_PACKET, false, nullptr,
                     "[LYR-HOST][Begin]query host capwap src info");
    for (uint32_t i = 0; i < LYR_KES_CWP_SRC_NUM; ++i) {
        const CwpSrcRcd &record = table.records[i];
        if (record.srcType == CWP_SRC_FREE) {
            continue;
        }
        LyrKesDebugTrace(LYR_TRACE_PACKET, false, nullptr,
                         "[LYR-HOST][Query]capwap src index %u, srcType %u, ifIndex %u, ipVer %u, "
                         "ip 0x%x|%x:%x:%x:%x",
                         i, record.srcType, record.ifIndex, record.address.ipVer,
                         record.address.ip[0], LYR_WORDS_ARGS(record.address.ip));
        ++printed;
    }
    LyrKesDebugTrace(LYR_TRACE_PACKET, false, nullptr,
                     "[LYR-HOST][End]capwap src info total records %u", printed);
}
