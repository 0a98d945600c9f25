#include "packet/cwp_source.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "dfx/debug_trace.h"
#include "dist_tables.h"
#include "packet/cwp_source_match.h"

namespace {

using namespace host_test;
using namespace std::chrono_literals;

// A record of the table.
struct Record {
    uint32_t position;
    uint32_t type, ifIndex;
    const char *words;  // "version, word 0|the four words", in hexadecimal
};

Texts Dump(const std::vector<Record> &records) {
    Texts lines = {"[LYR-HOST][Begin]query host capwap src info"};
    for (const Record &record : records) {
        lines.push_back(
            Text("[LYR-HOST][Query]capwap src index %u, srcType %u, ifIndex %u, ipVer %s",
                 record.position, record.type, record.ifIndex, record.words));
    }
    lines.push_back(Text("[LYR-HOST][End]capwap src info total records %zu", records.size()));
    return lines;
}

constexpr CwpSrcRcd kFree = {.srcType = CWP_SRC_FREE, .ifIndex = 0, .address = {}};

class CwpSource : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        TraceOn(LYR_TRACE_PACKET);
    }
    Texts Dumped() {
        ForgetLines();
        LyrKes_QueryCwpSrc();
        return TakeReports();
    }
};

LyrKesCwpSrcEntry Entry(uint32_t type, const char *ip, uint32_t ifIndex) {
    return SourceRequest(kAdd, type, ip, ifIndex).source;
}

constexpr const char *kOnes = "4, ip 0x1010101|1010101:0:0:0";
constexpr const char *kTwos = "4, ip 0x2020202|2020202:0:0:0";
constexpr const char *kThrees = "4, ip 0x3030303|3030303:0:0:0";
constexpr const char *kSix = "6, ip 0x20010db8|20010db8:0:0:1";

constexpr const char *kNotFound = ", not found.";

struct Step {
    uint32_t operation, type;
    const char *ip;
    uint32_t ifIndex;
    const char *verb;
    const char *end = ".";  // of its line
};

std::string LineOf(const Step &step) {
    HostIpAddr address = {};
    const LyrKesRpcIpAddr given = Address(step.ip);
    LyrKes_FillInHostIpAddr(given.ipVer == 0, given.ipv4Addr, given.ipv6Addr, &address);
    const uint32_t *ip = address.ip;
    return Text("%s Cwp Type %u SrcIpVer %u SrcIp 0x%x SrcIpv6 %x:%x:%x:%x SrcIf %u%s", step.verb,
                step.type, address.ipVer, ip[0], ip[0], ip[1], ip[2], ip[3], step.ifIndex,
                step.end);
}

TEST_F(CwpSource, SourceIsKnownByWhatItsTypeSays) {
    const struct {
        const char *name;
        std::vector<Step> steps;
        std::vector<Record> records;
    } scenarios[] = {
        {"an interface source is known by its interface",
         {{kAdd, 2, "1.1.1.1", 10, "Add"},
          {kAdd, 2, "2.2.2.2", 10, "Refresh"},
          {kAdd, 2, "2.2.2.2", 11, "Add"},
          {kAdd, 3, "3.3.3.3", 10, "Add"},
          {kDelete, 2, "9.9.9.9", 11, "Del", ""}},
         {{0, 2, 10, kTwos}, {2, 3, 10, kThrees}}},
        {"and by its IP version",
         {{kAdd, 3, "1.1.1.1", 10, "Add"},
          {kAdd, 3, "2001:db8::1", 10, "Add"},
          {kDelete, 3, "::", 10, "Del", ""}},
         {{0, 3, 10, kOnes}}},
        {"an address source is known by its address",
         {{kAdd, 1, "1.1.1.1", 10, "Add"},
          {kAdd, 1, "1.1.1.1", 20, "Refresh"},
          {kAdd, 4, "1.1.1.1", 10, "Add"},
          {kAdd, 4, "2001:db8::1", 10, "Add"},
          {kDelete, 4, "1.1.1.2", 10, "Del", kNotFound},
          {kDelete, 4, "2001:db8::2", 10, "Del", kNotFound},
          {kDelete, 4, "1.1.1.1", 99, "Del", ""}},
         {{0, 1, 20, kOnes}, {2, 4, 10, kSix}}},
        {"types without a key are never found",
         {{kAdd, 0, "1.1.1.1", 1, "Add"},
          {kAdd, 0, "1.1.1.1", 1, "Add"},
          {kAdd, 6, "1.1.1.1", 1, "Add"},
          {kDelete, 0, "1.1.1.1", 1, "Del", kNotFound},
          {kDelete, 6, "1.1.1.1", 1, "Del", kNotFound},
          {kDelete, 5, "0.0.0.0", 0, "Del", kNotFound}},
         {{0, 0, 1, kOnes}, {1, 0, 1, kOnes}, {2, 6, 1, kOnes}}},
    };
    for (const auto &[name, steps, records] : scenarios) {
        SCOPED_TRACE(name);
        LyrKes_InitCwpSrcInfo();
        for (const Step &step : steps) {
            ForgetLines();
            const auto request = SourceRequest(step.operation, step.type, step.ip, step.ifIndex);
            EXPECT_EQ(Call(MUND_OP_CwpSrc, request), 0u);
            EXPECT_THAT(TakeReports(), ElementsAre(LineOf(step)));
        }
        EXPECT_EQ(Dumped(), Dump(records));
    }
}

