#include "dfx/drop_watch.h"

#include <algorithm>
#include <atomic>

#include "dfx/drop_trap.h"
#include "kes/timer.h"
#include "module/diag_log.h"
#include "module/placement.h"
#include "module/spin_guard.h"
#include "module/wall_clock.h"

LYR_PACKETS_COUNT LyrKesMsgDropStat g_lyrKesMsgDropStat = {
    .dropNum = 0,
    .lastDropNum = 0,
    .totalNum = 0,
    .contDropPeriods = 0,
    .contNoDropPeriods = 0,
    .periodStart = LYR_DROP_WATCH_CLOSED,
    .alarmRaised = 0,
};
uint32_t g_lyrKesMsgDropStatTimer = TOV_TIMER_ID_NONE;

namespace {

using lyr::CountOne;
using lyr::IsDropWatchOpen;
using lyr::LoadRelaxed;
using lyr::StoreRelaxed;

constexpr uint32_t kTickMilliseconds = 1000;
constexpr uint32_t kPeriodSeconds = 61;
constexpr uint32_t kAlarmPeriods = 5;
constexpr int kStopAttempts = 3;
constexpr const char *kAlarmSource = "KES LYR HOST";

// Held by who opens the watch, starts the timer or forgets it. Nothing that waits for the timer is
// done under it.
std::atomic_flag timerFlag;

// Held by who deletes the timer, which has its id until it is gone: a drop that opens the watch
// meanwhile starts no second one. Ticks do not wait for it, since whoever has it may wait for them.
std::atomic_flag deletingFlag;

// Timer callbacks that have begun and not ended.
std::atomic<uint32_t> runningTicks{0};

class RunningTick {
  public:
    RunningTick() {
        runningTicks.fetch_add(1, std::memory_order_relaxed);
    }
    ~RunningTick() {
        runningTicks.fetch_sub(1, std::memory_order_release);
    }
    RunningTick(const RunningTick &) = delete;
    RunningTick &operator=(const RunningTick &) = delete;
};

LyrKesMsgDropStat &watch = g_lyrKesMsgDropStat;

// With the timer flag.
void StartTimer() {
    if (LoadRelaxed(g_lyrKesMsgDropStatTimer) != TOV_TIMER_ID_NONE) {
        return;
    }
    uint32_t id = TOV_TIMER_ID_NONE;
    const uint32_t result = TovSLcoreTimerCreateAndStart(kTickMilliseconds, TOV_TIMER_PERIODIC,
                                                         LyrKes_MsgDropStatTimerProc, nullptr, &id);
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "failed to start msg drop stat timer, ret %u", result);
        return;
    }
    StoreRelaxed(g_lyrKesMsgDropStatTimer, id);
}

// With the deleting flag. A timer that cannot be deleted ticks on and keeps its id.
void DeleteTimer(int attempts) {
    const uint32_t id = LoadRelaxed(g_lyrKesMsgDropStatTimer);
    if (id == TOV_TIMER_ID_NONE) {
        return;
    }
    uint32_t result = TovSLcoreTimerDelete(id);
    while (result != 0 && --attempts > 0) {
        result = TovSLcoreTimerDelete(id);
    }
    if (result != 0) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "failed to stop msg drop stat timer, ret %u", result);
        return;
    }
    const lyr::SpinGuard guard(timerFlag);
    StoreRelaxed(g_lyrKesMsgDropStatTimer, TOV_TIMER_ID_NONE);
}

// The drop that opens the watch has not been counted yet.
void Open() {
    const lyr::SpinGuard guard(timerFlag);
    const bool open = lyr::LoadAcquire(watch.periodStart) != LYR_DROP_WATCH_CLOSED;
    CountOne(watch.totalNum);
    if (!open) {
        StoreRelaxed(watch.periodStart, LyrKes_GetCurTime());
        StartTimer();
    }
}

// Ends the timer of a watch that is closed. False if it is open: a drop came first.
bool EndIdleTimer() {
    {
        const lyr::SpinGuard guard(timerFlag);
        if (IsDropWatchOpen()) {
            return false;
        }
        LyrKes_ClearMsgDropStat();
    }
    if (deletingFlag.test_and_set(std::memory_order_acquire)) {
        return true;
    }
    DeleteTimer(1);
    {
        const lyr::SpinGuard guard(timerFlag);
        if (IsDropWatchOpen()) {
            StartTimer();
        }
    }
    deletingFlag.clear(std::memory_order_release);
    return true;
}

