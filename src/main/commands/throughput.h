// throughput.h - what the built-in throughput tests of the write and the read commands share.
//
// A test sends as fast as it can for a fixed time. Its loop sends and reads the clock, nothing
// else: whatever it did besides would be measured along.
#ifndef MAIN_COMMANDS_THROUGHPUT_H
#define MAIN_COMMANDS_THROUGHPUT_H

#include <chrono>
#include <cstdint>

/**
 * Clocks of 32 bits, of which only differences have a meaning: those stay right when a clock wraps.
 * They do not follow the time of day, which a board gets minutes after its start.
 */
uint32_t microsecond_clock();
uint32_t second_clock();

/** How often a request went out, and in which time. */
struct Throughput {
    int32_t elapsed = 0; // units of the test's clock
    uint64_t packets = 0;
};

/** How long a test runs and how it tells its result. */
struct Measurement {
    uint32_t (*now)();
    int32_t until; // elapsed units of that clock
    void (*log_result)(const char *verb, const Throughput &result, uint32_t bytes_per_packet);
};

/** "%d us : send ... packets ... bytes", figures of 32 bits. */
void log_microseconds(const char *verb, const Throughput &result, uint32_t bytes_per_packet);
/** "%d s : send ... packets ... bytes", figures of 64 bits. */
void log_seconds(const char *verb, const Throughput &result, uint32_t bytes_per_packet);

constexpr Measurement kTwoSeconds{microsecond_clock, 2'000'000, log_microseconds};
constexpr Measurement kTwelveHours{second_clock, 43'200, log_seconds};

// Bytes are not measured but computed from the packets, with the figures that all earlier results
// were computed with: only so can a board be compared with its past.
constexpr uint32_t kSmallPacket = 94;
constexpr uint32_t kFullPacket = 1430;

// For answers that are still under way when the last request is out.
constexpr std::chrono::microseconds kLongClosingSleep = 10 * std::chrono::microseconds{500'000};
constexpr std::chrono::microseconds kShortClosingSleep = 10 * std::chrono::microseconds{300'000};

/** Repeat a request until the time is over; at least once. */
template <typename Request>
Throughput measure(const Measurement &measurement, Request request) {
    Throughput result;
    const uint32_t start = measurement.now();
    do {
        result.packets += 1;
        request();
        result.elapsed = static_cast<int32_t>(measurement.now() - start);
    } while (result.elapsed < measurement.until);
    return result;
}

#endif
