// The watch over dropped packets and its alarm, in simulated time.
#include "dfx/drop_watch.h"

#include <dlfcn.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <regex>

#include "dfx/drop_trap.h"
#include "dfx/packet_counters.h"
#include "dist_tables.h"
#include "kes/timer.h"

namespace {
std::atomic<time_t> wallClock;  // 0: the system's
bool dropWhileDeleting = false;
}  // namespace

// Stands before the engine's own for the module as well.
uint32_t TovSLcoreTimerDelete(uint32_t id) {
    static const auto remove =
        reinterpret_cast<decltype(&TovSLcoreTimerDelete)>(dlsym(RTLD_NEXT, "TovSLcoreTimerDelete"));
    if (std::exchange(dropWhileDeleting, false)) {
        LyrKes_IncreaseMsgDropStat();
        EXPECT_EQ(standin::CurrentHoldings().timers, 1u) << "a second timer";
    }
    return remove(id);
}

// So does this before the C library's.
extern "C" int gettimeofday(timeval *now, void * /*zone*/) noexcept {
    timespec system = {};
    clock_gettime(CLOCK_REALTIME, &system);
    *now = {wallClock != 0 ? wallClock.load() : system.tv_sec, 0};
    return 0;
}

namespace {

using namespace host_test;

constexpr uint32_t kDropped = 4;

class DropWatch : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        wallClock = 1'000'000;
        TraceOn();
    }
    void TearDown() override {
        HostTest::TearDown();
        standin::SetTimersManual(false);
        wallClock = 0;
    }
    static void Count(uint32_t result, uint32_t times = 1) {
        const uint32_t control = 1;
        for (uint32_t i = 0; i < times; ++i) {
            LyrKes_CwpCtrlPktStatic(&control, result);
        }
    }
    static void Pass(uint32_t seconds) {
        for (uint32_t i = 0; i < seconds; ++i) {
            ++wallClock;
            standin::AdvanceTimers(1000);
        }
    }
    static void Reset() {
        LyrKes_StopMsgDropStatTimer();
        LyrKes_ClearMsgDropStat();
    }
    static bool IsOpen() {
        return g_lyrKesMsgDropStat.periodStart != LYR_DROP_WATCH_CLOSED;
    }
    static size_t Timers() {
        return standin::CurrentHoldings().timers;
    }
    // Raises and restores so far, a letter each.
    std::string Alarms() {
        std::string alarms;
        for (const std::string &line : Lines(LineKind::kAlarm)) {
            alarms += line.starts_with("raise ") ? 'R' : line.starts_with("restore ") ? 'r' : '?';
        }
        return alarms;
    }
};

// Periods by letter: d with a drop, q quiet.
TEST_F(DropWatch, FivePeriodsRaiseAndFiveQuietOnesRestore) {
    const struct {
        const char *periods, *alarms;
    } cases[] = {
        {"dddddddddddd", "R"},     {"ddddqdddd", ""},
        {"ddddqddddd", "R"},       {"dddddqqqq", "R"},
        {"dddddqqqqdqqqq", "R"},   {"dddddqqqqdqqqqq", "Rr"},
        {"dddddqqqqqqdddd", "Rr"}, {"dddddqqqqqdddddqqqqq", "RrRr"},
    };
    for (const auto &[periods, alarms] : cases) {
        SCOPED_TRACE(periods);
        Reset();
        ForgetLines();
        for (const char period : std::string_view(periods)) {
            Count(period == 'd' ? kDropped : 0);
            Pass(61);
        }
        EXPECT_EQ(Alarms(), alarms);
        EXPECT_EQ(g_lyrKesMsgDropStat.alarmRaised, *alarms != '\0' && Alarms().back() == 'R');
    }
}

