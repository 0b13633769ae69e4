#include "timer/sleep.h"

#include "base/clock.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sys/prctl.h>

// Threads are cancelled while they sleep. The address sanitizer would not notice the end of the
// variables that it watches.
__attribute__((no_sanitize("address"))) void sleep_full(std::chrono::microseconds duration) {
    const timespec deadline = deadline_after(duration);
    // An absolute deadline does not drift when a signal ends the sleep early.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

// A kernel that refuses leaves the slack as it is.
SleepsOnTime::SleepsOnTime() : slack_before_(std::max(0, prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0))) {
    constexpr unsigned long kShortestSlack = 1;
    (void)prctl(PR_SET_TIMERSLACK, kShortestSlack, 0, 0, 0);
}

SleepsOnTime::~SleepsOnTime() {
    (void)prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(slack_before_), 0, 0, 0);
}
