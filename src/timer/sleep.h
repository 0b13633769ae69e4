// sleep.h - sleeping for the full time.
#ifndef TIMER_SLEEP_H
#define TIMER_SLEEP_H

#include <chrono>

/**
 * Sleep until the time has passed, however many ticks (SIGALRM every 30 ms) interrupt it.
 * Leaves errno alone. A cancellation point.
 */
void sleep_full(std::chrono::microseconds duration);

/**
 * Lets the calling thread's sleeps end on time for a scope. Otherwise the kernel may take 50 us
 * longer to wake a thread without real-time priority, which is much where microseconds are slept.
 */
class SleepsOnTime {
public:
    SleepsOnTime();
    ~SleepsOnTime();
    SleepsOnTime(const SleepsOnTime &) = delete;
    SleepsOnTime &operator=(const SleepsOnTime &) = delete;

private:
    int slack_before_; // ns; 0: the thread's default
};

#endif
