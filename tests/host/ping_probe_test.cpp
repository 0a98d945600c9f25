// The statistics hooks: pings counted, probes traced, pages read.
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <thread>

#include "dfx/debug_trace.h"
#include "dfx/ping_stat.h"
#include "dfx/probe_trace.h"
#include "dfx/stat_hooks.h"
#include "dist_tables.h"
#include "kes/hook.h"
#include "standin/packet_path.h"

// Stands before the engine's own for the module as well.
uint64_t HostHookRegister(uint32_t point, uint32_t priority, HostHookFunc hook, const char *owner) {
    static const auto add =
        reinterpret_cast<decltype(&HostHookRegister)>(dlsym(RTLD_NEXT, "HostHookRegister"));
    EXPECT_EQ(priority, 100u);
    EXPECT_STREQ(owner, "LyrHost");
    return add(point, priority, hook, owner);
}

namespace {

using namespace host_test;
using capwap::Bytes;

constexpr uint32_t kVendor = LYR_KES_VENDOR_PEN * 256;
constexpr uint32_t kProbeRequest = kVendor + 77, kProbeResponse = kVendor + 78;
constexpr uint32_t kPing = kVendor + 117, kPingReply = kVendor + 118;
constexpr uint32_t kPoints[] = {HOST_HOOK_TX_IN, HOST_HOOK_TX_OUT, HOST_HOOK_RX_IN,
                                HOST_HOOK_RX_OUT};
constexpr const char *kPeer = "10.0.10.1", *kPeer6 = "2001:db8::10:1";
const capwap::Mac kApMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// A message of a type with so many bytes behind the CAPWAP header.
Bytes Message(uint32_t type, size_t length, const capwap::Header &header = {}) {
    Bytes message = capwap::EncodeHeader(header);
    const size_t start = message.size();
    message.resize(start + length);
    for (size_t i = 0; i < 4 && i < length; ++i) {
        message[start + i] = static_cast<uint8_t>(type >> (24 - 8 * i));
    }
    return message;
}

// A probe with the access point's MAC address among its elements.
Bytes Probe(uint32_t type, size_t elements = 24) {
    Bytes message = Message(type, 8 + elements);
    for (size_t i = 0; i < kApMac.size() && 28 + i < message.size(); ++i) {
        message[28 + i] = kApMac[i];
    }
    return message;
}

// Between the controller and the peer, as a hook kind sees it.
capwap::FrameSpec Frame(uint32_t kind, Bytes payload, bool ipv6 = false) {
    const char *peer = ipv6 ? kPeer6 : kPeer, *controller = ipv6 ? kController6 : kController;
    return kind < 2 ? UdpFrame(controller, 5246, peer, 40000, std::move(payload))
                    : UdpFrame(peer, 40000, controller, 5246, std::move(payload));
}

class StatHooks : public HostTest {
  protected:
    static LyrKesCwpPingStatRsp Ping(uint32_t msgType, std::string_view peer = "0.0.0.0") {
        return Ask<LyrKesCwpPingStatRsp>(MUND_OP_CwpPingStat,
                                         LyrKesCwpPingStatReq{msgType, Address(peer)});
    }
    // The counters as numbers: packets, fragments, bytes of each kind.
    static std::vector<uint32_t> Counts() {
        const LyrKesCwpPingStatRsp reply = Ping(LYR_KES_PING_GET);
        EXPECT_EQ(reply.result, 0u);
        std::vector<uint32_t> counts;
        for (const LyrKesCwpPingCount &count : reply.counts) {
            counts.insert(counts.end(), {count.pktCnt, count.fragCnt, count.byteCnt});
        }
        return counts;
    }
    static LyrKesCwpTraceRecordRsp Read(uint32_t startIdx, uint32_t msgType = LYR_KES_PROBE_GET) {
        return Ask<LyrKesCwpTraceRecordRsp>(MUND_OP_CwpTraceRecord,
                                            LyrKesCwpTraceRecordReq{startIdx, msgType});
    }
    // What a packet is marked with once it has passed a point.
    static std::pair<uint32_t, uint32_t> Pass(uint32_t kind, const Packet &packet) {
        EXPECT_EQ(standin::RunHooks(kPoints[kind], packet.get()), HOST_HOOK_CONTINUE);
        const standin::HostMbufMeta &meta = standin::MetaOf(packet.get());
        return {meta.needStat, meta.needTrace};
    }
    static std::pair<uint32_t, uint32_t> Pass(uint32_t kind, const capwap::FrameSpec &frame) {
        return Pass(kind, MakePacket(frame));
    }
};

constexpr std::pair<uint32_t, uint32_t> kUnmarked = {0, 0}, kCounted = {1, 0}, kTraced = {0, 1};

// --- ping ---

TEST_F(StatHooks, WholePingsOfThePeerCountAtEveryPoint) {
    for (const bool ipv6 : {false, true}) {
        for (uint32_t kind = 0; kind < 4; ++kind) {
            SCOPED_TRACE(testing::Message() << (ipv6 ? "IPv6 " : "IPv4 ") << kind);
            const auto ping = [&](size_t length, bool fragment = false) {
                return Frame(kind, Message(kPing + length % 2, length, {.fragment = fragment}),
                             ipv6);
            };
            const auto fragments = capwap::BuildFragments(ping(1000), 512);
            EXPECT_EQ(Ping(LYR_KES_PING_SET, ipv6 ? kPeer6 : kPeer).result, 0u);
            // The engine names no place behind the extension headers of IPv6.
            EXPECT_EQ(Pass(kind, ipv6 ? MakePacket(ping(1000)) : MakePacket(fragments.at(0))),
                      kCounted);
            EXPECT_EQ(Pass(kind, MakePacket(fragments.at(1))), kUnmarked);
            EXPECT_EQ(Pass(kind, ping(36, true)), kCounted);
            EXPECT_EQ(Pass(kind, ping(37)), kCounted);
            EXPECT_EQ(Pass(kind, ping(35)), kUnmarked);
            EXPECT_EQ(Pass(kind, Frame(kind, Message(kPing, 100), !ipv6)), kUnmarked);
            EXPECT_EQ(Pass(kind ^ 2, ping(100)), kUnmarked) << "the peer is at the other end";
            std::vector<uint32_t> expected(12);
            const std::array<uint32_t, 3> counts = {3, 1, 1000 - 36 + 1};
            std::ranges::copy(counts, expected.begin() + 3 * kind);
            if (kind == KES_HOOK_RXOUT) {
                std::ranges::copy(counts, expected.begin() + 3 * KES_HOOK_RXIN);
            }
            EXPECT_EQ(Counts(), expected);
        }
    }
    EXPECT_EQ(g_LyrHostCwpTrace.count, 0u) << "pings are not traced";
}

TEST_F(StatHooks, DamagedControlMessageIsDiscardedByItsCheckAlone) {
    const struct {
        Bytes payload;
        uint64_t verdict;
        Texts lines = {};
    } cases[] = {
        {Message(kVendor + 116, 100), HOST_HOOK_CONTINUE},
        {Message(kPing, 35),
         HOST_HOOK_DISCARD,
         {"kes probe trace len parse fail, type:3, pktLen:35, cwpPingHeadTotal:36"}},
        {Message(kPing, 3), HOST_HOOK_DISCARD},
        {{0}, HOST_HOOK_DISCARD},
    };
    Ping(LYR_KES_PING_SET, kPeer);
    TraceOn(LYR_TRACE_FAILURE);
    for (const auto &[payload, verdict, lines] : cases) {
        SCOPED_TRACE(payload.size());
        const Packet packet = MakePacket(Frame(3, payload));
        EXPECT_EQ(Pass(3, packet), kUnmarked);
        EXPECT_EQ(TakeReports(), lines);
        EXPECT_EQ(LyrKes_ParseCheckCwpType(packet.get(), 3), verdict);
        ForgetLines();
    }
    for (const uint32_t point : kPoints) {
        EXPECT_EQ(standin::RunHooks(point, nullptr), HOST_HOOK_DISCARD);
    }
}

TEST_F(StatHooks, NewPeerStartsFromZeroAndAResetKeepsThePeer) {
    const auto ping = [] { return Pass(0, Frame(0, Message(kPing, 40))); };
    EXPECT_EQ(ping(), kUnmarked) << "no peer yet";
    Ping(LYR_KES_PING_SET, kPeer);
    ping();
    EXPECT_EQ(Ping(LYR_KES_PING_RESET).result, 0u);
    EXPECT_THAT(Counts(), Each(0u));
    EXPECT_EQ(ping(), kCounted) << "a reset keeps the peer";
    Ping(LYR_KES_PING_SET, kPeer);
    EXPECT_THAT(Counts(), Each(0u)) << "a new peer starts from zero";
    g_LyrHostCwpPingStat.counters[0] = {0x1'00000001, 0x2'00000002, 0x3'FFFFFFFF};
    EXPECT_EQ(ping(), kCounted);
    EXPECT_EQ(Counts(), (std::vector<uint32_t>{2, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0}))
        << "the low 32 bits";
    EXPECT_EQ(LyrKes_GetCwpPingStatByType(KES_HOOK_NUM), nullptr);
    LyrKes_CalCwpPingStatByType(KES_HOOK_NUM, 1, 1);
    const LyrKesCwpPingStatRsp unknown = Ping(3);
    EXPECT_EQ(unknown.result, 2u);
    EXPECT_EQ(unknown.counts[0].pktCnt, 0u);
    for (const char *nobody : {"::", "0.0.0.0"}) {
        Ping(LYR_KES_PING_SET, kPeer);
        Ping(LYR_KES_PING_SET, nobody);
        EXPECT_EQ(g_LyrHostCwpPingStat.pingEnable, 0);
        EXPECT_EQ(ping(), kUnmarked);
    }
    Ping(LYR_KES_PING_SET, kPeer6);
    Restart();
    EXPECT_EQ(g_LyrHostCwpPingStat.pingEnable, 0) << "not beyond a stop";
}

// While one peer takes another's place, a packet that is neither's meets the switch of the one and
// the address of the other, or none.
TEST_F(StatHooks, NoPacketOfNeitherPeerCountsWhileThePeerChanges) {
    const std::string one = "2001:db8:1:1:1:1:1:1", other = "2001:db8:2:2:2:2:2:2";
    std::vector<Packet> packets;
    for (const auto *src : {"2001:db8:1:1::", "2001:db8:2:2::", "::", "0.0.0.0"}) {
        packets.push_back(MakePacket(UdpFrame(src, 1, src, 5246, Message(kPing, 40))));
    }
    const auto count = [&packets] {
        return std::ranges::count_if(packets, [](const Packet &packet) {
            return LyrKes_CheckCwpPingStatConfig(packet.get(), KES_HOOK_RXIN);
        });
    };
    g_LyrHostCwpPingStat.pingEnable = 1;
    EXPECT_EQ(count(), 0) << "the address is not there yet, or no more";
    std::atomic<bool> stopping{false};
    std::thread changes([&] {
        while (!stopping) {
            for (const std::string &peer : {one, other}) {
                const LyrKesRpcIpAddr address = Address(peer);
                LyrKes_UpdateCwpPingConfig(false, 0, address.ipv6Addr);
            }
        }
    });
    ptrdiff_t counted = 0;
    for (int round = 0; round < 100'000; ++round) {
        counted += count();
    }
    stopping = true;
    changes.join();
    EXPECT_EQ(counted, 0);
}

// --- probe ---

TEST_F(StatHooks, ProbesAreKeptAndPrintedAtEveryPoint) {
    TraceOn(LYR_TRACE_PACKET);
    const capwap::Mac macs[] = {kApMac, {2, 0, 0, 0, 0, 2}, {2, 0, 0, 0, 0, 1}, {2, 0, 0, 0, 0, 1}};
    const auto before = static_cast<uint32_t>(time(nullptr));
    for (uint32_t i = 0; i < 8; ++i) {
        SCOPED_TRACE(i);
        const uint32_t kind = i / 2;
        const bool ipv6 = i % 2 != 0;
        const char *name = ipv6 ? "ServerResp" : "ServerReq";
        // What is received is looked at for the peer only.
        Ping(LYR_KES_PING_SET, ipv6 ? kPeer6 : kPeer);
        EXPECT_EQ(Pass(kind, Frame(kind, Probe(ipv6 ? kProbeResponse : kProbeRequest), ipv6)),
                  kTraced);
        const LyrKesCwpTraceRecordRsp page = Read(i);
        ASSERT_EQ(page.entryNum, 1u);
        const LyrKesCwpTraceEntry &entry = page.entries[0];
        EXPECT_STREQ(entry.name, name);
        EXPECT_THAT(entry.mac, testing::ElementsAreArray(macs[kind]));
        EXPECT_EQ(entry.hookKind, kind);
        EXPECT_TRUE(SameBytes(entry.peerAddr, Address(ipv6 ? kPeer6 : kPeer)));
        EXPECT_GE(entry.seconds, before);
        const time_t seconds = entry.seconds;
        tm local = {};
        localtime_r(&seconds, &local);
        const uint32_t date = entry.date, time = entry.time;
        EXPECT_EQ(date, static_cast<uint32_t>(local.tm_year + 1900) << 16 |
                            static_cast<uint32_t>((local.tm_mon + 1) << 8 | local.tm_mday));
        EXPECT_NEAR((time >> 16) * 3600 + (time >> 8 & 255) * 60 + (time & 255),
                    local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec, 1);
        const char *controllers = ipv6 ? "20010db8|20010db8:0:0:1" : "a000001|a000001:0:0:0";
        const char *peers = ipv6 ? "20010db8|20010db8:0:0:100001" : "a000a01|a000a01:0:0:0";
        EXPECT_THAT(TakeReports(),
                    ElementsAre(Text("[dbgPkt][%u][%s][ip-ver:%u, src-ip: %s, dst-ip: %s][time: "
                                     "%u/%02u/%02u %02u:%02u:%02u]",
                                     kind, name, ipv6 ? 6u : 4u, kind < 2 ? controllers : peers,
                                     kind < 2 ? peers : controllers, date >> 16, date >> 8 & 255,
                                     date & 255, time >> 16, time >> 8 & 255, time & 255)));
    }
}

TEST_F(StatHooks, OnlyProbesAndMarkedPacketsAreTraced) {
    const Bytes probe = Probe(kProbeRequest), echo = capwap::ControlMessage(13, 1, {});
    const capwap::FrameSpec data = UdpFrame(kController, 5247, kPeer, 5247, probe);
    const capwap::FrameSpec arp = {.etherType = 0x0806, .payload = Bytes(28)};
    const struct {
        const char *name;
        uint32_t kind;
        capwap::FrameSpec frame;
        Texts records = {};
        uint8_t marked = 0;  // by the engine
        uint16_t cause = 0;
    } cases[] = {
        {"sent, whoever the peer", 1, Frame(1, probe), {"ServerReq"}},
        {"received without a peer", 2, Frame(2, probe)},
        {"entering, 23 bytes", 0, Frame(0, Probe(kProbeRequest, 23))},
        {"leaving, 23 bytes", 1, Frame(1, Probe(kProbeRequest, 23)), {"ServerReq"}},
        {"marked", 1, Frame(1, echo), {"ServerResp"}, 1},
        {"marked, entering, not a probe", 0, Frame(0, echo), {}, 1},
        {"marked, not control", 1, data, {}, 1},
        {"recognised request", 3, Frame(3, probe), {"ServerReq"}, 0, 1769},
        {"recognised, whatever it is", 2, Frame(2, {}), {"ServerResp"}, 0, 1770},
        {"recognised, no IP", 2, arp, {}, 0, 1769},
        {"another cause", 2, Frame(2, probe), {}, 0, 1771},
    };
    for (const auto &[name, kind, frame, records, marked, cause] : cases) {
        SCOPED_TRACE(name);
        Read(0, LYR_KES_PROBE_CLEAR);
        const Packet packet = MakePacket(frame);
        standin::MetaOf(packet.get()).needTrace = marked;
        standin::MetaOf(packet.get()).causeId = cause;
        Pass(kind, packet);
        const LyrKesCwpTraceRecordRsp page = Read(0);
        Texts names;
        for (const auto &entry : std::span(page.entries, page.entryNum)) {
            names.emplace_back(entry.name);
        }
        EXPECT_EQ(names, records);
    }
}

TEST_F(StatHooks, SightingOfAPeerWithoutAMacIsKeptAndReported) {
    TraceOn(LYR_TRACE_FAILURE);
    const HostIpAddr source = {4, {}, {0x0A000001, 0, 0, 0}};
    const HostIpAddr destination = {6, {}, {0x20010DB8, 1, 2, 3}};
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    LyrKes_FillInCwpProbeInfo(KES_HOOK_TXOUT, kProbeRequest, mac, &source, nullptr, &destination);
    LyrKes_FillInCwpProbeInfo(KES_HOOK_RXIN, kProbeRequest, nullptr, &source, mac, &destination);
    EXPECT_EQ(g_LyrHostCwpTrace.count, 2u) << "kept all the same";
    EXPECT_EQ(g_LyrHostCwpTrace.records[0].mac[0], 0);
    EXPECT_THAT(
        TakeReports(),
        ElementsAre("LyrKes_CwpProbeTraceProc get dst mac fail, dst Ip is 20010db8|20010db8:1:2:3",
                    "LyrKes_CwpProbeTraceProc get dst mac fail, src Ip is a000001|a000001:0:0:0"));
    uint8_t small[5];
    EXPECT_EQ(LyrKes_GetPeerMacFromCapwapProbeMsg(MakePacket(Frame(0, Probe(kProbeRequest))).get(),
                                                  small, sizeof(small)),
              kError);
}

void Append(uint32_t seconds) {
    CwpTraceRcd record = {};
    record.seconds = seconds;
    LyrKes_AddGlbCwpTraceRecord(&record);
}

TEST_F(StatHooks, PagesListTheLastSightingsInOrder) {
    constexpr uint32_t kRing = LYR_CWP_TRACE_NUM;
    for (const uint32_t sightings : {0u, 1u, 256u, 257u, kRing - 1, kRing, kRing + 1, 5000u}) {
        SCOPED_TRACE(sightings);
        const LyrKesCwpTraceRecordRsp cleared = Read(0, LYR_KES_PROBE_CLEAR);
        EXPECT_EQ(cleared.result, LYR_KES_PROBE_LAST);
        EXPECT_EQ(cleared.entryNum, 0u);
        for (uint32_t i = 0; i < sightings; ++i) {
            Append(i);
        }
        const uint32_t held = std::min(sightings, kRing);
        EXPECT_EQ(g_LyrHostCwpTrace.count, held);
        EXPECT_EQ(g_LyrHostCwpTrace.head, (sightings - held) % kRing);
        uint32_t next = sightings - held, startIdx = 0;
        for (LyrKesCwpTraceRecordRsp page = Read(0);; page = Read(startIdx)) {
            for (uint32_t i = 0; i < page.entryNum; ++i) {
                ASSERT_EQ(page.entries[i].seconds, next++);
            }
            startIdx += page.entryNum;
            if (page.result != LYR_KES_PROBE_MORE) {
                EXPECT_EQ(page.result, LYR_KES_PROBE_LAST);
                break;
            }
            ASSERT_EQ(page.entryNum, 256u);
        }
        EXPECT_EQ(next, sightings);
    }
    // The ring is full.
    const struct {
        uint32_t startIdx, entryNum, result;
    } pages[] = {
        {1791, 256, LYR_KES_PROBE_MORE}, {1792, 256, LYR_KES_PROBE_LAST},
        {1793, 255, LYR_KES_PROBE_LAST}, {2047, 1, LYR_KES_PROBE_LAST},
        {2048, 0, LYR_KES_PROBE_LAST},   {0xFFFFFFFF, 0, LYR_KES_PROBE_LAST},
    };
    for (const auto &[startIdx, entryNum, result] : pages) {
        const LyrKesCwpTraceRecordRsp page = Read(startIdx);
        EXPECT_EQ(page.entryNum, entryNum) << startIdx;
        EXPECT_EQ(page.result, result) << startIdx;
    }
    LyrKesCwpTraceRecordRsp used = Read(0);
    const LyrKesCwpTraceRecordReq beyond = {kRing, LYR_KES_PROBE_GET};
    EXPECT_EQ(LyrKes_CwpTraceGet(&beyond, &used), uint32_t{LYR_KES_PROBE_LAST});
    EXPECT_EQ(used.entryNum, 0u) << "whatever the reply held";
    const LyrKesCwpTraceRecordRsp unknown = Read(0, 2);
    EXPECT_EQ(unknown.result, LYR_KES_PROBE_LAST);
    EXPECT_EQ(unknown.entryNum, 0u);
    EXPECT_EQ(g_LyrHostCwpTrace.count, kRing);
}

#ifndef __SANITIZE_THREAD__  // which holds locks of its own where the ring is stopped

// A page of memory within the ring, and what happens when something first comes to it.
const auto kPage = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
void *const kTrap = reinterpret_cast<void *>(
    (reinterpret_cast<uintptr_t>(&g_LyrHostCwpTrace.records[1000]) + kPage - 1) & ~(kPage - 1));
std::function<void()> atTheTrap;

void RunInto(const std::function<void()> &trap, const std::function<void()> &step) {
    struct sigaction action = {}, before = {};
    action.sa_handler = [](int) {
        mprotect(kTrap, kPage, PROT_READ | PROT_WRITE);
        std::exchange(atTheTrap, nullptr)();
    };
    sigaction(SIGSEGV, &action, &before);
    atTheTrap = trap;
    mprotect(kTrap, kPage, PROT_NONE);
    step();
    sigaction(SIGSEGV, &before, nullptr);
    EXPECT_EQ(atTheTrap, nullptr);
}

TEST_F(StatHooks, AClearLeavesNoBlankRecordAndNoneOfBefore) {
    std::future<void> clear;
    const auto clearMeanwhile = [&clear] {
        clear = std::async(std::launch::async, LyrKes_CwpTraceReset);
        clear.wait_for(std::chrono::milliseconds(20));  // it has to wait for what runs
    };
    const auto append = [](uint32_t times) {
        for (uint32_t i = 1; i <= times; ++i) {
            Append(i);
        }
    };
    RunInto([&] { append(1500); }, LyrKes_CwpTraceReset);
    for (uint32_t i = 0; i < g_LyrHostCwpTrace.count; ++i) {
        ASSERT_NE(g_LyrHostCwpTrace.records[i].seconds, 0u) << i;
    }
    RunInto(clearMeanwhile, [&] { append(1500); });
    clear.get();
    EXPECT_EQ(g_LyrHostCwpTrace.count, g_LyrHostCwpTrace.tail);
    for (uint32_t i = 0; i < LYR_CWP_TRACE_NUM; ++i) {
        EXPECT_EQ(g_LyrHostCwpTrace.records[i].seconds != 0, i < g_LyrHostCwpTrace.count) << i;
    }
    LyrKes_CwpTraceReset();
    append(1500);
    static LyrKesCwpTraceRecordRsp page;
    const LyrKesCwpTraceRecordReq request = {900, LYR_KES_PROBE_GET};
    RunInto(clearMeanwhile, [&] { LyrKes_CwpTraceGet(&request, &page); });
    clear.get();
    ASSERT_EQ(page.entryNum, 256u);
    for (uint32_t i = 0; i < page.entryNum; ++i) {
        ASSERT_EQ(page.entries[i].seconds, 901 + i) << "the page is of before";
    }
}

#endif

}  // namespace