TEST_F(CwpSource, FillsFromTheFirstFreePosition) {
    auto add = [](uint32_t last) {
        return Call(MUND_OP_CwpSrc, SourceRequest(kAdd, 1, "10.0.0." + std::to_string(last), last));
    };
    for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(add(i), 0u);
        EXPECT_EQ(g_LyrHostCwpSrcRcd[i].ifIndex, i);
    }
    CwpSrcRcd full[8];
    std::memcpy(full, g_LyrHostCwpSrcRcd, sizeof(full));
    ForgetLines();
    EXPECT_EQ(add(8), 1u);
    EXPECT_THAT(TakeReports(), ElementsAre("Add Cwp Type 1 SrcIpVer 4 SrcIp 0xa000008 SrcIpv6 "
                                           "a000008:0:0:0 SrcIf 8 fail"));
    EXPECT_TRUE(SameBytes(full, g_LyrHostCwpSrcRcd));

    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kDelete, 1, "10.0.0.2", 7)), 0u);
    EXPECT_TRUE(SameBytes(kFree, g_LyrHostCwpSrcRcd[2])) << "zeroed but for type";
    EXPECT_EQ(add(9), 0u);
    EXPECT_EQ(g_LyrHostCwpSrcRcd[2].ifIndex, 9u);
}

TEST_F(CwpSource, ReconciliationStatesTheWholeTable) {
    LyrKesCwpSrcReconReq request = {};
    for (LyrKesCwpSrcEntry &entry : request.entries) {
        entry = Entry(1, "9.9.9.9", 9);
    }
    ASSERT_EQ(Call(MUND_OP_CwpSrcReconciliation, request), 0u);
    request = {};
    request.entries[0] = Entry(4, "1.1.1.1", 10);
    request.entries[0].srcAddr.ipv6Addr[7] = 1;  // not an IPv6 source
    request.entries[1] = Entry(0, "2.2.2.2", 11);
    request.entries[3] = Entry(3, "2001:db8::1", 12);
    request.entries[3].srcAddr.ipv4Addr = 5;
    request.entries[5] = Entry(7, "3.3.3.3", 13);
    ASSERT_EQ(Call(MUND_OP_CwpSrcReconciliation, request), 0u);
    EXPECT_EQ(Dumped(), Dump({{0, 4, 10, kOnes}, {3, 3, 12, kSix}, {5, 7, 13, kThrees}}));
    for (const size_t i : {1, 2, 4, 6, 7}) {
        EXPECT_TRUE(SameBytes(kFree, g_LyrHostCwpSrcRcd[i])) << "position " << i;
    }

    CwpSrcRcd before[8];
    std::memcpy(before, g_LyrHostCwpSrcRcd, sizeof(before));
    const std::string failure =
        "g_LyrHostCwpSrcRcd memcpy_s failed, err = " + std::to_string(ERANGE);
    standin::FailCall("memcpy_s");
    ForgetLines();
    EXPECT_EQ(Call(MUND_OP_CwpSrcReconciliation, LyrKesCwpSrcReconReq{}), 1u);
    EXPECT_THAT(TakeReports(), ElementsAre(failure));
    const CwpSrcRcd image[9] = {};
    EXPECT_EQ(LyrKes_SetCwpSrcInfo(image, 225), 1u);
    EXPECT_THAT(TakeReports(), ElementsAre(failure));
    EXPECT_TRUE(SameBytes(before, g_LyrHostCwpSrcRcd));

    EXPECT_EQ(LyrKes_SetCwpSrcInfo(image, 4 * sizeof(CwpSrcRcd)), 0u);
    EXPECT_EQ(g_LyrHostCwpSrcRcd[3].srcType, 0u);
    EXPECT_EQ(g_LyrHostCwpSrcRcd[4].srcType, CWP_SRC_FREE) << "beyond the length";
}

