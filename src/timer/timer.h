// timer.h - the 30 ms tick and the countdowns of outstanding requests.
//
// SIGALRM only counts; timerUpdate takes the counted ticks and ages the timers of queued records.
// One tick is 30 ms. The count is one for the whole process; an update that takes ticks keeps them
// for the other interfaces that are updated too, so each interface is aged by all of them.
#ifndef RUK_TIMER_TIMER_H
#define RUK_TIMER_TIMER_H

#include "base/export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Milliseconds from one tick to the next. */
#define RUK_TICK_MS 30

/** A periodic countdown. All zero is a stopped timer. */
typedef struct Timer {
    int32_t period;    /* reload value in ticks, 0 = stopped */
    int32_t remaining; /* ticks left until the next expiry */
    int32_t expired;   /* 1 when an expiry has not been consumed yet */
} Timer;

/** Ticks counted and not yet taken by a timerUpdate of any interface. */
extern RUK_API int32_t elapsed;

/**
 * Clear the count, install catch_alarm for SIGALRM and start the process's real-time interval
 * timer at 30 ms. SIGALRM is unblocked for the calling thread and for those that it starts later:
 * at least one thread of the process must take it.
 *
 * Returns the result of setitimer: 0, or -1 with errno.
 */
RUK_API int initTimer(void);

/** The SIGALRM handler: counts one tick. The argument is ignored. Signal handlers: yes. */
RUK_API void catch_alarm(int signo);

/**
 * Start or restart a timer at so many ticks; 0 stops it.
 * Threads: while the record is queued, only under its queue's lock.
 */
RUK_API void timerStart(uint16_t ticks, Timer *t);

/** Stop a timer; an expiry that was not consumed stays. Threads: as timerStart. */
RUK_API void timerStop(Timer *t);

/** Consume an expiry. Returns 1 once for each, else 0. Threads: as timerStart. */
RUK_API int timerExpired(Timer *t);

/**
 * Take the counted ticks, also those that updates of other interfaces took since this interface's
 * last one, and age the timers of the first nqueues queues of an interface. Several
 * expiries that fall into one update are reported as one, and the timer starts over in full.
 * It needs to know the queues, so it lives above them: queue/age.cpp.
 *
 *   index    interface, 0..2; any other is ignored and takes no ticks
 *   nqueues  0..6; more is taken as 6
 *
 * Threads: any.  Blocks: for each queue's lock in turn.
 */
RUK_API void timerUpdate(uint32_t index, int32_t nqueues);

#ifdef __cplusplus
}
#endif
#endif
