#include "dfx/probe_trace.h"

#include <algorithm>
#include <cstring>

#include "dfx/debug_trace.h"
#include "dfx/hook_kind.h"
#include "dfx/vendor_message.h"
#include "kes/board.h"
#include "kes/bounded.h"
#include "module/shared_word.h"
#include "module/spin_guard.h"
#include "module/status.h"
#include "module/wall_clock.h"
#include "packet/capwap_fields.h"
#include "packet/capwap_header.h"

LyrKesCwpTrace g_LyrHostCwpTrace;

namespace {

using lyr::kError;
using lyr::kOk;

constexpr uint32_t kControlHeaderLength = 8;
constexpr uint16_t kMinElements = 24;  // a probe's message elements
constexpr uint32_t kMacOffset = 20;    // behind the CAPWAP header
constexpr uint32_t kMacLength = 6;

constexpr uint32_t kSlotMask = LYR_CWP_TRACE_NUM - 1;
static_assert((LYR_CWP_TRACE_NUM & kSlotMask) == 0, "slots are masked out of indexes");

LyrKesCwpTrace &trace = g_LyrHostCwpTrace;

// Who is inside the ring: appends and reads, a count, and with the highest bit the one that clears
// it. A clear shuts the ring, waits for those inside and is alone then. Nobody waits for a clear:
// a sighting that meets one is gone as if it had come before it.
constexpr uint32_t kShut = 0x80000000;
std::atomic<uint32_t> inside{0};
// Operations may run on several threads: one of them at a time clears.
std::atomic_flag clearing;

class Visit {
  public:
    Visit() : admitted_((inside.fetch_add(1, std::memory_order_acquire) & kShut) == 0) {}
    ~Visit() {
        inside.fetch_sub(1, std::memory_order_release);
    }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

    bool IsAdmitted() const {
        return admitted_;
    }

  private:
    const bool admitted_;
};

class Shutting {
  public:
    Shutting() : alone_(clearing) {
        inside.fetch_or(kShut, std::memory_order_relaxed);
        while (inside.load(std::memory_order_acquire) != kShut) {
        }
    }
    ~Shutting() {
        inside.fetch_and(~kShut, std::memory_order_release);
    }
    Shutting(const Shutting &) = delete;
    Shutting &operator=(const Shutting &) = delete;

