#include "base/clock.h"

timespec deadline_after(std::chrono::nanoseconds duration) {
    constexpr long kPerSecond = 1000000000L;
    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline); // always there on Linux
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    deadline.tv_sec += static_cast<time_t>(seconds.count());
    deadline.tv_nsec += static_cast<long>((duration - seconds).count());
    if (deadline.tv_nsec >= kPerSecond) {
        deadline.tv_nsec -= kPerSecond;
        deadline.tv_sec += 1;
    }
    return deadline;
}
