// Tunnels counted and listed by port: where a page, a table or a chain ends.
#include "lb/table_query.h"

#include <cstring>

#include "channel/service_channel.h"
#include "dfx/debug_trace.h"
#include "dist_tables.h"

namespace {

using namespace host_test;

constexpr uint16_t kPort = 5246;

template <class Table>
constexpr uint32_t kIpVer = std::is_same_v<Table, Ipv4Tunnels> ? 0 : 1;

template <class Table>
LyrKesLbDfxRsp Query(uint16_t index, uint8_t what) {
    return Ask<LyrKesLbDfxRsp>(MUND_OP_LoadBalanceDfx,
                               LyrKesLbDfxReq{kIpVer<Table>, index, kPort, what, {}});
}

template <class Table>
uint32_t Count() {
    return Query<Table>(0, LYR_KES_LB_COUNT).entryNum;
}

size_t Used(const LyrKesLbDfxRsp &page) {
    return static_cast<size_t>(std::ranges::count(page.entries, kPort, &LyrKesLbDfxEntry::dstPort));
}

// A line of a query, which names its family.
template <class Table>
std::string Line(const char *query, const std::string &text) {
    return Text("LyrHost_Kes_Get%s%s ", kIpVer<Table> == 0 ? "Ipv4" : "Ipv6", query) + text;
}

template <class Table>
class TableQuery : public HostTest {
  protected:
    // Starts anew with tables of a size, with so many tunnels.
    void Fill(uint32_t links, uint32_t entries) {
        SetLinks(links);
        Restart();
        for (uint32_t n = 1; n <= entries; ++n) {
            ASSERT_EQ(Change<Table>(kAdd, n, 3), 0u);
        }
        TraceOn();
    }
    const Instance instance_{3, LYR_PKT_TYPE_CAPWAP};
};

using Tables = testing::Types<Ipv4Tunnels, Ipv6Tunnels>;
TYPED_TEST_SUITE(TableQuery, Tables, TableNames);

// The tunnel numbered `n`, in a VPN of its own; as a listing shows it.
template <class Table>
LyrKesCwpTunnelReq Tunnel(uint32_t n) {
    LyrKesCwpTunnelReq request = Table::Request(kAdd, n, 3);
    request.vpnId = n;
    return request;
}

template <class Table>
LyrKesLbDfxEntry Listed(uint32_t n) {
    const LyrKesCwpTunnelReq request = Tunnel<Table>(n);
    LyrKesLbDfxEntry listed = {};
    listed.ipVer = kIpVer<Table>;
    listed.srcIp = request.srcAddr.ipv4Addr;
    listed.dstIp = request.dstAddr.ipv4Addr;
    std::ranges::copy(request.srcAddr.ipv6Addr, listed.srcIpv6);
    std::ranges::copy(request.dstAddr.ipv6Addr, listed.dstIpv6);
    listed.srcPort = request.srcPort;
    listed.dstPort = request.dstPort;
    listed.vpnId = request.vpnId;
    listed.nodeId = request.nodeId;
    return listed;
}

TYPED_TEST(TableQuery, PagesHaveWholeBucketsInTheirOrder) {
    this->Fill(60, 0);
    for (uint32_t n = 1; n <= 1500; ++n) {
        ASSERT_EQ(Call(MUND_OP_CwpTunnel, Tunnel<TypeParam>(n)), 0u);
    }
    std::vector<Texts> buckets(TypeParam::kCap);
    for (const auto *entry : EntriesOf<TypeParam>()) {
        const auto listed = Listed<TypeParam>(TypeParam::NumberOf(entry->key));
        const auto *bytes = reinterpret_cast<const char *>(&listed);
        buckets[TypeParam::kIndexOf(&entry->key, sizeof(entry->key))].emplace_back(bytes,
                                                                                   sizeof(listed));
    }
    const bool ipv6 = kIpVer<TypeParam> != 0;
    ASSERT_EQ(Call(MUND_OP_CwpTunnel, TunnelRequest(kAdd, ipv6 ? "::1" : "1.1.1.1", 1,
                                                    ipv6 ? "::2" : "2.2.2.2", 2, 3)),
              0u);
    EXPECT_EQ(Count<TypeParam>(), 1500u) << "one has another port";
    for (uint32_t next = 1; next != LYR_KES_LB_END;) {
        const auto page = Query<TypeParam>(static_cast<uint16_t>(next - 1), LYR_KES_LB_LIST);
        std::string expected;
        size_t bucket = next - 1, used = 0;
        for (; bucket < buckets.size() && used < 256 && used + buckets[bucket].size() <= 256;
             ++bucket) {
            used += buckets[bucket].size();
            for (const std::string &entry : buckets[bucket]) {
                expected += entry;
            }
        }
        expected.resize(sizeof(page.entries));
        EXPECT_EQ(std::memcmp(page.entries, expected.data(), expected.size()), 0) << next;
        EXPECT_EQ(page.nextIndex, bucket < buckets.size() ? bucket + 1 : LYR_KES_LB_END);
        EXPECT_EQ(page.entryNum, 0u);
        ASSERT_GT(page.nextIndex, next) << "the listing moves on";
        next = page.nextIndex;
    }
}

TYPED_TEST(TableQuery, BucketThatFitsIntoNoPageFillsItAndIsLogged) {
    const std::string tooMany =
        Line<TypeParam>("LbEntryInfo", "bucket 0 has more than 256 entries with port 5246.");
    for (const uint32_t entries : {255u, 256u, 257u}) {
        SCOPED_TRACE(entries);
        this->Fill(0, entries);
        struct {
            LyrKesLbDfxRsp reply = {};
            uint8_t behind[64] = {};
        } room;
        const LyrKesLbDfxReq request = {kIpVer<TypeParam>, 0, kPort, LYR_KES_LB_LIST, {}};
        EXPECT_EQ(LyrHost_Kes_LbEntryInfo(&request, &room.reply), 0u);
        EXPECT_THAT(room.behind, Each(0));
        EXPECT_EQ(Used(room.reply), std::min(entries, 256u));
        EXPECT_EQ(room.reply.nextIndex, LYR_KES_LB_END);
        EXPECT_EQ(this->TakeReports(), entries > 256 ? Texts{tooMany} : Texts{});
    }
}

TYPED_TEST(TableQuery, ListingEndsWhereTheIndexNamesNoBucket) {
    this->Fill(60000, 3000);
    ASSERT_GT(TypeParam::kCap, 70000u);
    const auto page = Query<TypeParam>(64000, LYR_KES_LB_LIST);
    EXPECT_EQ(Used(page), 256u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(
        this->TakeReports(),
        ElementsAre(::testing::MatchesRegex(Line<TypeParam>(
            "LbEntryInfo", "cannot name bucket [0-9]+, the table is not listed further."))));
}

TYPED_TEST(TableQuery, BrokenChainOrMissingTableEndsAQuery) {
    this->Fill(8999, 20);
    LyrKesDistBucket *bucket = TypeParam::kBuckets;
    while (bucket->next == bucket) {
        ++bucket;
    }
    LyrKesDistBucket *const next = std::exchange(bucket->next->next, nullptr);
    EXPECT_EQ(Count<TypeParam>(), 1u);
    const auto page = Query<TypeParam>(0, LYR_KES_LB_LIST);
    EXPECT_EQ(Used(page), 1u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(this->TakeLines(LineKind::kAssertion),
                AllOf(SizeIs(2), Each(StartsWith("src/host/lyr_kes/lb/lyr_kes_dist:"))));
    bucket->next->next = next;
    EXPECT_EQ(Count<TypeParam>(), 20u) << "the lock was given up";

    this->TraceOn(LYR_TRACE_FAILURE);
    LyrKesDistBucket *const table = std::exchange(TypeParam::kBuckets, nullptr);
    EXPECT_EQ(Count<TypeParam>(), 0u);
    EXPECT_EQ(Query<TypeParam>(0, LYR_KES_LB_LIST).nextIndex, LYR_KES_LB_END);
    TypeParam::kBuckets = table;
    const std::string noTable = "failed to get lb hash table.";
    EXPECT_EQ(this->TakeReports(), (Texts{Line<TypeParam>("LbEntryNum", noTable),
                                          Line<TypeParam>("LbEntryInfo", noTable)}));
}

using LoadBalanceDfx = HostTest;

TEST_F(LoadBalanceDfx, Ipv4CountDumpsTheSourcesAndAnUnknownQueryIsRefused) {
    DeclareController();
    TraceOn();
    Count<Ipv6Tunnels>();
    EXPECT_THAT(TakeReports(), IsEmpty());
    Count<Ipv4Tunnels>();
    EXPECT_THAT(TakeReports(), Contains(HasSubstr("capwap src index 0")));
    const auto reply =
        Ask<LyrKesLbDfxRsp>(MUND_OP_LoadBalanceDfx, LyrKesLbDfxReq{0, 0, kPort, 2, {}}, 1);
    EXPECT_TRUE(SameBytes(reply, LyrKesLbDfxRsp{}));
}

}  // namespace