  private:
    const lyr::SpinGuard alone_;
};

// Moves the tail on; the slot that it stood at is the caller's to write.
uint32_t ClaimSlot() {
    const std::atomic_ref<uint32_t> word(trace.tail);
    uint32_t slot = word.load(std::memory_order_relaxed);
    while (!word.compare_exchange_weak(slot, (slot + 1) & kSlotMask, std::memory_order_relaxed)) {
    }
    return slot & kSlotMask;
}

// Counts a record that has been written; false if the ring was full already.
bool CountRecord() {
    const std::atomic_ref<uint32_t> word(trace.count);
    uint32_t held = word.load(std::memory_order_relaxed);
    while (held < LYR_CWP_TRACE_NUM) {
        if (word.compare_exchange_weak(held, held + 1, std::memory_order_release,
                                       std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// Three fields as one word: 16 bits, 8 and 8.
uint32_t PackedWord(uint32_t high, uint32_t middle, uint32_t low) {
    return high << 16 | (middle & 0xFF) << 8 | (low & 0xFF);
}

void StampTime(CwpTraceRcd &record) {
    TovDate date = {};
    TovTime time = {};
    TovTimeGetDatetime(&date, &time);
    record.date = PackedWord(date.year, date.month, date.day);
    record.time = PackedWord(time.hour, time.minute, time.second);
    record.seconds = LyrKes_GetCurTime();
}

// An address in the trace's lines: "%x|%x:%x:%x:%x".
#define TRACED_ADDRESS(address) (address)->ip[0], LYR_WORDS_ARGS((address)->ip)

void ReportNoMac(uint32_t hookKind, const HostIpAddr *peer) {
    LyrKesDebugTrace(LYR_TRACE_FAILURE, false, nullptr,
                     "LyrKes_CwpProbeTraceProc get dst mac fail, %s Ip is %x|%x:%x:%x:%x",
                     lyr::IsTransmit(hookKind) ? "dst" : "src", TRACED_ADDRESS(peer));
}

void PrintRecord(const CwpTraceRcd &record, const HostIpAddr *srcAddr, const HostIpAddr *dstAddr) {
    LyrKesDebugTrace(LYR_TRACE_PACKET, false, nullptr,
                     "[dbgPkt][%d][%s][ip-ver:%u, src-ip: %x|%x:%x:%x:%x, dst-ip: "
                     "%x|%x:%x:%x:%x][time: %u/%02u/%02u %02u:%02u:%02u]",
                     static_cast<int32_t>(record.hookKind), record.name, srcAddr->ipVer,
                     TRACED_ADDRESS(srcAddr), TRACED_ADDRESS(dstAddr), record.date >> 16,
                     (record.date >> 8) & 0xFF, record.date & 0xFF, record.time >> 16,
                     (record.time >> 8) & 0xFF, record.time & 0xFF);
}

LyrKesCwpTraceEntry EntryOf(const CwpTraceRcd &record) {
    LyrKesCwpTraceEntry entry = {};
    std::memcpy(entry.mac, record.mac, sizeof(entry.mac));
    std::memcpy(entry.name, record.name, sizeof(entry.name));
    entry.date = record.date;
    entry.time = record.time;
    entry.seconds = record.seconds;
    if (record.peer.ipVer == lyr::kIpVersion4) {
        entry.peerAddr.ipv4Addr = record.peer.ip[0];
    } else {
        entry.peerAddr.ipVer = 1;
        lyr::WordsToGroups(record.peer.ip, entry.peerAddr.ipv6Addr);
    }
    entry.hookKind = record.hookKind;
    return entry;
}

}  // namespace

void LyrKes_CwpProbeTraceProc(const HostMbuf *packet, uint32_t hookKind, uint32_t messageType) {
    const uint8_t *dstMac = HostMbufGetDstMac(packet);
    uint8_t peerMac[kMacLength] = {};
    if (hookKind == KES_HOOK_TXIN) {
        // Its frame has no destination yet.
        if (LyrKes_GetPeerMacFromCapwapProbeMsg(packet, peerMac, sizeof(peerMac)) != kOk) {
            return;
        }
        dstMac = peerMac;
    }
    const uint8_t ipVersion = lyr::IpVersionOf(packet);
    if (ipVersion == 0) {
        return;
    }
    const HostIpAddr source = lyr::AddressOf(packet, lyr::PacketEnd::kSource, ipVersion);
    const HostIpAddr destination = lyr::AddressOf(packet, lyr::PacketEnd::kDestination, ipVersion);
    LyrKes_FillInCwpProbeInfo(hookKind, messageType, HostMbufGetSrcMac(packet), &source, dstMac,
                              &destination);
}

uint32_t LyrKes_GetPeerMacFromCapwapProbeMsg(const HostMbuf *packet, uint8_t *buffer,
                                             uint32_t length) {
    const uint8_t *header;
    uint16_t payloadLength;
    uint16_t present;
    if (LyrKes_GetCapwapHdr(packet, &header, &payloadLength, &present) != 0 ||
        present < lyr::kCapwapFlagBytes) {
        return kError;
    }
    const uint32_t headerLength = lyr::CapwapHeaderLength(header);
    if (present < headerLength + kControlHeaderLength ||
        !lyr::IsProbe(lyr::ReadBe32(header + headerLength)) ||
        present - headerLength - kControlHeaderLength < kMinElements) {
        return kError;
    }
    return memcpy_s(buffer, length, header + headerLength + kMacOffset, kMacLength) == 0 ? kOk
                                                                                         : kError;
}

void LyrKes_FillInCwpProbeInfo(uint32_t hookKind, uint32_t messageType, const uint8_t *srcMac,
                               const HostIpAddr *srcAddr, const uint8_t *dstMac,
                               const HostIpAddr *dstAddr) {
    const bool atDestination = lyr::PeerEnd(hookKind) == lyr::PacketEnd::kDestination;
    const HostIpAddr *peer = atDestination ? dstAddr : srcAddr;
    const uint8_t *peerMac = atDestination ? dstMac : srcMac;
    CwpTraceRcd record = {};
    strcpy_s(record.name, sizeof(record.name),
             messageType == lyr::kProbeRequest ? "ServerReq" : "ServerResp");
    record.hookKind = hookKind;
    StampTime(record);
    if (memcpy_s(record.mac, sizeof(record.mac), peerMac, kMacLength) != 0) {
        ReportNoMac(hookKind, peer);
    }
    record.peer = *peer;
    LyrKes_AddGlbCwpTraceRecord(&record);
    PrintRecord(record, srcAddr, dstAddr);
}

void LyrKes_AddGlbCwpTraceRecord(const CwpTraceRcd *record) {
    const Visit visit;
    if (!visit.IsAdmitted()) {
        return;
    }
    const uint32_t slot = ClaimSlot();
    lyr::StoreWords(trace.records[slot], *record);
    if (!CountRecord()) {
        lyr::StoreRelaxed(trace.head, (slot + 1) & kSlotMask);
    }
}

LyrKesCwpTrace *LyrKes_GetGlbCwpTrace() {
    return &g_LyrHostCwpTrace;
}

void LyrKes_InitCwpProbe() {
    const Shutting shutting;
    lyr::StoreRelaxed(trace.count, 0u);
    lyr::StoreRelaxed(trace.head, 0u);
    lyr::StoreRelaxed(trace.tail, 0u);
    for (CwpTraceRcd &record : trace.records) {
        lyr::StoreWords(record, CwpTraceRcd{});
    }
}

void LyrKes_CwpTraceReset() {
    LyrKes_InitCwpProbe();
}

uint32_t LyrKes_CwpTraceGet(const LyrKesCwpTraceRecordReq *request,
                            LyrKesCwpTraceRecordRsp *reply) {
    const Visit visit;
    const uint32_t count = visit.IsAdmitted() ? lyr::LoadAcquire(trace.count) : 0;
    const uint32_t tail = lyr::LoadRelaxed(trace.tail);
    if (count <= request->startIdx) {
        reply->entryNum = 0;
        return LYR_KES_PROBE_LAST;
    }
    const uint32_t remaining = count - request->startIdx;
    const uint32_t pageNum = std::min<uint32_t>(remaining, LYR_KES_PROBE_PAGE_NUM);
    // Until the ring is full, its records begin at its start, whatever is being appended.
    const uint32_t first = count < LYR_CWP_TRACE_NUM ? request->startIdx : tail - remaining;
    for (uint32_t k = 0; k < pageNum; ++k) {
        reply->entries[k] = EntryOf(lyr::LoadWords(trace.records[(first + k) & kSlotMask]));
    }
    reply->entryNum = pageNum;
    return remaining > pageNum ? LYR_KES_PROBE_MORE : LYR_KES_PROBE_LAST;
}
