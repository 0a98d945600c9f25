// The three distribution tables, seen alike: what the tests of the distribution share.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "host_fixture.h"
#include "lb/dist_table.h"
#include "lb/packet_lookup.h"
#include "lb/rpc_operations.h"
#include "lb/tunnel_registration.h"
#include "module/lifecycle.h"
#include "mund/statistics_messages.h"
#include "packet/cwp_source.h"

namespace host_test {

constexpr uint32_t kAdd = LYR_KES_OPERATION_ADD;
constexpr uint32_t kDelete = LYR_KES_OPERATION_DELETE;
constexpr uint32_t kError = 0xFFFFFFFF;

// The controller's addresses.
constexpr const char *kController = "10.0.0.1";
constexpr const char *kController6 = "2001:db8::1";

// The objects and operations that make up a table.
#define DISTRIBUTION_TABLE(table)                                       \
    using Key = LyrKesDist##table##Key;                                 \
    using Entry = LyrKesDist##table##Entry;                             \
    static constexpr auto &kBuckets = g_LyrKes_Dist##table##Tbl;        \
    static constexpr auto &kCap = g_LyrKes_Dist##table##Cap;            \
    static constexpr auto &kLocker = g_LyrKes_Dist##table##RwLocker;    \
    static constexpr auto kIndexOf = LyrKes_Dist##table##_GetHashIndex; \
    static constexpr auto kKeyCmp = LyrKes_Dist##table##_KeyCmp

// Tunnels of the access points, which are numbered from 1; each sends from an address of its own.
template <class Family>
struct Tunnels {
    static constexpr auto kLookUp = LyrKes_DistCwp_PktProc;
    static constexpr auto kOperation = MUND_OP_CwpTunnel;
    static constexpr auto kDirect = LyrHost_Kes_CwpTunnel;
    static constexpr bool kNeedsChannel = true;

    static LyrKesCwpTunnelReq Request(uint32_t operation, uint32_t n, uint32_t nodeId) {
        return TunnelRequest(operation, Address(n), 5246, Family::kTo, 5246, nodeId);
    }
    static capwap::FrameSpec Frame(uint32_t n) {
        return UdpFrame(Address(n), 5246, Family::kTo, 5246, capwap::ControlMessage(13, 1, {}));
    }
    static std::string Address(uint32_t n) {
        char text[40];
        std::snprintf(text, sizeof(text), Family::kAddress, n / 256, n % 256);
        return text;
    }
};

struct Ipv4Tunnels : Tunnels<Ipv4Tunnels> {
    DISTRIBUTION_TABLE(Ipv4);
    static constexpr const char *kName = "IPv4", *kAddTag = "LyrKes_DistAddIPv4Tunnel:";
    static constexpr const char *kTo = kController, *kAddress = "172.16.%u.%u";

    static uint32_t NumberOf(const Key &key) {
        return key.srcIp & 0xFFFF;
    }
};

struct Ipv6Tunnels : Tunnels<Ipv6Tunnels> {
    DISTRIBUTION_TABLE(Ipv6);
    static constexpr const char *kName = "IPv6", *kAddTag = "LyrKes_DistAddIPv6Tunnel:";
    static constexpr const char *kTo = kController6, *kAddress = "2001:db8:1::%x:%x";

    static uint32_t NumberOf(const Key &key) {
        return (key.srcIpv6[3] >> 16) * 256 + (key.srcIpv6[3] & 0xFF);
    }
};

// Keepalive sessions, numbered as well.
struct KaSessions {
    DISTRIBUTION_TABLE(Ka);
    static constexpr const char *kName = "KA", *kAddTag = "LyrKes_DistAddKaTunnel:";
    static constexpr auto kLookUp = LyrKes_DistKa_PktProc;
    static constexpr auto kOperation = MUND_OP_KaTunnel;
    static constexpr auto kDirect = LyrHost_Kes_KaTunnel;
    static constexpr bool kNeedsChannel = false;

