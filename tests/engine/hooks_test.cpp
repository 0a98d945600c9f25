// Hooks: their order, their answers, and who may still be inside.
#include "kes/hook.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gate.h"
#include "standin/mbuf_pool.h"
#include "standin/packet_path.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr uint32_t kPoint = HOST_HOOK_HOST_RX;

std::string calls;
uint64_t answerOfB = HOST_HOOK_CONTINUE;

template <char kName>
uint64_t Hook(HostMbuf *) {
    calls += kName;
    return kName == 'B' ? answerOfB : HOST_HOOK_CONTINUE;
}
constexpr auto A = Hook<'A'>, B = Hook<'B'>, C = Hook<'C'>;

class Hooks : public testing::Test {
  protected:
    void SetUp() override {
        calls.clear();
        answerOfB = HOST_HOOK_CONTINUE;
    }
    void TearDown() override {
        EXPECT_EQ(CurrentHoldings().hooks, 0u);
    }
};

TEST_F(Hooks, RunInAscendingPriorityUntilOneAnswers) {
    ASSERT_EQ(HostHookRegister(kPoint, 200, C, "test"), 0u);
    ASSERT_EQ(HostHookRegister(kPoint, 100, A, "test"), 0u);
    ASSERT_EQ(HostHookRegister(kPoint, 100, B, "test"), 0u);
    EXPECT_EQ(RunHooks(kPoint, nullptr), HOST_HOOK_CONTINUE);
    EXPECT_EQ(calls, "ABC");

    calls.clear();
    answerOfB = HOST_HOOK_TAKEN;
    EXPECT_EQ(RunHooks(kPoint, nullptr), HOST_HOOK_TAKEN);
    EXPECT_EQ(calls, "AB");

    calls.clear();
    EXPECT_EQ(HostHookUnregister(kPoint, A), 0u);
    EXPECT_EQ(RunHooks(kPoint, nullptr), HOST_HOOK_TAKEN);
    EXPECT_EQ(RunHooks(HOST_HOOK_RX_IN, nullptr), HOST_HOOK_CONTINUE);
    EXPECT_EQ(RunHooks(HOST_HOOK_POINTS, nullptr), HOST_HOOK_CONTINUE);
    EXPECT_EQ(calls, "B");
    EXPECT_EQ(HostHookUnregister(kPoint, B), 0u);
    EXPECT_EQ(HostHookUnregister(kPoint, C), 0u);
}

Gate *gate = nullptr;

uint64_t Lingering(HostMbuf *) {
    gate->Pass();
    return HOST_HOOK_CONTINUE;
}

TEST_F(Hooks, UnregisteringWaitsForAThreadInside) {
    Gate gateHere;
    gate = &gateHere;
    ASSERT_EQ(HostHookRegister(kPoint, 1, Lingering, "test"), 0u);
    std::thread forwarding([] { RunHooks(kPoint, nullptr); });
    gateHere.entered.wait();
    const auto release = [&] {
        EXPECT_EQ(RunHooks(kPoint, nullptr), HOST_HOOK_CONTINUE) << "it is gone for newcomers";
        gateHere.mayLeave.count_down();
    };
    ExpectWaitsFor(release, [] { EXPECT_EQ(HostHookUnregister(kPoint, Lingering), 0u); });
    forwarding.join();
}

// What the hook reads is changed only while it is not registered, and without any ordering of its
// own: a thread still inside would see it, and so would a race detector.
std::string state;
std::atomic<uint32_t> readings{0};

uint64_t Reading(HostMbuf *) {
    readings.fetch_add(1, std::memory_order_relaxed);
    return state == "live" ? HOST_HOOK_CONTINUE : HOST_HOOK_DISCARD;
}

TEST_F(Hooks, NobodyIsInsideAfterUnregistering) {
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> wrong{0};
    readings = 0;
    const auto forward = [&](uint32_t packets) {
        for (uint32_t i = 0; i < packets && !stop; ++i) {
            wrong += RunHooks(kPoint, nullptr) != HOST_HOOK_CONTINUE ? 1 : 0;
        }
    };
    std::thread steady([&] { forward(UINT32_MAX); });
    // Threads that come and go take over each other's places.
    std::thread changing([&] {
        while (!stop) {
            std::thread(forward, 100).join();
        }
    });
    for (int round = 0; round < 300 || readings < 1000; ++round) {
        state = "live";
        ASSERT_EQ(HostHookRegister(kPoint, 1, Reading, "test"), 0u);
        std::this_thread::yield();
        ASSERT_EQ(HostHookUnregister(kPoint, Reading), 0u);
        state = "dead";
    }
    stop = true;
    steady.join();
    changing.join();
    EXPECT_EQ(wrong, 0u);
}