TEST_F(DropWatch, SaysHowMuchIsDropped) {
    Count(0, 5);
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(Timers(), 0u) << "the first drop starts it";
    for (uint32_t period = 1; period <= 5; ++period) {
        Count(kDropped, 2);
        Count(0, 3);
        Count(2);
        EXPECT_EQ(Timers(), 1u) << "one for all";
        Pass(60);
        EXPECT_THAT(Lines(LineKind::kReport), IsEmpty()) << "before the period's end";
        Pass(1);
        Texts lines = {Text("msg drop happened, dropNum=%u, totalNum=%u, lastDropNum=%u",
                            2 * period, 6 * period, 2 * (period - 1))};
        if (period == 5) {
            lines.emplace_back(
                "continuous msg drop in the last 5 min, dropNum=10, totalNum=30, "
                "dropRate=33%");
        }
        EXPECT_EQ(TakeReports(), lines);
    }
    EXPECT_TRUE(IsOpen()) << "it goes on after the alarm, from the beginning";
    EXPECT_EQ(g_lyrKesMsgDropStat.totalNum, 0u);
    EXPECT_EQ(g_lyrKesMsgDropStat.periodStart, wallClock.load());
}

TEST_F(DropWatch, AlarmsCarryEveryAttribute) {
    LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrap("KES LYR HOST");
    LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrapRestore("KES LYR HOST");
    EXPECT_EQ(LyrKes_SendCapwapTaskContinuousMessageDropTrap("x", 4), 0u);
    Texts lines = Lines(LineKind::kAlarm);
    for (std::string &line : lines) {
        line = std::regex_replace(line, std::regex("time=20.*minute-ms=[0-9]+"), "time=T");
    }
    const std::string sender = R"(time=T time-kind=1 para-type=25 length=13 "KES LYR HOST")";
    EXPECT_THAT(
        lines,
        ElementsAre("raise id=0x0F2C2004 type=1 severity=4 clear-type=0 " + sender,
                    "restore id=0x0F2C2004 type=2 severity=4 clear-type=1 " + sender,
                    R"(alarm id=0x0F2C2004 type=4 severity=4 clear-type=2 time=T time-kind=1 )"
                    R"(para-type=25 length=2 "x")"));
    ImSysTime now = {};
    const auto milliseconds = [] {
        timespec clock = {};
        clock_gettime(CLOCK_REALTIME, &clock);
        return clock.tv_sec * 1000 + clock.tv_nsec / 1'000'000;
    };
    const int64_t before = milliseconds();
    LyrKes_IMSysTime(&now);
    const int64_t after = milliseconds();
    tm utc = {now.second, now.minute, now.hour, now.day, now.month - 1, now.year - 1900,
              0,          0,          0,        0,       nullptr};
    const int64_t told = timegm(&utc) * 1000 + now.milliseconds;
    EXPECT_GE(told, before);
    EXPECT_LE(told, after);
    EXPECT_EQ(now.weekDay, utc.tm_wday);
    EXPECT_EQ(now.minuteMilliseconds, now.second * 1000u + now.milliseconds);
    EXPECT_EQ(LyrKes_IMAgentSetAlarmAttr(4, 1, nullptr), kError);
}

TEST_F(DropWatch, ClosesWithItsTimer) {
    // A quiet period closes the watch, the next tick ends the timer.
    Count(kDropped);
    Pass(61);
    EXPECT_TRUE(IsOpen());
    Pass(61);
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(Timers(), 1u);
    Pass(1);
    EXPECT_EQ(Timers(), 0u);
    EXPECT_EQ(g_lyrKesMsgDropStatTimer, TOV_TIMER_ID_NONE);
    EXPECT_EQ(g_lyrKesMsgDropStat.dropNum, 0u);
    // So does a clock that goes back, and a count that does.
    Count(kDropped);
    wallClock = wallClock - 1000;
    Pass(1);
    EXPECT_FALSE(IsOpen());
    Count(kDropped);
    g_lyrKesMsgDropStat.lastDropNum = 2;
    Pass(61);
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(Timers(), 1u) << "a drop before the next tick keeps the timer";
    Pass(2);
    EXPECT_EQ(Timers(), 0u);
    EXPECT_THAT(Alarms(), IsEmpty());
}

