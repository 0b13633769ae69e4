#include "timer/sleep.h"

#include <cerrno>
#include <ctime>

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
