// clock.h - deadlines and durations on the clock that nobody sets.
#ifndef BASE_CLOCK_H
#define BASE_CLOCK_H

#include <chrono>
#include <cstdint>
#include <ctime>

/** So long from now on CLOCK_MONOTONIC, for calls that take an absolute time. */
timespec deadline_after(std::chrono::nanoseconds duration);

/** Runs from its making on. */
class Stopwatch {
public:
    [[nodiscard]] double seconds() const {
        return std::chrono::duration<double>(elapsed()).count();
    }
    [[nodiscard]] int64_t microseconds() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(elapsed()).count();
    }

private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] Clock::duration elapsed() const {
        return Clock::now() - start_;
    }

    Clock::time_point start_ = Clock::now();
};

#endif
