#include "timer/sleep.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sys/prctl.h>

void sleep_full(std::chrono::microseconds duration) {
    using std::chrono::nanoseconds;
    constexpr long kNanosecondsPerSecond = 1000000000L;

    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline); // always there on Linux
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    deadline.tv_sec += static_cast<time_t>(seconds.count());
    deadline.tv_nsec += static_cast<long>(nanoseconds(duration - seconds).count());
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
        deadline.tv_nsec -= kNanosecondsPerSecond;
        deadline.tv_sec += 1;
    }
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