TEST_F(Hooks, DecideAFramesFate) {
    struct {
        uint64_t answer;
        Fate fate;
    } const cases[] = {
        {HOST_HOOK_CONTINUE, Fate::kReturned},
        {HOST_HOOK_TAKEN, Fate::kTaken},
        {HOST_HOOK_DISCARD, Fate::kUndelivered},
        {1, Fate::kUndelivered},
    };
    const std::pair<uint32_t, HostHookFunc> hooks[] = {
        {HOST_HOOK_RX_IN, A}, {HOST_HOOK_RX_OUT, B}, {HOST_HOOK_HOST_RX, C},
        {HOST_HOOK_TX_IN, B}, {HOST_HOOK_TX_OUT, A},
    };
    for (const auto &[point, hook] : hooks) {
        ASSERT_EQ(HostHookRegister(point, 1, hook, "test"), 0u);
    }
    for (const auto &[answer, fate] : cases) {
        SCOPED_TRACE(answer);
        answerOfB = answer;
        calls.clear();
        EXPECT_EQ(RunReceivePath(nullptr), fate);
        EXPECT_EQ(calls, answer == HOST_HOOK_CONTINUE ? "ABC" : "AB");
        calls.clear();
        EXPECT_EQ(RunTransmitPath(nullptr), fate);
        EXPECT_EQ(calls, answer == HOST_HOOK_CONTINUE ? "BA" : "B");
    }
    for (const auto &[point, hook] : hooks) {
        HostHookUnregister(point, hook);
    }
}

// Packets by number; each meets its end at the point that its number says.
std::vector<std::pair<char, size_t>> passed;
HostMbuf row[kMaxBurst + 3];

template <char kPoint>
uint64_t Stopping(HostMbuf *packet) {
    const auto number = static_cast<size_t>(packet - row);
    passed.emplace_back(kPoint, number);
    if (kPoint == 'i' && number % 4 == 1) {
        return HOST_HOOK_TAKEN;
    }
    return kPoint == 'o' && number % 4 == 2 ? HOST_HOOK_DISCARD : HOST_HOOK_CONTINUE;
}

TEST_F(Hooks, PassABurstStageByStage) {
    const std::pair<uint32_t, HostHookFunc> hooks[] = {{HOST_HOOK_RX_IN, Stopping<'i'>},
                                                       {HOST_HOOK_RX_OUT, Stopping<'o'>},
                                                       {HOST_HOOK_HOST_RX, Stopping<'h'>}};
    for (const auto &[point, hook] : hooks) {
        ASSERT_EQ(HostHookRegister(point, 1, hook, "test"), 0u);
    }
    std::vector<HostMbuf *> packets;
    std::ranges::transform(row, std::back_inserter(packets), [](HostMbuf &mbuf) { return &mbuf; });
    std::vector<Fate> fates(packets.size());
    passed.clear();
    RunReceivePath(packets, fates);

    constexpr Fate kFates[] = {Fate::kReturned, Fate::kTaken, Fate::kUndelivered, Fate::kReturned};
    constexpr const char *kPoints[] = {"ioh", "i", "io", "ioh"};
    std::vector<std::pair<char, size_t>> expected;
    for (const auto &[first, end] :
         {std::pair(size_t{0}, kMaxBurst), {kMaxBurst, packets.size()}}) {
        for (const char point : {'i', 'o', 'h'}) {
            for (size_t number = first; number < end; ++number) {
                if (std::strchr(kPoints[number % 4], point) != nullptr) {
                    expected.emplace_back(point, number);
                }
            }
        }
    }
    EXPECT_EQ(passed, expected);
    for (size_t number = 0; number < packets.size(); ++number) {
        EXPECT_EQ(fates[number], kFates[number % 4]) << number;
    }
    for (const auto &[point, hook] : hooks) {
        HostHookUnregister(point, hook);
    }
}

}  // namespace
}  // namespace standin
