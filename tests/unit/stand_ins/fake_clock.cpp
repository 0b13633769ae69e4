#include "stand_ins/fake_clock.h"

#include <gtest/gtest.h>

namespace {

struct Played {
    timespec now;
    timespec deadline;
};
thread_local bool t_is_played = false;
thread_local Played t_played{};

} // namespace

FakeClock::FakeClock(const timespec &now) {
    t_played = {.now = now, .deadline = {}};
    t_is_played = true;
}

FakeClock::~FakeClock() {
    t_is_played = false;
}

timespec FakeClock::deadline() const {
    return t_played.deadline;
}

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *left);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *left);

int __wrap_clock_gettime(clockid_t clock, timespec *now) {
    if (!t_is_played) {
        return __real_clock_gettime(clock, now);
    }
    *now = t_played.now;
    return 0;
}

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *left) {
    if (!t_is_played) {
        return __real_clock_nanosleep(clock, flags, time, left);
    }
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(flags, TIMER_ABSTIME);
    t_played.deadline = *time;
    return 0;
}
}

#pragma GCC visibility pop
