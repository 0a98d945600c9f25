#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "channel/service_channel.h"
#include "dfx/drop_watch.h"
#include "mund/reconciliation_messages.h"
#include "traffic.h"

namespace {

using namespace host_test;
using namespace std::chrono_literals;

// Four instances for CAPWAP, two for WAPI.
constexpr Place kPlaces[] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 0}, {1, 1}};
constexpr uint32_t kCapwapInstances = 4;

// Access points and sessions: some stay at one instance, others move.
constexpr uint32_t kFixed4 = 1, kFixed6 = 2, kFixedSession = 3, kMoving = 4, kUnknown = 5;

std::vector<Kind> Kinds() {
    const auto stranger = UdpFrame("172.16.0.1", 5246, "10.9.9.9", 5246, capwap::Bytes(20));
    const auto data = UdpFrame(Ipv4Tunnels::Address(kFixed4), 5247, kController, 5247,
                               capwap::DataFrame(capwap::Bytes(40)));
    const auto ping =
        UdpFrame(Ipv4Tunnels::Address(kFixed4), 5246, kController, 5246,
                 capwap::ControlMessage(LYR_KES_VENDOR_PEN * 256 + 117, 1, capwap::Bytes(60)));
    capwap::FrameSpec wapi;
    wapi.etherType = 0x88B4;
    // After a start, the default tunnel (of instance 3, IPv4) may be there before the others.
    return {
        {"tunnel", Ipv4Tunnels::Frame(kFixed4), {0, 3}},
        {"IPv6 tunnel", Ipv6Tunnels::Frame(kFixed6), {1}},
        {"session", KaSessions::Frame(kFixedSession), {2}},
        {"tunnel that moves", Ipv4Tunnels::Frame(kMoving), {0, 1, 2, 3}},
        {"session that moves", KaSessions::Frame(kMoving), {0, 1, 2, 3}},
        {"unknown tunnel", Ipv4Tunnels::Frame(kUnknown), {3}},
        {"station", wapi, {4, 5}},
        {"ping", ping, {0, 3}},
        {"stranger", stranger, {}},
        {"data", data, {}},
    };
}

void ChangeTunnels(Caller &call, uint32_t round) {
    const uint32_t node = round % kCapwapInstances;
    call(MUND_OP_CwpTunnel, Ipv4Tunnels::Request(kAdd, kFixed4, 0));
    call(MUND_OP_CwpTunnel, Ipv6Tunnels::Request(kAdd, kFixed6, 1));
    call(MUND_OP_KaTunnel, KaSessions::Request(kAdd, kFixedSession, 2));
    call(MUND_OP_CwpTunnel, Ipv4Tunnels::Request(round % 5 == 0 ? kDelete : kAdd, kMoving, node));
    call(MUND_OP_KaTunnel, KaSessions::Request(round % 7 == 0 ? kDelete : kAdd, kMoving, node));
    call(MUND_OP_CwpTunnel, TunnelRequest(round % 3 == 0 ? kDelete : kAdd, "255.255.255.255", 65535,
                                          "255.255.255.255", 5246, 3, 65535));
    call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{round % 2, 1});
    for (uint32_t n = 10; n < 14; ++n) {  // neighbours come and go
        call(MUND_OP_CwpTunnel, Ipv6Tunnels::Request(round % 2, n, n % kCapwapInstances));
    }
}

void ChangeSources(Caller &call, uint32_t round) {
    LyrKesCwpSrcReconReq sources = {};
    sources.entries[round % 4] = SourceRequest(kAdd, 1, kController, round).source;
    sources.entries[4 + round % 4] = SourceRequest(kAdd, 4, kController6, round).source;
    call(MUND_OP_CwpSrcReconciliation, sources);
    call(MUND_OP_CwpSrc, SourceRequest(kAdd, 2, "10.0.0.7", round % 3));
    call(MUND_OP_CwpSrc, SourceRequest(kDelete, 2, "10.0.0.7", round % 3));
    LyrKesDebugTraceReq trace = {};
    trace.msgType = round % 2;
    trace.debugLevel = 3;
    trace.srcPort = round % 4 == 0 ? 5246 : 0;
    call(MUND_OP_DebugTraceSet, trace);
    LyrKes_QueryCwpSrc();
}

void UseStatistics(Caller &call, uint32_t round) {
    call(MUND_OP_CwpPingStat,
         LyrKesCwpPingStatReq{round % 4, Address(Ipv4Tunnels::Address(round % 8 < 4 ? 1 : 2))});
    call(MUND_OP_CwpTraceRecord, LyrKesCwpTraceRecordReq{round % 512, round % 16 == 0});
    call(MUND_OP_CwpMsgTypeStat, LyrKesCwpMsgTypeStatReq{round % 4, round % 8 < 4 ? 13 : ~0u});
    call.Run(round % 8 != 0 ? MUND_OP_GetPktStatistics : MUND_OP_ResetPktStatistics);
    const auto list = static_cast<uint8_t>(round % 2);
    call(MUND_OP_LoadBalanceDfx, LyrKesLbDfxReq{round / 2 % 2, 0, 5246, list, {}});
}

