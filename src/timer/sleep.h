// sleep.h - sleeping for the full time.
#ifndef TIMER_SLEEP_H
#define TIMER_SLEEP_H

#include <chrono>

/**
 * Sleep until the time has passed, however many ticks (SIGALRM every 30 ms) interrupt it.
 * Leaves errno alone. A cancellation point.
 */
void sleep_full(std::chrono::microseconds duration);

#endif
