// requests.h - what is sent, the same for every client.
#ifndef BENCH_REQUESTS_H
#define BENCH_REQUESTS_H

#include <array>
#include <cstdint>
#include <vector>

struct RoundTrip {
    const char *name;
    uint8_t code;
    uint32_t len;
};

constexpr std::array<RoundTrip, 4> kRoundTrips{{
    {.name = "read 4", .code = 0x00, .len = 4},
    {.name = "read 1400", .code = 0x00, .len = 1400},
    {.name = "write 4", .code = 0x11, .len = 4},
    {.name = "write 1400", .code = 0x11, .len = 1400},
}};

constexpr uint16_t kModel = 1;
constexpr uint8_t kSlot = 3;
constexpr uint32_t kAddress = 0x1000;
constexpr uint8_t kWriteCode = 0x01;
constexpr uint8_t kData = 0x5A;

/** A request frame as the product packs it. */
std::vector<uint8_t> make_request(uint8_t code, uint32_t addr, uint16_t seq, uint32_t len);

#endif
