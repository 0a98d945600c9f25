/* Timers: their callbacks run on the engine's timer thread, one at a time. */
#ifndef KES_TIMER_H
#define KES_TIMER_H

#include "kes/api.h"

KES_BEGIN_DECLS

#define TOV_TIMER_ID_NONE 0xFFFFFFFFu

enum { TOV_TIMER_ONCE = 0, TOV_TIMER_PERIODIC = 1 };

typedef uint32_t (*TovTimerFunc)(void *argument);

/* Creates a timer that calls callback(argument) every `periodMs` milliseconds (or once), starts it
 * and stores its id. Returns 0, or an error code: 1 invalid argument, 2 no timer to be had. */
KES_API uint32_t TovSLcoreTimerCreateAndStart(uint32_t periodMs, uint32_t mode,
                                              TovTimerFunc callback, void *argument,
                                              uint32_t *timerId);

/* Deletes a timer and waits until its callback is not running, unless the callback itself asks.
 * Returns 0, or 1 if there is no such timer. */
KES_API uint32_t TovSLcoreTimerDelete(uint32_t timerId);

KES_END_DECLS

#endif