    static LyrKesKaTunnelReq Request(uint32_t operation, uint32_t n, uint32_t nodeId) {
        return {operation, {n, 0x12345678, 0, 0xDEADBEEF}, nodeId};
    }
    static capwap::FrameSpec Frame(uint32_t n) {
        return UdpFrame("172.16.0.1", 5247, kController, 5247,
                        capwap::Keepalive({n, 0x12345678, 0, 0xDEADBEEF}));
    }
    static uint32_t NumberOf(const Key &key) {
        return key.sessionId[0];
    }
};

using AllTables = ::testing::Types<Ipv4Tunnels, Ipv6Tunnels, KaSessions>;

struct TableNames {
    template <class Table>
    static std::string GetName(int) {
        return Table::kName;
    }
};

// Adds or deletes the tunnel (session) numbered `n`, through the service.
template <class Table>
uint32_t Change(uint32_t operation, uint32_t n, uint32_t nodeId) {
    return Call(Table::kOperation, Table::Request(operation, n, nodeId));
}

// The key of a packet of a tunnel (session) that has been looked up.
template <class Table>
uint32_t OwnerOfPacket(uint32_t n, uint32_t result = LYR_DIST_OK) {
    const Packet packet = MakePacket(Table::Frame(n));
    EXPECT_EQ(Table::kLookUp(packet.get()), result);
    return HostMbufGetLbKey(packet.get());
}

// The entries of a table; within a bucket in the order of a walk.
template <class Table>
std::vector<typename Table::Entry *> EntriesOf() {
    std::vector<typename Table::Entry *> entries;
    for (uint32_t i = 0; i < Table::kCap; ++i) {
        LyrKesDistBucket *bucket = &Table::kBuckets[i];
        for (LyrKesDistBucket *link = bucket->next; link != bucket; link = link->next) {
            auto *entry = static_cast<typename Table::Entry *>(link);
            EXPECT_EQ(Table::kIndexOf(&entry->key, sizeof(entry->key)), i) << "in a wrong bucket";
            EXPECT_EQ(link->next->prev, link) << "not linked back";
            entries.push_back(entry);
        }
    }
    return entries;
}

// The same as pairs of number and node id.
using Contents = std::vector<std::pair<uint32_t, uint32_t>>;

template <class Table>
Contents ContentsOf() {
    Contents contents;
    for (const auto *entry : EntriesOf<Table>()) {
        contents.emplace_back(Table::NumberOf(entry->key), entry->nodeId);
    }
    return contents;
}

// Sizes the tables for the next start.
inline void SetLinks(uint32_t links, uint32_t dataLinks = 0) {
    standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", links);
    standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", dataLinks);
}

// Starts the module anew with tables of one bucket each.
inline void RestartWithOneBucket() {
    SetLinks(0);
    Restart();
}

// Requests that differ from one in a field each: ports and VPN, then what counts among IPv4
// addresses, from the seventh on what counts among IPv6 addresses.
inline std::vector<LyrKesCwpTunnelReq> Variations(const LyrKesCwpTunnelReq &request) {
    std::vector<LyrKesCwpTunnelReq> requests(22, request);
    requests[0].srcPort ^= 1;
    requests[1].dstPort ^= 1;
    requests[2].vpnId ^= 1;
    requests[3].vpnId ^= 0x10000;
    requests[4].srcAddr.ipv4Addr ^= 1;
    requests[5].dstAddr.ipv4Addr ^= 0x80000000;
    for (size_t group = 0; group < 8; ++group) {
        ++requests[6 + group].srcAddr.ipv6Addr[group];
        ++requests[14 + group].dstAddr.ipv6Addr[group];
    }
    return requests;
}

// The management plane, which calls whether the service is open or not.
class Caller {
  public:
    // True if the operation ran.
    template <class Request>
    bool operator()(MundOperation operation, const Request &request) {
        return Run(operation, &request, sizeof(request));
    }
    bool Run(MundOperation operation, const void *request = nullptr, size_t size = 0,
             uint8_t *reply = nullptr) {
        static thread_local uint8_t ownReply[sizeof(LyrKesCwpTraceRecordRsp)];
        uint32_t replySize = 0, result = 0;
        const MundStatus status = MundCall(operation, request, static_cast<uint32_t>(size),
                                           reply != nullptr ? reply : ownReply,
                                           MundReplySize(operation), &replySize, &result);
        // The tables come after the service, and the sources go before it. One that comes in the
        // middle of a stop is refused.
        const bool ran = status == MUND_STATUS_OK;
        const bool refused = result == 1 && replySize == 0;
        const bool sane = ran ? refused || ((result <= 1 || result == kError) &&
                                            replySize == MundReplySize(operation))
                              : status == MUND_STATUS_NO_SERVICE;
        served += ran && sane ? 1 : 0;
        wrong += sane ? 0 : 1;
        return ran;
    }

    std::atomic<int> served{0}, wrong{0};
};

// Declares the controller's addresses as CAPWAP sources.
inline void DeclareController() {
    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kAdd, CWP_SRC_ADDRESS, kController, 1)), 0u);
    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kAdd, CWP_SRC_ADDRESS, kController6, 1)), 0u);
}

}  // namespace host_test