TEST_F(DropWatch, HasOneTimerWhateverFails) {
    Count(kDropped);
    Pass(122);
    const uint32_t id = g_lyrKesMsgDropStatTimer;
    const std::string line = "failed to stop msg drop stat timer, ret 1";
    standin::FailEveryCall("TovSLcoreTimerDelete");
    ForgetLines();
    Pass(2);
    EXPECT_THAT(TakeReports(), ElementsAre(line, line)) << "a tick tries, and the next one";
    Count(kDropped);
    EXPECT_EQ(Timers(), 1u) << "no second one";
    EXPECT_EQ(g_lyrKesMsgDropStatTimer, id);
    StopModule();
    EXPECT_THAT(TakeReports(), ElementsAre(line)) << "a stop tries until it gives up";
    standin::ClearFaults();
    ASSERT_EQ(LyrKes_Init(), 0u);
    Count(kDropped);
    EXPECT_EQ(Timers(), 1u) << "it serves the next start";
    ForgetLines();
    standin::FailCall("TovSLcoreTimerDelete");
    StopModule();
    EXPECT_THAT(TakeReports(), IsEmpty()) << "tried again";
    EXPECT_EQ(Timers(), 0u);
    ASSERT_EQ(LyrKes_Init(), 0u);

    // A drop comes between the tick's look at the watch and the end of the timer.
    Count(kDropped);
    Pass(122);
    dropWhileDeleting = true;
    Pass(1);
    EXPECT_TRUE(IsOpen());
    EXPECT_EQ(Timers(), 1u);
    EXPECT_NE(g_lyrKesMsgDropStatTimer, TOV_TIMER_ID_NONE);

    Reset();
    ForgetLines();
    standin::FailCall("TovSLcoreTimerCreateAndStart");
    Count(kDropped);
    EXPECT_THAT(TakeReports(), ElementsAre("failed to start msg drop stat timer, ret 2"));
    Count(kDropped, 3);
    EXPECT_TRUE(IsOpen());
    EXPECT_EQ(Timers(), 0u) << "not tried again";
    EXPECT_THAT(TakeReports(), IsEmpty());
    Restart();
    Count(kDropped);
    EXPECT_EQ(Timers(), 1u) << "until the module is started again";
}

TEST_F(DropWatch, AnAlarmThatCannotBeSentChangesNothing) {
    for (const char *operation : {"TOV_ImAgentMsgCreate", "TOV_ImAgentSetAlarmComAttr",
                                  "TOV_ImAgentAddPara", "TOV_ImAgentSend"}) {
        SCOPED_TRACE(operation);
        Reset();
        standin::FailEveryCall(operation);
        for (const uint32_t type : {1u, 2u}) {  // raised, and restored
            for (int period = 0; period < 5; ++period) {
                ForgetLines();
                Count(type == 1 ? kDropped : 0);
                Pass(61);
            }
            EXPECT_THAT(Lines(LineKind::kReport),
                        Contains(Text("failed to send capwap task continuous message drop trap, "
                                      "name=KES LYR HOST, alarm type=%u, ret=-1.",
                                      type)));
            EXPECT_EQ(g_lyrKesMsgDropStat.alarmRaised, type == 1);
        }
        standin::ClearFaults();
    }
    EXPECT_THAT(Alarms(), IsEmpty());
}

// The timer may have taken itself away already, so that the engine knows of nothing to wait for.
TEST_F(DropWatch, AStopWaitsForARunningTick) {
    std::promise<void> reached, released;
    standin::SetLineSink([&](LineKind, std::string_view line) {
        if (line.starts_with("msg drop happened")) {
            reached.set_value();
            released.get_future().wait();
        }
    });
    Count(kDropped);
    wallClock += 61;
    std::future<uint32_t> tick =
        std::async(std::launch::async, LyrKes_MsgDropStatTimerProc, nullptr);
    reached.get_future().wait();
    std::future<uint32_t> stop = std::async(std::launch::async, LyrKes_Exit);
    EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    released.set_value();
    EXPECT_EQ(tick.get(), 0u);
    EXPECT_EQ(stop.get(), 0u);
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(g_lyrKesMsgDropStat.lastDropNum, 0u);
    standin::JoinCreatedThreads();
    ASSERT_EQ(LyrKes_Init(), 0u);
}

}  // namespace
