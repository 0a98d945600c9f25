#include "lb/dist_table.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "dist_tables.h"
#include "lb/dist_hash.h"
#include "lb/dist_lifecycle.h"
#include "lb/dist_locker.h"
#include "module/registration.h"

namespace {

using namespace host_test;
using namespace std::chrono_literals;

const auto kDistAssertion =
    AllOf(StartsWith("src/host/lyr_kes/lb/lyr_kes_dist:"), EndsWith(" code 0"));

// --- hashes and keys ---

uint32_t BitwiseCrc(std::span<const uint8_t> bytes) {
    uint32_t crc = 0;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0x82F63B78 : 0);
        }
    }
    return crc;
}

template <class Key>
Key DefaultKey() {
    Key key;
    std::memset(&key, 0xFF, sizeof(key));
    key.dstPort = 5246;
    key.vpnId = 65535;
    return key;
}

TEST(DistHash, IsTheCrcOfEveryLengthAtEveryAlignment) {
    EXPECT_EQ(LyrKes_Hash("123456789", 9), 0x58E3FA20u);
    std::array<uint8_t, 64> bytes = {};
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 151 + 7);
    }
    for (uint32_t start = 0; start < 8; ++start) {
        for (uint32_t length = 0; length <= 48; ++length) {
            EXPECT_EQ(LyrKes_Hash(&bytes[start], length), BitwiseCrc({&bytes[start], length}))
                << length << " bytes from " << start;
        }
    }
}

TEST(DistHash, Djb) {
    const std::pair<std::vector<uint8_t>, uint32_t> cases[] = {
        {{}, 5381},
        {{0}, 177573},
        {{0, 0, 0, 0, 0, 0}, 132056261},
        {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 153496644},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 1833507039},
        {{0x34, 0, 0, 0, 0, 1}, 19613050},  // the top bit goes
    };
    for (const auto &[bytes, hash] : cases) {
        EXPECT_EQ(LyrKes_DjbHashCal(bytes.data(), static_cast<uint32_t>(bytes.size())), hash);
    }
}

template <class Table>
class DistTable : public HostTest {
  protected:
    // Calls an operation that is to meet a broken chain.
    void ExpectBroken(const char *what, uint32_t expected, const std::function<uint32_t()> &run) {
        ForgetLines();
        EXPECT_EQ(run(), expected) << what;
        EXPECT_THAT(TakeLines(LineKind::kAssertion), ElementsAre(kDistAssertion)) << what;
        EXPECT_EQ(Table::kLocker, 0u) << what << " keeps the lock";
    }
};
TYPED_TEST_SUITE(DistTable, AllTables, TableNames);

TYPED_TEST(DistTable, KeysCompareAsBytes) {
    using Key = typename TypeParam::Key;
    for (size_t i = 0; i < sizeof(Key); ++i) {
        Key low = {}, high = {};
        reinterpret_cast<uint8_t *>(&high)[i] = 0x80;
        if (i + 1 < sizeof(Key)) {
            reinterpret_cast<uint8_t *>(&low)[i + 1] = 0xFF;
        }
        EXPECT_EQ(TypeParam::kKeyCmp(&low, &high), -1) << "byte " << i;
        EXPECT_EQ(TypeParam::kKeyCmp(&high, &low), 1) << "byte " << i;
        EXPECT_EQ(TypeParam::kKeyCmp(&high, &high), 0) << "byte " << i;
    }
    const Key key = {};
    EXPECT_EQ(TypeParam::kKeyCmp(nullptr, &key), -1);
    EXPECT_EQ(TypeParam::kKeyCmp(&key, nullptr), -1);
    EXPECT_EQ(TypeParam::kKeyCmp(nullptr, nullptr), -1);
}

// --- chains ---

