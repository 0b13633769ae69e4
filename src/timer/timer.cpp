#include "timer/timer.h"

#include "base/relaxed.h"
#include "timer/ticks.h"
#include "timer/unblock.h"

#include <atomic>
#include <csignal>
#include <sys/time.h>

int32_t elapsed = 0;

namespace {
constexpr suseconds_t kTickMicroseconds = suseconds_t{RUK_TICK_MS} * 1000;
} // namespace

int initTimer(void) {
    // Ignored first: a tick left over from an earlier start must not count.
    (void)signal(SIGALRM, SIG_IGN);
    store_relaxed(elapsed, 0);
    (void)signal(SIGALRM, catch_alarm);
    unblock({SIGALRM}); // without ticks no request would ever time out
    const timeval tick{.tv_sec = 0, .tv_usec = kTickMicroseconds};
    const itimerval both{.it_interval = tick, .it_value = tick};
    return setitimer(ITIMER_REAL, &both, nullptr);
}

void catch_alarm(int /*signo*/) {
    std::atomic_ref<int32_t>(elapsed).fetch_add(1, std::memory_order_relaxed);
}

void timerStart(uint16_t ticks, Timer *t) {
    *t = {.period = ticks, .remaining = ticks, .expired = 0};
}

void timerStop(Timer *t) {
    t->period = 0;
}

int timerExpired(Timer *t) {
    if (t->expired == 0) {
        return 0;
    }
    t->expired = 0;
    return 1;
}

int32_t timer_take_elapsed() {
    return std::atomic_ref<int32_t>(elapsed).exchange(0, std::memory_order_relaxed);
}

void timer_age(Timer &timer, int32_t ticks) {
    if (timer.period <= 0) {
        return;
    }
    const int64_t left = int64_t{timer.remaining} - ticks;
    if (left < 1) {
        timer.remaining = timer.period;
        timer.expired = 1;
    } else {
        timer.remaining = static_cast<int32_t>(left);
    }
}
