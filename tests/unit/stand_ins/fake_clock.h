// fake_clock.h - the monotonic clock, played for one thread.
//
// Linked with --wrap=clock_gettime,clock_nanosleep. Other threads keep the real clock.
#ifndef TESTS_UNIT_STAND_INS_FAKE_CLOCK_H
#define TESTS_UNIT_STAND_INS_FAKE_CLOCK_H

#include <ctime>

/** While it exists, the clock of its thread stands at this time, and a sleep ends at once. */
class FakeClock {
public:
    explicit FakeClock(const timespec &now);
    ~FakeClock();
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    /** Until when the last sleep would have lasted; zero when there was none. */
    [[nodiscard]] timespec deadline() const;
};

#endif
