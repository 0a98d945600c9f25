// Watches for packets that could not be handed to their service instance: drops in five periods on
// end raise an alarm, five quiet periods after that restore it. The first drop opens the watch and
// starts a timer of one second; the timer evaluates the watch and ends itself after it has closed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "module/export.h"
#include "module/shared_word.h"

constexpr uint32_t LYR_DROP_WATCH_CLOSED = 0xFFFFFFFF;

struct LyrKesMsgDropStat {
    uint32_t dropNum;            // packets dropped since the watch opened
    uint32_t lastDropNum;        // the same at the end of the previous period
    uint32_t totalNum;           // packets counted since the watch opened, drops included
    uint32_t contDropPeriods;    // periods with drops on end while the alarm is not raised
    uint32_t contNoDropPeriods;  // periods without while it is
    uint32_t periodStart;        // wall-clock second, or LYR_DROP_WATCH_CLOSED
    uint8_t alarmRaised;
};
static_assert(offsetof(LyrKesMsgDropStat, periodStart) == 20, "period start at 20");
static_assert(offsetof(LyrKesMsgDropStat, alarmRaised) == 24, "alarm at 24");
static_assert(sizeof(LyrKesMsgDropStat) == 28, "drop watch of 28 bytes");

// The watch. Forwarding threads count and the timer evaluates without a lock: counts may be lost.
LYR_API LyrKesMsgDropStat g_lyrKesMsgDropStat;
// The timer's id, or TOV_TIMER_ID_NONE.
LYR_API uint32_t g_lyrKesMsgDropStatTimer;

// Count a packet, and a dropped packet, on the forwarding threads. The drop that opens the watch
// starts the timer.
LYR_API void LyrKes_IncreaseMsgTotalStat();
LYR_API void LyrKes_IncreaseMsgDropStat();

// Start the timer unless there is one, and end it if there is one. A timer that cannot be deleted
// keeps its id and ticks on: its ticks try again while the watch is closed, and no second one
// starts.
LYR_API void LyrKes_StartMsgDropStatTimer();
LYR_API void LyrKes_StopMsgDropStatTimer();

// What the timer runs each second, on the engine's timer thread. Returns 0.
LYR_API uint32_t LyrKes_MsgDropStatTimerProc(void *argument);
// The ends of a period with drops before the alarm, and of one without after it.
LYR_API void LyrKes_MsgDropStatContinuousDropProc();
LYR_API void LyrKes_MsgDropStatContinuousNoDropProc();

// Closes the watch and forgets everything that it knew, the alarm included.
LYR_API void LyrKes_ClearMsgDropStat();

namespace lyr {

inline bool IsDropWatchOpen() {
    return LoadRelaxed(g_lyrKesMsgDropStat.periodStart) != LYR_DROP_WATCH_CLOSED;
}

// Counts a packet if the watch is open.
inline void CountWatched() {
    if (IsDropWatchOpen()) {
        CountOne(g_lyrKesMsgDropStat.totalNum);
    }
}

// Ends the timer, waits until it is not running, and closes the watch. Once no packets come.
void EndDropWatch();

}  // namespace lyr
