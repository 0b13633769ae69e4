#include "main/commands/throughput.h"

#include "log/write.h"

#include <ctime>

namespace {

timespec monotonic_now() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // always there on Linux
    return now;
}

} // namespace

uint32_t microsecond_clock() {
    constexpr uint32_t kPerSecond = 1'000'000;
    constexpr long kNanoseconds = 1'000;
    const timespec now = monotonic_now();
    return static_cast<uint32_t>(now.tv_sec) * kPerSecond +
           static_cast<uint32_t>(now.tv_nsec / kNanoseconds);
}

uint32_t second_clock() {
    return static_cast<uint32_t>(monotonic_now().tv_sec);
}

void log_microseconds(const char *verb, const Throughput &result, uint32_t bytes_per_packet) {
    const auto packets = static_cast<uint32_t>(result.packets); // wraps like the clock
    LOG("%d us : send %s %d packets %d bytes\n", result.elapsed, verb, static_cast<int>(packets),
        static_cast<int>(packets * bytes_per_packet));
}

void log_seconds(const char *verb, const Throughput &result, uint32_t bytes_per_packet) {
    LOG("%d s : send %s %lld packets %lld bytes\n", result.elapsed, verb,
        static_cast<long long>(result.packets),
        static_cast<long long>(result.packets * bytes_per_packet));
}
