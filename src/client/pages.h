// What the pages of the paged queries say, wherever they are asked for.
#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "mund/statistics_messages.h"
#include "mund/table_entries.h"
#include "mund/wire.h"

namespace client {

// There is no answer that one can go on with.
class BadReply : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The entries in use, which are written from the front of a page: the rest of it is zero. Only a
// tunnel that is itself of zeros, at the end of a page, is taken for a part of that rest.
inline std::span<const LyrKesLbDfxEntry> Used(const LyrKesLbDfxRsp &page) {
    static constexpr LyrKesLbDfxEntry kUnused = {};
    static_assert(std::has_unique_object_representations_v<LyrKesLbDfxEntry>);
    size_t count = std::size(page.entries);
    while (count > 0 && std::memcmp(&page.entries[count - 1], &kUnused, sizeof kUnused) == 0) {
        --count;
    }
    return std::span(page.entries).first(count);
}

inline void CheckPort(const LyrKesLbDfxEntry &entry, uint16_t port) {
    if (entry.srcPort != port && entry.dstPort != port) {
        throw BadReply("the listing of port " + std::to_string(port) + " has a tunnel of ports " +
                       std::to_string(entry.srcPort) + " and " + std::to_string(entry.dstPort));
    }
}

// The index that the next page starts at; none behind the last page.
inline std::optional<uint16_t> IndexBehind(uint16_t index, const LyrKesLbDfxRsp &page) {
    if (page.nextIndex == LYR_KES_LB_END) {
        return std::nullopt;
    }
    // The reply names one more than the bucket that comes next.
    if (page.nextIndex <= index + 1) {
        throw BadReply("the listing does not move on: next index " +
                       std::to_string(page.nextIndex) + " in the reply for index " +
                       std::to_string(index));
    }
    return static_cast<uint16_t>(page.nextIndex - 1);
}

// Gets page by page from askPage(request), and shows each tunnel to visit(tunnel) until that
// answers false. Throws BadReply, and what the two throw.
template <typename AskPage, typename Visit>
void ForEachTunnel(LyrKesLbDfxReq request, AskPage askPage, Visit visit) {
    for (std::optional<uint16_t> index = request.index; index;) {
        request.index = *index;
        const LyrKesLbDfxRsp page = askPage(request);
        for (const LyrKesLbDfxEntry &entry : Used(page)) {
            CheckPort(entry, request.tunnelPort);
            if (!visit(entry)) {
                return;
            }
        }
        index = IndexBehind(request.index, page);
    }
}

inline void CheckProbePage(const LyrKesCwpTraceRecordRsp &page, uint32_t from) {
    const bool more = page.result == LYR_KES_PROBE_MORE;
    if (!more && page.result != LYR_KES_PROBE_LAST) {
        throw BadReply("the reply's result is " + std::to_string(page.result) + ", neither " +
                       std::to_string(LYR_KES_PROBE_MORE) + " nor " +
                       std::to_string(LYR_KES_PROBE_LAST));
    }
    if (page.entryNum > LYR_KES_PROBE_PAGE_NUM) {
        throw BadReply("the reply has " + std::to_string(page.entryNum) + " records, of " +
                       std::to_string(LYR_KES_PROBE_PAGE_NUM) + " at most");
    }
    if (more && (page.entryNum == 0 || page.entryNum > UINT32_MAX - from)) {
        throw BadReply("the trace does not end: more is said to follow the " +
                       std::to_string(page.entryNum) + " records from " + std::to_string(from));
    }
}

// The same for probes: visit(position, probe).
template <typename AskPage, typename Visit>
void ForEachProbe(LyrKesCwpTraceRecordReq request, AskPage askPage, Visit visit) {
    for (bool more = true; more;) {
        const LyrKesCwpTraceRecordRsp page = askPage(request);
        CheckProbePage(page, request.startIdx);
        for (uint32_t i = 0; i < page.entryNum; ++i) {
            if (!visit(request.startIdx + i, page.entries[i])) {
                return;
            }
        }
        request.startIdx += page.entryNum;
        more = page.result == LYR_KES_PROBE_MORE;
    }
}

// The table that entries are of.
template <typename Entry>
inline constexpr uint32_t kTableOf = MUND_TABLE_NUM;
template <>
inline constexpr uint32_t kTableOf<MundIpv4Tunnel> = MUND_TABLE_IPV4_TUNNELS;
template <>
inline constexpr uint32_t kTableOf<MundIpv6Tunnel> = MUND_TABLE_IPV6_TUNNELS;
template <>
inline constexpr uint32_t kTableOf<MundSession> = MUND_TABLE_SESSIONS;

#define TABLE_WORDS(name, words) words,
inline constexpr const char *kTableWords[] = {MUND_TABLES(TABLE_WORDS)};
#undef TABLE_WORDS

// The head of a page, which moves on and has as many entries as it says.
template <typename Entry>
MundWireEntriesRsp HeadOf(std::span<const uint8_t> page, const MundWireEntriesReq &request) {
    MundWireEntriesRsp head = {};
    if (page.size() >= sizeof head) {
        std::memcpy(&head, page.data(), sizeof head);
    }
    const bool movesOn = head.nextBucket > request.bucket || head.nextBucket == head.buckets;
    if (page.size() < sizeof head || head.entrySize != sizeof(Entry) ||
        page.size() != sizeof head + size_t{head.count} * sizeof(Entry) || !movesOn ||
        head.nextBucket > head.buckets) {
        throw BadReply("the listing of the " + std::string(kTableWords[request.table]) +
                       " table is not understood: " + std::to_string(page.size()) + " bytes of " +
                       std::to_string(head.count) + " entries of " +
                       std::to_string(head.entrySize) + " bytes, from bucket " +
                       std::to_string(request.bucket) + " to " + std::to_string(head.nextBucket) +
                       " of " + std::to_string(head.buckets));
    }
    return head;
}

// The same for what is in a table; askPage(request) answers with the bytes of a page.
template <typename Entry, typename AskPage, typename Visit>
void ForEachEntry(AskPage askPage, Visit visit) {
    MundWireEntriesReq request = {.table = kTableOf<Entry>, .bucket = 0};
    MundWireEntriesRsp head;
    do {
        const std::vector<uint8_t> page = askPage(request);
        head = HeadOf<Entry>(page, request);
        for (size_t i = 0; i < head.count; ++i) {
            Entry entry;
            std::memcpy(&entry, &page[sizeof head + i * sizeof entry], sizeof entry);
            if (!visit(entry)) {
                return;
            }
        }
        request.bucket = head.nextBucket;
    } while (head.nextBucket < head.buckets);
}

}  // namespace client