TYPED_TEST(DistTable, BrokenChainEndsEveryWalk) {
    using Table = TypeParam;
    RestartWithOneBucket();
    DeclareController();
    for (const uint32_t n : {1, 2, 3}) {
        ASSERT_EQ(Change<Table>(kAdd, n, n), 0u);
    }
    const auto entries = EntriesOf<Table>();  // 3, 2, 1
    const auto memory = standin::ModuleMemory(kModuleId).blocks;
    entries[1]->next = nullptr;

    this->ExpectBroken("refresh", kError, [] { return Change<Table>(kAdd, 1, 5); });
    this->ExpectBroken("add", kError, [] { return Change<Table>(kAdd, 9, 5); });
    this->ExpectBroken("delete", kError, [] { return Change<Table>(kDelete, 1, 1); });
    this->ExpectBroken("delete of none", kError, [] { return Change<Table>(kDelete, 9, 1); });
    this->ExpectBroken("lookup", HOST_LB_KEY_NONE,
                       [] { return OwnerOfPacket<Table>(1, LYR_DIST_NO_TABLE); });

    // What stands before the break is served.
    EXPECT_EQ(OwnerOfPacket<Table>(3), 3u);
    EXPECT_EQ(Change<Table>(kAdd, 3, 7), 0u);
    EXPECT_THAT(this->Lines(LineKind::kAssertion), IsEmpty());

    entries[1]->next = entries[2];
    LyrKesDistBucket *const prev = std::exchange(entries[0]->prev, nullptr);
    this->ExpectBroken("unlink", kError, [] { return Change<Table>(kDelete, 3, 7); });
    entries[0]->prev = prev;
    EXPECT_EQ(ContentsOf<Table>(), (Contents{{3, 7}, {2, 2}, {1, 1}}));
    EXPECT_EQ(standin::ModuleMemory(kModuleId).blocks, memory);
}

// In one bucket, so that only the comparison tells keys apart.
using DistKeys = HostTest;

TEST_F(DistKeys, EveryFieldTellsTunnelsApart) {
    RestartWithOneBucket();
    for (const char *src : {"192.0.2.1", "2001:db8::1"}) {
        const LyrKesCwpTunnelReq request = TunnelRequest(kAdd, src, 5246, src, 5246, 1, 7);
        for (LyrKesCwpTunnelReq different : Variations(request)) {
            different.dstAddr.ipVer = 3;  // not read
            different.srcAddr.ipVer *= 2;
            ASSERT_EQ(Call(MUND_OP_CwpTunnel, different), 0u);
        }
        ASSERT_EQ(Call(MUND_OP_CwpTunnel, request), 0u);
    }
    LyrKesKaTunnelReq session = {kAdd, {1, 2, 3, 4}, 1};
    for (uint32_t &word : session.sessionId) {
        ASSERT_EQ(Call(MUND_OP_KaTunnel, session), 0u);
        word ^= 0x01000000;
    }
    EXPECT_THAT(EntriesOf<Ipv4Tunnels>(), SizeIs(5 + 2)) << "IPv6 addresses do not count";
    EXPECT_THAT(EntriesOf<Ipv6Tunnels>(), SizeIs(5 + 2 * 8)) << "IPv4 addresses do not count";
    EXPECT_THAT(EntriesOf<KaSessions>(), SizeIs(4));
}

// --- sizes and creation ---

using DistTables = EngineTest;

TEST_F(DistTables, BucketCounts) {
    constexpr uint32_t kLargest = (1u << 28) - 1;
    const struct {
        uint32_t links, dataLinks;
        uint32_t tunnelBuckets, sessionBuckets;
    } cases[] = {
        {8999, 8999, 23397, 11699},
        {0, 0, 1, 1},
        {1, 1, 3, 1},
        {4, 2, 7, 3},
        {100, 50, 195, 65},
        {200000000, 0, 260000001, 1},
        {250000000, 0, kLargest, 1},                   // the array overflows
        {400000000, 10, kLargest, 13},                 // the product overflows
        {0xFFFFFFF0, 0x20, kLargest, 41},              // the sum overflows
        {0xFFFFFFFF, 0xFFFFFFFF, kLargest, kLargest},  // everything does
    };
    for (const auto &[links, dataLinks, tunnelBuckets, sessionBuckets] : cases) {
        SetLinks(links, dataLinks);
        LyrKes_InitHashSize();
        EXPECT_THAT((std::array{g_LyrKes_DistIpv4Cap, g_LyrKes_DistIpv6Cap, g_LyrKes_DistKaCap}),
                    ElementsAre(tunnelBuckets, tunnelBuckets, sessionBuckets))
            << links << ", " << dataLinks;
    }
    standin::ClearCapabilities();
    LyrKes_InitHashSize();
    const auto key4 = DefaultKey<LyrKesDistIpv4Key>();
    const auto key6 = DefaultKey<LyrKesDistIpv6Key>();
    EXPECT_EQ(LyrKes_DistIpv4_GetHashIndex(&key4, sizeof(key4)), 21975u);
    EXPECT_EQ(LyrKes_DistIpv6_GetHashIndex(&key6, sizeof(key6)), 23166u);
}