TEST_F(CwpSource, StartFreesAndStopZeroes) {
    EXPECT_EQ(Dumped(), Dump({}));
    ASSERT_EQ(Call(MUND_OP_CwpSrc, SourceRequest(kAdd, 1, "1.1.1.1", 1)), 0u);
    StopModule();
    const CwpSrcRcd zeros[8] = {};
    EXPECT_TRUE(SameBytes(zeros, g_LyrHostCwpSrcRcd));
    ASSERT_EQ(LyrKes_Init(), 0u);
    EXPECT_EQ(Dumped(), Dump({}));
    TraceOn(LYR_TRACE_FAILURE);
    EXPECT_THAT(Dumped(), IsEmpty()) << "the dump is of level 2";
}

// Two configurations replace each other. Whoever met a mixture of them would refuse the first
// packet, which both admit, or admit one of the others, which neither does.
TEST_F(CwpSource, ReadersNeverSeeAMixture) {
    TraceOff();
    LyrKesCwpSrcReconReq one = {}, other = {};
    one.entries[7] = Entry(1, "10.0.0.1", 1);
    other.entries[1] = Entry(1, "10.0.0.1", 1);
    one.entries[0] = Entry(1, "2001:db8:1:1:1:1:1:1", 1);
    other.entries[0] = Entry(1, "2001:db8:2:2:2:2:2:2", 1);
    one.entries[3] = Entry(5, "0.0.0.0", 9);  // of a free record, the interface does not count
    other.entries[3] = Entry(1, "0.0.0.0", 8);
    one.entries[4] = Entry(1, "10.0.0.7", 1);
    other.entries[4] = Entry(1, "a00:8::", 1);
    ASSERT_EQ(Call(MUND_OP_CwpSrcReconciliation, one), 0u);

    std::atomic<bool> stopping{false};
    auto replace = [&](const LyrKesCwpSrcReconReq &first, const LyrKesCwpSrcReconReq &second) {
        while (!stopping) {
            LyrHost_Kes_CwpSrcReconciliation(&first, nullptr);
            LyrHost_Kes_CwpSrcReconciliation(&second, nullptr);
            // Readers look again until nothing is written meanwhile: writing without end keeps
            // them out without end.
            std::this_thread::sleep_for(20us);
        }
    };
    std::thread firstWriter(replace, other, one), secondWriter(replace, one, other);

    const struct {
        const char *src, *dst;
        uint32_t port;
        bool admitted;
    } cases[] = {
        {"192.0.2.1", "10.0.0.1", 1, true},
        {"2001:db8::9", "2001:db8:1:1:2:2:2:2", 1, false},
        {"2001:db8::9", "2001:db8:2:2:1:1:1:1", 1, false},
        {"192.0.2.1", "255.255.255.255", 9, false},
        {"192.0.2.1", "10.0.0.8", 1, false},
    };
    std::vector<Packet> packets;
    for (const auto &row : cases) {
        packets.push_back(MakePacket(UdpFrame(row.src, 5246, row.dst, 5246, capwap::Bytes(20)),
                                     {.rxPort = row.port}));
    }
    std::array<int, std::size(cases)> wrong = {};
    const auto end = std::chrono::steady_clock::now() + 500ms;
    while (std::chrono::steady_clock::now() < end) {
        for (size_t i = 0; i < std::size(cases); ++i) {
            wrong[i] += LyrHost_IsPktMatchCwpSrc(packets[i].get()) != cases[i].admitted ? 1 : 0;
        }
    }
    stopping = true;
    firstWriter.join();
    secondWriter.join();
    EXPECT_THAT(wrong, Each(0));
    const bool isOne = g_LyrHostCwpSrcRcd[7].srcType == CWP_SRC_ADDRESS;
    EXPECT_EQ(g_LyrHostCwpSrcRcd[1].srcType, isOne ? CWP_SRC_FREE : CWP_SRC_ADDRESS);
    EXPECT_EQ(g_LyrHostCwpSrcRcd[0].address.ip[3], isOne ? 0x10001u : 0x20002u);
}

}  // namespace