using Concurrency = EngineTest;

// What an operation uses is there until it has ended, though the engine does not wait for it.
TEST_F(Concurrency, StopWaitsForOperationsThatRun) {
    ASSERT_EQ(LyrKes_Init(), 0u);
    TraceOn();
    std::future<uint32_t> stop;
    Texts lines;
    standin::SetLineSink([&](LineKind, std::string_view line) {
        lines.emplace_back(line);
        if (!stop.valid()) {
            stop = std::async(std::launch::async, LyrKes_Exit);
            EXPECT_EQ(stop.wait_for(200ms), std::future_status::timeout);
        }
    });
    EXPECT_EQ(Call(MUND_OP_WapiTunnel, LyrKesWapiTunnelReq{0, 3}), 0u);
    EXPECT_EQ(stop.get(), 0u);
    EXPECT_THAT(lines, ElementsAre("get channel id by channel name chn/kes2lyrwapi0 failed.",
                                   "get channel id by channel name chn/kes2lyrwapi1 failed.",
                                   "get channel id by channel name chn/kes2lyrwapi2 failed."));
}

// Everything runs when the process exits; nothing of it is destroyed under a thread.
[[noreturn]] void ExitInMidRun(bool strict) {
    alarm(100);
    standin::SetStrict(strict);
    standin::SetTimersManual(false);
    if (LyrKes_Init() != 0) {
        std::abort();
    }
    auto &traffic = *new Traffic(Kinds(), kPlaces);
    auto &call = *new Caller;
    const auto keepDoing = [](auto action) {
        std::thread([action] {
            for (uint32_t round = 0;; ++round) {
                action(round);
            }
        }).detach();
    };
    keepDoing([&](uint32_t round) { ChangeTunnels(call, round); });
    keepDoing([&](uint32_t round) { UseStatistics(call, round); });
    keepDoing([&](uint32_t round) {
        traffic.Forward(round);
        traffic.Receive();
    });
    call(MUND_OP_Reconciliation, LyrKesReconRecord{});
    standin::WaitUntilCreatedThreadsIdle();
    LyrKes_IncreaseMsgDropStat();  // starts a timer
    std::this_thread::sleep_for(20ms);
    std::exit(0);
}

TEST(ExitDeathTest, InMidRunIsPrompt) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const bool strict : {true, false}) {
        const auto from = std::chrono::steady_clock::now();
        EXPECT_EXIT(ExitInMidRun(strict), testing::ExitedWithCode(0), "");
        EXPECT_LT(std::chrono::steady_clock::now() - from, 40s) << "the thread waits for 60";
    }
}

TEST_F(Concurrency, StartsAndStopsUnderTrafficAndChanges) {
    std::atomic<uint64_t> lines{0};
    standin::SetLineSink([&](LineKind, std::string_view) { ++lines; });
    Traffic traffic(Kinds(), kPlaces);
    Caller call;
    std::atomic<bool> stopping{false};
    std::vector<std::thread> threads;
    for (auto change : {ChangeTunnels, ChangeSources, UseStatistics}) {
        threads.emplace_back([&, change] {
            for (uint32_t round = 0; !stopping; ++round) {
                change(call, round);
                std::this_thread::sleep_for(50us);
            }
        });
    }
    for (const uint64_t first : {0, 1}) {
        threads.emplace_back([&, first] {
            for (uint64_t number = first; !stopping; ++number) {
                traffic.Forward(number);
            }
        });
    }
    threads.emplace_back([&] {
        while (!stopping) {
            traffic.Receive();
            std::this_thread::sleep_for(100us);
        }
    });

    const auto deadline = std::chrono::steady_clock::now() + 60s;
    for (int cycle = 0; cycle < 12 || !traffic.EveryKindArrived(); ++cycle) {
        SCOPED_TRACE(cycle);
        EXPECT_EQ(LyrKes_Init(), 0u);
        std::this_thread::sleep_for(60ms);
        StopModule();
        EXPECT_EQ(HeldBesidesRecords(), 0u);
        EXPECT_EQ(standin::CurrentHoldings(), standin::Holdings{});
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "packets of some kind do not arrive";
            break;
        }
    }
    stopping = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    traffic.Receive();
    traffic.ExpectConservation();
    EXPECT_EQ(call.wrong, 0);
    EXPECT_GT(call.served, 0);
    EXPECT_GT(lines, 0u);
}

}  // namespace