TEST_F(DistTables, Creation) {
    EXPECT_EQ(LyrKes_Dist_HashTblInit(0), nullptr);
    EXPECT_EQ(LyrKes_Dist_HashTblInit(1u << 28), nullptr);
    // A visitor who came before the tables still holds what he took.
    uint32_t *const lockers[] = {&g_LyrKes_DistIpv4RwLocker, &g_LyrKes_DistIpv6RwLocker,
                                 &g_LyrKes_DistKaRwLocker};
    std::ranges::for_each(lockers, LyrKes_DistReadLock);
    EXPECT_EQ(LyrKes_Dist_CreateHashTable(), 0u);
    std::ranges::for_each(lockers, LyrKes_DistReadUnlock);
    ASSERT_THAT(lockers, Each(testing::Pointee(0u)));
    LyrKes_Dist_Deinit();
}

// --- the locker ---

// A thread that takes a locker and gives it up when told.
class Holder {
  public:
    Holder(uint32_t &word, bool writes)
        : Holder([&word, writes] { (writes ? LyrKes_DistWriteLock : LyrKes_DistReadLock)(&word); },
                 [&word, writes] {
                     (writes ? LyrKes_DistWriteUnlock : LyrKes_DistReadUnlock)(&word);
                 }) {}
    Holder(std::function<void()> enter, std::function<void()> leave)
        : thread_([this, enter, leave] {
              enter();
              inside_ = true;
              while (!leaving_) {
                  std::this_thread::sleep_for(100us);
              }
              leave();
          }) {}

    ~Holder() {
        Leave();
    }

