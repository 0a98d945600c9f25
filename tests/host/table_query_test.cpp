// Tunnels counted and listed by port.
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
LyrKesLbDfxRsp Query(uint16_t index, uint16_t port, uint8_t what) {
    return Ask<LyrKesLbDfxRsp>(MUND_OP_LoadBalanceDfx,
                               LyrKesLbDfxReq{kIpVer<Table>, index, port, what, {}});
}

template <class Table>
uint32_t Count(uint16_t port = kPort) {
    const LyrKesLbDfxRsp reply = Query<Table>(0, port, LYR_KES_LB_COUNT);
    EXPECT_EQ(reply.nextIndex, 0);
    return reply.entryNum;
}

template <class Table>
LyrKesLbDfxRsp Page(uint16_t index, uint16_t port = kPort) {
    const LyrKesLbDfxRsp reply = Query<Table>(index, port, LYR_KES_LB_LIST);
    EXPECT_EQ(reply.entryNum, 0);
    return reply;
}

size_t Used(const LyrKesLbDfxRsp &page) {
    size_t used = 0;
    while (used < LYR_KES_LB_PAGE_NUM && page.entries[used].dstPort != 0) {
        ++used;
    }
    return used;
}

// The keys' access points of a whole listing, as many times as they are listed.
template <class Table>
std::vector<uint32_t> ListAll() {
    std::vector<uint32_t> numbers;
    for (uint32_t index = 0;;) {
        const LyrKesLbDfxRsp page = Page<Table>(static_cast<uint16_t>(index));
        for (size_t i = 0; i < Used(page); ++i) {
            const LyrKesLbDfxEntry &entry = page.entries[i];
            numbers.push_back(kIpVer<Table> == 0 ? entry.srcIp & 0xFFFF
                                                 : entry.srcIpv6[6] * 256u + entry.srcIpv6[7]);
        }
        if (page.nextIndex == LYR_KES_LB_END) {
            return numbers;
        }
        EXPECT_GT(page.nextIndex - 1u, index);
        index = page.nextIndex - 1u;
    }
}

uint32_t Length(const LyrKesDistBucket &bucket) {
    uint32_t length = 0;
    for (const LyrKesDistBucket *link = bucket.next; link != &bucket; link = link->next) {
        ++length;
    }
    return length;
}

template <class Table>
class TableQuery : public HostTest {
  protected:
    void Restart(uint32_t links) {
        SetLinks(links);
        host_test::Restart();
    }
    static void Add(uint32_t first, uint32_t last) {
        for (uint32_t n = first; n <= last; ++n) {
            ASSERT_EQ(Change<Table>(kAdd, n, 3), 0u);
        }
    }
    const Instance instance_{3, LYR_PKT_TYPE_CAPWAP};
};

using Tables = testing::Types<Ipv4Tunnels, Ipv6Tunnels>;
TYPED_TEST_SUITE(TableQuery, Tables, TableNames);

