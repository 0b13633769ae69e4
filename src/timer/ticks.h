// ticks.h - the steps of timerUpdate that do not need to know the queues.
#ifndef TIMER_TICKS_H
#define TIMER_TICKS_H

#include "timer/timer.h"

/** Take all counted ticks at once, so that none is lost between reading and resetting. */
int32_t timer_take_elapsed();

/** Count a running timer down; at its end reload it and mark the expiry. */
void timer_age(Timer &timer, int32_t ticks);

#endif
