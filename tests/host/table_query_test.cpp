// Tunnels counted and listed by port.
#include "lb/table_query.h"

#include <gmock/gmock.h>

#include <cstring>
#include <set>

#include "channel/service_channel.h"
#include "dfx/debug_trace.h"
#include "dist_tables.h"

namespace {

using namespace host_test;
using standin::LineKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint16_t kPort = 5246;

template <class Table>
constexpr uint32_t kIpVer = std::is_same_v<Table, Ipv4Tunnels> ? 0 : 1;

uint32_t Query(const LyrKesLbDfxReq &request, LyrKesLbDfxRsp *reply) {
    std::vector<uint8_t> bytes;
    const uint32_t result = Call(MUND_OP_LoadBalanceDfx, request, &bytes);
    EXPECT_EQ(bytes.size(), sizeof(*reply));
    std::memcpy(reply, bytes.data(), std::min(bytes.size(), sizeof(*reply)));
    return result;
}

template <class Table>
uint32_t Count(uint16_t port = kPort) {
    LyrKesLbDfxRsp reply;
    EXPECT_EQ(Query({kIpVer<Table>, 0, port, LYR_KES_LB_COUNT, {}}, &reply), 0u);
    EXPECT_EQ(reply.nextIndex, 0);
    return reply.entryNum;
}

template <class Table>
LyrKesLbDfxRsp Page(uint16_t index, uint16_t port = kPort) {
    LyrKesLbDfxRsp reply;
    EXPECT_EQ(Query({kIpVer<Table>, index, port, LYR_KES_LB_LIST, {}}, &reply), 0u);
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
std::vector<uint32_t> ListAll(size_t *pages = nullptr) {
    std::vector<uint32_t> numbers;
    for (uint32_t index = 0;;) {
        const LyrKesLbDfxRsp page = Page<Table>(static_cast<uint16_t>(index));
        for (size_t i = 0; i < Used(page); ++i) {
            const LyrKesLbDfxEntry &entry = page.entries[i];
            numbers.push_back(kIpVer<Table> == 0 ? entry.srcIp & 0xFFFF
                                                 : entry.srcIpv6[6] * 256u + entry.srcIpv6[7]);
        }
        if (pages != nullptr) {
            ++*pages;
        }
        if (page.nextIndex == LYR_KES_LB_END) {
            return numbers;
        }
        EXPECT_GT(page.nextIndex - 1u, index);
        index = page.nextIndex - 1u;
    }
}

template <class Table>
class TableQuery : public HostTest {
  protected:
    void Restart(uint32_t links) {
        standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", links);
        standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", 0);
        host_test::Restart();
    }
    static void Add(uint32_t first, uint32_t last) {
        for (uint32_t n = first; n <= last; ++n) {
            ASSERT_EQ(Change<Table>(kAdd, n, 3), 0u);
        }
    }
    const Instance instance_{3, LYR_PKT_TYPE_CAPWAP};
};

using Tables = ::testing::Types<Ipv4Tunnels, Ipv6Tunnels>;
TYPED_TEST_SUITE(TableQuery, Tables, TableNames);

TYPED_TEST(TableQuery, ByEitherPort) {
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
    EXPECT_EQ(std::memcmp(&page.entries[0], &expected, sizeof(expected)), 0);
    EXPECT_EQ(Used(page), 1u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
}

TYPED_TEST(TableQuery, EveryEntryOnce) {
    const struct {
        uint32_t links, entries;
    } cases[] = {{8999, 256}, {8999, 257}, {8999, 3000}, {10, 255},
                 {10, 1000},  {100, 3000}, {0, 255},     {0, 256}};
    for (const auto &[links, entries] : cases) {
        SCOPED_TRACE(testing::Message() << entries << " entries, " << links << " links");
        this->Restart(links);
        this->Add(1, entries);
        EXPECT_EQ(Count<TypeParam>(), entries);
        size_t pages = 0;
        const std::vector<uint32_t> numbers = ListAll<TypeParam>(&pages);
        EXPECT_EQ(numbers.size(), entries);
        EXPECT_EQ(std::set<uint32_t>(numbers.begin(), numbers.end()).size(), entries);
        Contents walked = ContentsOf<TypeParam>();
        EXPECT_TRUE(std::ranges::equal(numbers, walked, {}, {}, &Contents::value_type::first))
            << "in bucket order, the newest first";
        EXPECT_GE(pages, (entries + 255) / 256);
    }
}

TYPED_TEST(TableQuery, AFullPageNamesTheBucketAfterIt) {
    this->Restart(10);
    this->Add(1, 1000);
    const LyrKesLbDfxRsp page = Page<TypeParam>(0);
    uint32_t examined = 0, seen = 0;
    for (; examined < TypeParam::kCap; ++examined) {
        uint32_t inBucket = 0;
        const LyrKesDistBucket *head = &TypeParam::kBuckets[examined];
        for (const LyrKesDistBucket *link = head->next; link != head; link = link->next) {
            ++inBucket;
        }
        if (seen + inBucket > LYR_KES_LB_PAGE_NUM) {
            break;
        }
        seen += inBucket;
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

TYPED_TEST(TableQuery, ABucketThatFitsIntoNoPage) {
    this->Restart(0);
    this->Add(1, 300);
    this->TraceOn();
    this->ForgetLines();
    struct {
        LyrKesLbDfxRsp reply;
        uint8_t behind[64];
    } room;
    std::memset(&room, 0xAA, sizeof(room));
    std::memset(&room.reply, 0, sizeof(room.reply));
    const LyrKesLbDfxReq request = {kIpVer<TypeParam>, 0, kPort, LYR_KES_LB_LIST, {}};
    EXPECT_EQ(LyrHost_Kes_LbEntryInfo(&request, &room.reply), 0u);
    EXPECT_THAT(room.behind, ::testing::Each(0xAA));
    EXPECT_EQ(Used(room.reply), 256u);
    EXPECT_EQ(room.reply.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(this->TakeLines(LineKind::kReport),
                ElementsAre(Text("LyrHost_Kes_Get%sLbEntryInfo bucket 0 has more than 256 entries "
                                 "with port 5246.",
                                 kIpVer<TypeParam> == 0 ? "Ipv4" : "Ipv6")));
    EXPECT_EQ(Count<TypeParam>(), 300u);
}

// With buckets before and behind it: the page before ends in front of it, its own page is full of
// its newest, and the listing goes on behind it.
TYPED_TEST(TableQuery, ACrowdedBucketAmongOthers) {
    constexpr uint32_t kCrowded = 5, kLast = 10;
    this->Restart(10);
    this->Add(1, 800);
    LyrKesDistBucket *buckets = TypeParam::kBuckets;
    ASSERT_GT(TypeParam::kCap, kLast + 1);
    size_t rest = 0;
    for (uint32_t b = kCrowded + 1; b <= kLast; ++b) {  // its neighbours' entries move in
        while (buckets[b].next != &buckets[b]) {
            LyrKesDistBucket *entry = buckets[b].next;
            entry->prev->next = entry->next;
            entry->next->prev = entry->prev;
            *entry = {buckets[kCrowded].prev, &buckets[kCrowded]};
            entry->prev->next = entry;
            entry->next->prev = entry;
        }
    }
    for (const LyrKesDistBucket *link = buckets[kCrowded].next; link != &buckets[kCrowded];
         link = link->next) {
        ++rest;
    }
    ASSERT_GT(rest, 257u);
    const LyrKesLbDfxRsp before = Page<TypeParam>(kCrowded - 1);
    EXPECT_LT(Used(before), 256u);
    EXPECT_EQ(before.nextIndex, kCrowded + 1);
    const LyrKesLbDfxRsp crowded = Page<TypeParam>(kCrowded);
    EXPECT_EQ(Used(crowded), 256u);
    EXPECT_EQ(crowded.nextIndex, kCrowded + 2);
    const std::vector<uint32_t> numbers = ListAll<TypeParam>();
    EXPECT_EQ(numbers.size(), 800 - (rest - 256));
    EXPECT_EQ(std::set<uint32_t>(numbers.begin(), numbers.end()).size(), numbers.size());
    EXPECT_EQ(Count<TypeParam>(), 800u);
}

TYPED_TEST(TableQuery, BucketsBeyondTheIndex) {
    this->Restart(60000);
    ASSERT_GT(TypeParam::kCap, 70000u);
    this->Add(1, 3000);
    this->TraceOn();
    this->ForgetLines();
    const LyrKesLbDfxRsp page = Page<TypeParam>(64000);
    EXPECT_EQ(Used(page), 256u);
    EXPECT_EQ(page.nextIndex, LYR_KES_LB_END);
    EXPECT_THAT(this->TakeLines(LineKind::kReport),
                ElementsAre(::testing::MatchesRegex(
                    ".*LbEntryInfo cannot name bucket [0-9]+, the table is not listed further.")));
}

TYPED_TEST(TableQuery, ABrokenChainAndNoTable) {
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
    this->ForgetLines();
    EXPECT_EQ(Count<TypeParam>(), 0u);
    EXPECT_EQ(Page<TypeParam>(0).nextIndex, LYR_KES_LB_END);
    TypeParam::kBuckets = table;
    const char *family = kIpVer<TypeParam> == 0 ? "Ipv4" : "Ipv6";
    const std::vector<std::string> lines = this->TakeLines(LineKind::kReport);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(),
              Text("LyrHost_Kes_Get%sLbEntryNum failed to get lb hash table.", family));
    EXPECT_EQ(lines.back(),
              Text("LyrHost_Kes_Get%sLbEntryInfo failed to get lb hash table.", family));
}

class LoadBalanceDfx : public HostTest {};

TEST_F(LoadBalanceDfx, AnswersAndRefusals) {
    DeclareController();
    TraceOn();
    ForgetLines();
    Count<Ipv6Tunnels>();
    EXPECT_THAT(TakeLines(LineKind::kReport), IsEmpty());
    Count<Ipv4Tunnels>();
    EXPECT_THAT(TakeLines(LineKind::kReport), ::testing::Not(IsEmpty()))
        << "the sources are written to the trace";
    LyrKesLbDfxRsp reply;
    EXPECT_EQ(Query({0, 0, kPort, 2, {}}, &reply), 1u);
    EXPECT_THAT(std::span(reinterpret_cast<const uint8_t *>(&reply), sizeof(reply)),
                ::testing::Each(0));

    const LyrKesLbDfxReq request = {};
    void *slot = nullptr;
    EXPECT_EQ(LyrHost_Kes_LoadBalanceDfx(nullptr, &slot), 2u);
    EXPECT_EQ(LyrHost_Kes_LoadBalanceDfx(&request, nullptr), 2u);
    standin::FailCall("RPC_IdlMsgCreate");
    EXPECT_EQ(LyrHost_Kes_LoadBalanceDfx(&request, &slot), 1u);
    EXPECT_EQ(slot, nullptr);
    const char *null = "LyrHost_Kes_LoadBalanceDfx inMsg or outMsg is NULL, proc fail.";
    EXPECT_THAT(TakeLines(LineKind::kReport),
                ElementsAre(null, null, "LyrHost_Kes_LoadBalanceDfx rpc msg new fail."));
}

// The same of the operations that read statistics.
TEST_F(LoadBalanceDfx, StatisticsWithoutMessages) {
    const struct {
        uint32_t (*operation)(const void *, void **);
        const char *null, *noReply;
    } cases[] = {
        {LyrHost_Kes_CwpPingStat, "LyrHost_Kes_CwpPingStat inMsg or outMsg is NULL, proc fail.",
         "LyrHost_Kes_CwpPingStat rpc msg new fail."},
        {LyrHost_Kes_CwpMsgTypeStat,
         "LyrHost_Kes_CwpMsgTypeStat inMsg or outMsg is NULL, proc fail.",
         "LyrHost_Kes_CwpMsgTypeStat rpc msg new fail."},
        {LyrHost_Kes_CwpTraceRecord, "LyrHost_Kes_CwpTraceRecord rpc inMsg or outMsg is NULL",
         "LyrHost_Kes_CwpTraceRecord rpc msg new fail."},
    };
    TraceOn();
    ForgetLines();
    for (const auto &[operation, null, noReply] : cases) {
        const uint8_t request[64] = {};
        void *slot = nullptr;
        EXPECT_EQ(operation(nullptr, &slot), 1u);
        EXPECT_EQ(operation(request, nullptr), 1u);
        standin::FailCall("RPC_IdlMsgCreate");
        EXPECT_EQ(operation(request, &slot), 1u);
        EXPECT_EQ(slot, nullptr);
        EXPECT_THAT(TakeLines(LineKind::kReport), ElementsAre(null, null, noReply));
    }
}

}  // namespace
