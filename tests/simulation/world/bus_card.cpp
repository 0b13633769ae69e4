#include "world/bus_card.h"

#include "scheduler/choices.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <algorithm>

namespace sim {

namespace {

constexpr uint32_t kWrite = 0;
constexpr uint32_t kReadRequest = 1;
constexpr uint32_t kReadBack = 2;
constexpr uint32_t kResponse = 3;
constexpr size_t kHead = 24;
constexpr size_t kShortestArea = 64;

uint32_t g_writes;

uint32_t number(const Frame &frame, size_t at) {
    return static_cast<uint32_t>(frame[at]) | static_cast<uint32_t>(frame[at + 1]) << 8 |
           static_cast<uint32_t>(frame[at + 2]) << 16 | static_cast<uint32_t>(frame[at + 3]) << 24;
}

void put(Frame &frame, size_t at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; i++) {
        frame[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint16_t sum(const Frame &frame, size_t from, size_t to) {
    uint32_t total = 0;
    for (size_t i = from; i < to; i++) {
        total += frame[i];
    }
    return static_cast<uint16_t>(total);
}

Frame reply(uint32_t type, uint32_t addr, uint32_t n) {
    const size_t area = std::max<size_t>(type == kReadBack ? n : 0, kShortestArea);
    Frame frame(kHead + area + 2);
    std::fill_n(frame.begin(), 6, uint8_t{0x44});
    put(frame, 6, static_cast<uint32_t>(frame.size()), 4);
    frame[11] = static_cast<uint8_t>(type);
    frame[12] = 0x07;
    put(frame, 16, addr, 4);
    put(frame, 20, n, 4);
    for (uint32_t i = 0; type == kReadBack && i < n; i++) {
        frame[kHead + i] = bus_byte(addr + i);
    }
    if (type == kResponse) {
        frame[kHead] = 1; // refused
    }
    put(frame, frame.size() - 2, sum(frame, 6, frame.size() - 2), 2);
    return frame;
}

void check_write(const Frame &frame, uint32_t addr, uint32_t n) {
    for (uint32_t i = 0; i < n; i++) {
        if (frame[kHead + i] != bus_byte(addr + i)) {
            fail("bus card: wrong byte in a write to 0x%x", addr + i);
        }
    }
    g_writes += 1;
}

} // namespace

void reset_bus_card() {
    g_writes = 0;
}

uint8_t bus_byte(uint32_t addr) {
    return static_cast<uint8_t>(addr * 2654435761U >> 23);
}

uint32_t bus_writes() {
    return g_writes;
}

bool bus_card_receives(int index, const Frame &frame) {
    if (frame.size() < kHead + kShortestArea + 2 || frame[0] != 0xEB || frame[10] != 0 ||
        frame[11] > kReadRequest || number(frame, 6) != frame.size()) {
        return false;
    }
    const uint32_t type = frame[11];
    const uint32_t addr = number(frame, 16);
    const uint32_t n = number(frame, 20);
    const size_t end = std::min<size_t>(kHead + n, frame.size() - 2);
    const uint16_t stands =
        static_cast<uint16_t>(frame[frame.size() - 2] | frame[frame.size() - 1] << 8);
    if (sum(frame, 6, end) != stands) {
        return true; // damaged on its way
    }
    SIM_TELL("  bus card: type %u addr 0x%x n %u", type, addr, n);
    if (type == kWrite) {
        check_write(frame, addr, n);
    } else {
        const bool refuses = fault(g_settings.refuse_one_in);
        send_to_board(index, reply(refuses ? kResponse : kReadBack, addr, n));
    }
    return true;
}

} // namespace sim