TYPED_TEST(TableQuery, PortAtEitherEndCountsAndLists) {
    const char *to = TypeParam::kTo;
    const auto add = [&](uint32_t n, uint16_t srcPort, uint16_t dstPort, uint32_t node) {
        EXPECT_EQ(Call(MUND_OP_CwpTunnel,
                       TunnelRequest(kAdd, TypeParam::Address(n), srcPort, to, dstPort, node, n)),
                  0u);
    };
    EXPECT_EQ(Used(Page<TypeParam>(0)), 0u);
    add(1, 40000, 5246, 3);
    add(2, 5246, 40000, 3);
    add(3, 5246, 5246, 3);
    add(4, 40000, 5247, 3);
    EXPECT_EQ(Count<TypeParam>(5246), 3u);
    EXPECT_EQ(Count<TypeParam>(40000), 3u);
    EXPECT_EQ(Count<TypeParam>(5248), 0u);
    const LyrKesLbDfxRsp page = Page<TypeParam>(0, 5247);
    LyrKesLbDfxEntry expected = {};
    expected.ipVer = kIpVer<TypeParam>;
    const LyrKesRpcIpAddr src = Address(TypeParam::Address(4)), dst = Address(to);
    expected.srcIp = src.ipv4Addr;
    expected.dstIp = dst.ipv4Addr;
    std::ranges::copy(src.ipv6Addr, expected.srcIpv6);
    std::ranges::copy(dst.ipv6Addr, expected.dstIpv6);
    expected.srcPort = 40000;
    expected.dstPort = 5247;
    expected.vpnId = 4;
    expected.nodeId = 3;
    EXPECT_TRUE(SameBytes(page.entries[0], expected));
    EXPECT_EQ(Used(page), 1u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
}

TYPED_TEST(TableQuery, ListingHasEveryEntryOnceInBucketOrder) {
    const struct {
        uint32_t links, entries;
    } cases[] = {{8999, 256}, {8999, 257}, {8999, 3000}, {10, 255},
                 {10, 1000},  {100, 3000}, {0, 255},     {0, 256}};
    for (const auto &[links, entries] : cases) {
        SCOPED_TRACE(testing::Message() << entries << " entries, " << links << " links");
        this->Restart(links);
        this->Add(1, entries);
        EXPECT_EQ(Count<TypeParam>(), entries);
        const Contents walked = ContentsOf<TypeParam>();
        EXPECT_TRUE(
            std::ranges::equal(ListAll<TypeParam>(), walked, {}, {}, &Contents::value_type::first))
            << "in bucket order, the newest first";
    }
}

TYPED_TEST(TableQuery, AFullPageNamesTheBucketAfterIt) {
    this->Restart(10);
    this->Add(1, 1000);
    const LyrKesLbDfxRsp page = Page<TypeParam>(0);
    uint32_t examined = 0, seen = 0;
    while (seen + Length(TypeParam::kBuckets[examined]) <= LYR_KES_LB_PAGE_NUM) {
        seen += Length(TypeParam::kBuckets[examined++]);
    }
    EXPECT_EQ(Used(page), seen);
    EXPECT_EQ(page.nextIndex, examined + 1);
    for (size_t i = seen; i < LYR_KES_LB_PAGE_NUM; ++i) {
        EXPECT_EQ(page.entries[i].srcPort, 0) << "nothing is left of the bucket that did not fit";
    }
    const auto cap = static_cast<uint16_t>(TypeParam::kCap);
    for (const uint16_t beyond : {cap, uint16_t(cap + 1), uint16_t{65535}}) {
        const LyrKesLbDfxRsp empty = Page<TypeParam>(beyond);
        EXPECT_EQ(Used(empty), 0u);
        EXPECT_EQ(empty.nextIndex, LYR_KES_LB_END);
    }
}

TYPED_TEST(TableQuery, BucketThatFitsIntoNoPageFillsItAndIsLogged) {
    this->Restart(0);
    this->Add(1, 300);
    this->TraceOn();
    struct {
        LyrKesLbDfxRsp reply;
        uint8_t behind[64];
    } room;
    std::memset(&room, 0xAA, sizeof(room));
    std::memset(&room.reply, 0, sizeof(room.reply));
    const LyrKesLbDfxReq request = {kIpVer<TypeParam>, 0, kPort, LYR_KES_LB_LIST, {}};
    EXPECT_EQ(LyrHost_Kes_LbEntryInfo(&request, &room.reply), 0u);
    EXPECT_THAT(room.behind, Each(0xAA));
    EXPECT_EQ(Used(room.reply), 256u);
    EXPECT_EQ(room.reply.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(this->TakeReports(),
                ElementsAre(Text("LyrHost_Kes_Get%sLbEntryInfo bucket 0 has more than 256 entries "
                                 "with port 5246.",
                                 kIpVer<TypeParam> == 0 ? "Ipv4" : "Ipv6")));
    EXPECT_EQ(Count<TypeParam>(), 300u);
}

// With one entry before it and buckets behind it: the page before ends in front of it, its own page
// is full of its newest, and the listing goes on behind it.
TYPED_TEST(TableQuery, ListingGoesOnBehindACrowdedBucket) {
    constexpr uint32_t kCrowded = 5, kLast = 10;
    this->Restart(10);
    this->Add(1, 800);
    LyrKesDistBucket *buckets = TypeParam::kBuckets;
    ASSERT_GT(TypeParam::kCap, kLast + 1);
    for (uint32_t b = kCrowded - 1; b <= kLast; ++b) {  // its neighbours' entries move in
        while (b != kCrowded && Length(buckets[b]) > (b < kCrowded ? 1 : 0)) {
            LyrKesDistBucket *entry = buckets[b].next;
            entry->prev->next = entry->next;
            entry->next->prev = entry->prev;
            *entry = {buckets[kCrowded].prev, &buckets[kCrowded]};
            entry->prev->next = entry;
            entry->next->prev = entry;
        }
    }
    const size_t rest = Length(buckets[kCrowded]);
    ASSERT_GT(rest, 257u);
    const LyrKesLbDfxRsp before = Page<TypeParam>(kCrowded - 1);
    EXPECT_EQ(Used(before), 1u);
    EXPECT_EQ(before.nextIndex, kCrowded + 1);
    const LyrKesLbDfxRsp crowded = Page<TypeParam>(kCrowded);
    EXPECT_EQ(Used(crowded), 256u);
    EXPECT_EQ(crowded.nextIndex, kCrowded + 2);
    EXPECT_EQ(ListAll<TypeParam>().size(), 800 - (rest - 256));
}

TYPED_TEST(TableQuery, ListingEndsWhereTheIndexNamesNoBucket) {
    this->Restart(60000);
    ASSERT_GT(TypeParam::kCap, 70000u);
    this->Add(1, 3000);
    this->TraceOn();
    const LyrKesLbDfxRsp page = Page<TypeParam>(64000);
    EXPECT_EQ(Used(page), 256u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(this->TakeReports(),
                ElementsAre(::testing::MatchesRegex(
                    ".*LbEntryInfo cannot name bucket [0-9]+, the table is not listed further.")));
}

TYPED_TEST(TableQuery, BrokenChainOrMissingTableEndsAQuery) {
    this->Add(1, 20);
    LyrKesDistBucket *bucket = TypeParam::kBuckets;
    while (bucket->next == bucket) {
        ++bucket;
    }
    LyrKesDistBucket *const next = std::exchange(bucket->next->next, nullptr);
    EXPECT_EQ(Count<TypeParam>(), 1u);
    const LyrKesLbDfxRsp page = Page<TypeParam>(0);
    EXPECT_EQ(Used(page), 1u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(this->TakeLines(LineKind::kAssertion),
                ElementsAre(StartsWith("src/host/lyr_kes/lb/lyr_kes_dist:"),
                            StartsWith("src/host/lyr_kes/lb/lyr_kes_dist:")));
    bucket->next->next = next;
    EXPECT_EQ(Count<TypeParam>(), 20u) << "the lock was given up";

    LyrKesDistBucket *const table = std::exchange(TypeParam::kBuckets, nullptr);
    this->TraceOn();
    EXPECT_EQ(Count<TypeParam>(), 0u);
    EXPECT_EQ(Page<TypeParam>(0).nextIndex, LYR_KES_LB_END);
    TypeParam::kBuckets = table;
    const char *family = kIpVer<TypeParam> == 0 ? "Ipv4" : "Ipv6";
    const Texts lines = this->TakeReports();
    EXPECT_THAT(lines,
                Contains(Text("LyrHost_Kes_Get%sLbEntryNum failed to get lb hash table.", family)));
    EXPECT_THAT(
        lines, Contains(Text("LyrHost_Kes_Get%sLbEntryInfo failed to get lb hash table.", family)));
}

class LoadBalanceDfx : public HostTest {};

TEST_F(LoadBalanceDfx, Ipv4CountDumpsTheSourcesAndAnUnknownQueryIsRefused) {
    DeclareController();
    TraceOn();
    Count<Ipv6Tunnels>();
    EXPECT_THAT(TakeReports(), IsEmpty());
    Count<Ipv4Tunnels>();
    EXPECT_FALSE(TakeReports().empty()) << "the sources are written to the trace";
    const auto reply =
        Ask<LyrKesLbDfxRsp>(MUND_OP_LoadBalanceDfx, LyrKesLbDfxReq{0, 0, kPort, 2, {}}, 1);
    EXPECT_TRUE(SameBytes(reply, LyrKesLbDfxRsp{}));
}

}  // namespace
