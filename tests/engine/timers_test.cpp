// Timers, as time is advanced and by themselves.
#include "kes/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "gate.h"
#include "standin/runtime.h"

namespace standin {
namespace {

// What the callbacks log: the text that each timer was given.
std::string calls;

uint32_t Log(void *text) {
    calls += static_cast<const char *>(text);
    return 0;
}

uint32_t Start(uint32_t periodMs, uint32_t mode, TovTimerFunc callback, const void *argument) {
    uint32_t id = TOV_TIMER_ID_NONE;
    EXPECT_EQ(
        TovSLcoreTimerCreateAndStart(periodMs, mode, callback, const_cast<void *>(argument), &id),
        0u);
    EXPECT_NE(id, TOV_TIMER_ID_NONE);
    return id;
}

class ManualTimers : public testing::Test {
  protected:
    void SetUp() override {
        calls.clear();
        SetTimersManual(true);
    }
    void TearDown() override {
        SetTimersManual(false);
        EXPECT_EQ(CurrentHoldings().timers, 0u);
    }
};

TEST_F(ManualTimers, FireInOrderOfTheirTimes) {
    const uint32_t fast = Start(100, TOV_TIMER_PERIODIC, Log, "f");
    const uint32_t slow = Start(250, TOV_TIMER_PERIODIC, Log, "s");
    const uint32_t once = Start(120, TOV_TIMER_ONCE, Log, "o");
    AdvanceTimers(99);
    EXPECT_EQ(calls, "");
    AdvanceTimers(1);
    EXPECT_EQ(calls, "f");
    AdvanceTimers(400);
    EXPECT_EQ(calls, "fofsfffs") << "due together: the older one first";
    EXPECT_EQ(TovSLcoreTimerDelete(once), 1u) << "it has fired";
    EXPECT_EQ(TovSLcoreTimerDelete(fast), 0u);
    EXPECT_EQ(TovSLcoreTimerDelete(fast), 1u);
    AdvanceTimers(250);
    EXPECT_EQ(calls, "fofsfffss");
    EXPECT_EQ(TovSLcoreTimerDelete(slow), 0u);
}

uint32_t ownId = TOV_TIMER_ID_NONE;

uint32_t DeleteOwn(void *) {
    calls += 'd';
    EXPECT_EQ(TovSLcoreTimerDelete(ownId), 0u);
    return 0;
}

TEST_F(ManualTimers, DeleteThemselvesFromTheirCallback) {
    for (const uint32_t mode : {TOV_TIMER_ONCE, TOV_TIMER_PERIODIC}) {
        calls.clear();
        ownId = Start(10, mode, DeleteOwn, nullptr);
        AdvanceTimers(100);
        EXPECT_EQ(calls, "d");
    }
}

struct Slow {
    Gate gate;
    std::atomic<int> calls{0};
    std::thread::id thread;

    static uint32_t Run(void *argument) {
        auto *self = static_cast<Slow *>(argument);
        self->thread = std::this_thread::get_id();
        if (++self->calls == 3) {
            self->gate.Pass();
        }
        return 0;
    }
};

TEST(Timers, RunByThemselvesAndAreWaitedForOnDeletion) {
    Slow slow;
    const uint32_t id = Start(1, TOV_TIMER_PERIODIC, Slow::Run, &slow);
    slow.gate.entered.wait();
    ExpectWaitsFor([&] { slow.gate.mayLeave.count_down(); },
                   [&] { EXPECT_EQ(TovSLcoreTimerDelete(id), 0u); });
    const int callsAtDeletion = slow.calls;
    EXPECT_NE(slow.thread, std::this_thread::get_id());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(slow.calls, callsAtDeletion);
    EXPECT_EQ(CurrentHoldings().timers, 0u);
}

}  // namespace
}  // namespace standin
