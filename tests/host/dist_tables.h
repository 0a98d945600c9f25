// The three distribution tables, seen alike: what the tests of the distribution share.
#pragma once

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

// Stops the module and starts it anew.
inline void Restart() {
    LyrKes_Exit();
    standin::JoinCreatedThreads();
    ASSERT_EQ(LyrKes_Init(), 0u);
}

// The same with tables of one bucket each.
inline void RestartWithOneBucket() {
    standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", 0);
    standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", 0);
    Restart();
}

// Declares the controller's addresses as CAPWAP sources.
inline void DeclareController() {
    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kAdd, CWP_SRC_ADDRESS, kController, 1)), 0u);
    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kAdd, CWP_SRC_ADDRESS, kController6, 1)), 0u);
}

}  // namespace host_test