    bool Enters() const {
        return Eventually([this] { return inside_.load(); });
    }
    // A thread that does not sleep has had its time: what it does, it has long begun.
    bool IsBusy() {
        clockid_t clock;
        timespec used = {};
        return pthread_getcpuclockid(thread_.native_handle(), &clock) == 0 && Eventually([&] {
                   clock_gettime(clock, &used);
                   return used.tv_sec > 0 || used.tv_nsec > 20'000'000;
               });
    }
    // Long enough for a thread that does not wait.
    bool Waits() const {
        std::this_thread::sleep_for(20ms);
        return !inside_;
    }
    void Leave() {
        leaving_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    static bool Eventually(const std::function<bool()> &condition) {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (!condition() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(100us);
        }
        return condition();
    }

  private:
    std::atomic<bool> inside_{false};
    std::atomic<bool> leaving_{false};
    std::thread thread_;
};

constexpr bool kReads = false, kWrites = true;

bool Becomes(uint32_t &word, uint32_t value) {
    return Holder::Eventually([&] { return std::atomic_ref(word).load() == value; });
}

TEST(DistLocker, WaitingWriterComesBeforeNewReaders) {
    uint32_t word = 0;
    Holder first(word, kReads), second(word, kReads);
    ASSERT_TRUE(first.Enters() && second.Enters()) << "readers share";
    EXPECT_EQ(std::atomic_ref(word).load(), 2u);

    Holder writer(word, kWrites);
    ASSERT_TRUE(Becomes(word, 0x10002));
    Holder late(word, kReads);
    EXPECT_TRUE(writer.Waits() && late.Waits());
    EXPECT_TRUE(Becomes(word, 0x10002)) << "a waiting reader does not count";
    first.Leave();
    EXPECT_TRUE(writer.Waits());
    second.Leave();
    ASSERT_TRUE(writer.Enters());
    EXPECT_TRUE(late.Waits());
    EXPECT_TRUE(Becomes(word, 0x10000));

    writer.Leave();
    ASSERT_TRUE(late.Enters());
    late.Leave();
    EXPECT_EQ(word, 0u);
}

TEST(DistLocker, WritersExcludeEachOther) {
    uint32_t word = 0;
    Holder first(word, kWrites);
    ASSERT_TRUE(first.Enters());
    Holder second(word, kWrites);
    EXPECT_TRUE(second.Waits());
    first.Leave();
    ASSERT_TRUE(second.Enters());
    second.Leave();
    EXPECT_EQ(word, 0u);
    LyrKes_DistWriteUnlock(&word);
    EXPECT_EQ(word, 0u) << "an unlock of a free locker does not wrap it";
}

// --- packets and the locker ---

// The one tunnel of a table of one bucket, whose chain can be made to keep a lookup inside.
class PacketReadSide : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        RestartWithOneBucket();
        DeclareController();
        ASSERT_EQ(Call(MUND_OP_CwpTunnel, Ipv4Tunnels::Request(kAdd, 1, 3)), 0u);
    }

    void LeadChainTo(LyrKesDistBucket *link) {
        std::atomic_ref(Bucket().next->next).store(link);
    }
    static LyrKesDistBucket &Bucket() {
        return g_LyrKes_DistIpv4Tbl[0];
    }

    // Looks an unknown tunnel up, as the engine's own thread or another.
    static Holder LookUp(bool lcore) {
        return {[lcore] {
                    if (lcore) {
                        tov_mod_localctr_mod_kes_lyrhost();
                    }
                    const Packet packet = MakePacket(Ipv4Tunnels::Frame(2));
                    EXPECT_EQ(LyrKes_DistCwp_PktProc(packet.get()), LYR_DIST_OK);
                    tov_mod_localdtr_mod_kes_lyrhost();
                },
                [] {}};
    }

    uint32_t &word_ = g_LyrKes_DistIpv4RwLocker;
};

TEST_F(PacketReadSide, PacketInsideKeepsWritersWaiting) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a chain that changes under its reader is a race";
#endif
    const bool barrier = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0) > 0;
    for (const bool lcore : {true, false}) {
        SCOPED_TRACE(lcore ? "with a mark" : "through the word");
        LeadChainTo(Bucket().next);
        Holder packet = LookUp(lcore);
        ASSERT_TRUE(packet.IsBusy()) << "it goes round the chain";
        EXPECT_TRUE(Becomes(word_, lcore && barrier ? 0 : 1));
        Holder writer(word_, kWrites);
        EXPECT_TRUE(writer.Waits());
        LeadChainTo(&Bucket());
        EXPECT_TRUE(writer.Enters());
        EXPECT_TRUE(packet.Waits()) << "before it looks for the default";
        writer.Leave();
        EXPECT_TRUE(packet.Enters());
    }
}

TEST_F(PacketReadSide, HolderOfTheWriteSideKeepsPacketsOut) {
    for (const bool lcore : {true, false}) {
        SCOPED_TRACE(lcore ? "with a mark" : "through the word");
        Holder writer(word_, kWrites);
        ASSERT_TRUE(writer.Enters());
        Holder packet = LookUp(lcore);
        EXPECT_TRUE(packet.Waits());
        writer.Leave();
        EXPECT_TRUE(packet.Enters());

        std::atomic_ref(word_) += 0x10000;
        Holder next = LookUp(lcore);
        EXPECT_TRUE(next.Waits()) << "the word alone says that there is a writer";
        std::atomic_ref(word_) -= 0x10000;
        EXPECT_TRUE(next.Enters());
    }
}

}  // namespace