// The end of a period with drops.
void EndDropPeriod() {
    LYR_KES_DiagLog(LYR_HOST_ERR, "msg drop happened, dropNum=%u, totalNum=%u, lastDropNum=%u",
                    LoadRelaxed(watch.dropNum), LoadRelaxed(watch.totalNum),
                    LoadRelaxed(watch.lastDropNum));
    if (LoadRelaxed(watch.alarmRaised) != 0) {
        StoreRelaxed(watch.contNoDropPeriods, 0u);
    } else {
        LyrKes_MsgDropStatContinuousDropProc();
    }
}

// The end of a period; false if the watch closes with it.
bool EndPeriod(uint32_t dropNum, uint32_t lastDropNum) {
    if (dropNum > lastDropNum) {
        EndDropPeriod();
        return true;
    }
    if (dropNum < lastDropNum || LoadRelaxed(watch.alarmRaised) == 0) {
        return false;
    }
    LyrKes_MsgDropStatContinuousNoDropProc();
    return true;
}

}  // namespace

void LyrKes_IncreaseMsgTotalStat() {
    lyr::CountWatched();
}

void LyrKes_IncreaseMsgDropStat() {
    if (!IsDropWatchOpen()) {
        Open();
    }
    CountOne(watch.dropNum);
}

void LyrKes_StartMsgDropStatTimer() {
    const lyr::SpinGuard guard(timerFlag);
    StartTimer();
}

void LyrKes_StopMsgDropStatTimer() {
    const lyr::SpinGuard guard(deletingFlag);
    DeleteTimer(kStopAttempts);
}

uint32_t LyrKes_MsgDropStatTimerProc(void * /*argument*/) {
    const RunningTick tick;
    if (EndIdleTimer()) {
        return 0;
    }
    const uint32_t now = LyrKes_GetCurTime();
    const uint32_t periodStart = LoadRelaxed(watch.periodStart);
    if (now >= periodStart && now - periodStart < kPeriodSeconds) {
        return 0;
    }
    const uint32_t dropNum = LoadRelaxed(watch.dropNum);
    if (now < periodStart || !EndPeriod(dropNum, LoadRelaxed(watch.lastDropNum))) {
        LyrKes_ClearMsgDropStat();
        return 0;
    }
    StoreRelaxed(watch.periodStart, now);
    // Drops since the comparison are the next period's; a watch that began anew counts from zero.
    StoreRelaxed(watch.lastDropNum, std::min(dropNum, LoadRelaxed(watch.dropNum)));
    return 0;
}

void LyrKes_MsgDropStatContinuousDropProc() {
    if (CountOne(watch.contDropPeriods) < kAlarmPeriods) {
        return;
    }
    const uint32_t dropNum = LoadRelaxed(watch.dropNum);
    const uint32_t totalNum = LoadRelaxed(watch.totalNum);
    const uint64_t dropRate = totalNum != 0 ? uint64_t{dropNum} * 100 / totalNum : 0;
    LYR_KES_DiagLog(LYR_HOST_ERR,
                    "continuous msg drop in the last 5 min, dropNum=%u, totalNum=%u, dropRate=%u%%",
                    dropNum, totalNum, static_cast<uint32_t>(dropRate));
    LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrap(kAlarmSource);
    LyrKes_ClearMsgDropStat();
    StoreRelaxed(watch.alarmRaised, uint8_t{1});
}

void LyrKes_MsgDropStatContinuousNoDropProc() {
    if (CountOne(watch.contNoDropPeriods) < kAlarmPeriods) {
        return;
    }
    LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrapRestore(kAlarmSource);
    LyrKes_ClearMsgDropStat();
}

void LyrKes_ClearMsgDropStat() {
    StoreRelaxed(watch.dropNum, 0u);
    StoreRelaxed(watch.lastDropNum, 0u);
    StoreRelaxed(watch.totalNum, 0u);
    StoreRelaxed(watch.contDropPeriods, 0u);
    StoreRelaxed(watch.contNoDropPeriods, 0u);
    StoreRelaxed(watch.alarmRaised, uint8_t{0});
    // Last: until then no drop opens the watch anew.
    lyr::StoreRelease(watch.periodStart, LYR_DROP_WATCH_CLOSED);
}

void lyr::EndDropWatch() {
    LyrKes_StopMsgDropStatTimer();
    while (runningTicks.load(std::memory_order_acquire) != 0) {
    }
    LyrKes_ClearMsgDropStat();
}
