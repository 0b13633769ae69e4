// ddr2.h - how a card's two DDR2 memories are reached through its registers, written once.
//
// Bytes go to a data register and a control record says where in the memory they belong; for the
// way back a command record asks for bursts, which the data register then gives out.
#ifndef RAW_MSG_DDR2_H
#define RAW_MSG_DDR2_H

#include "base/field.h"

namespace ddr2 {

struct Registers {
    uint32_t write_control;
    uint32_t read_command;
    uint32_t read_start;
    uint32_t read_status;
    uint32_t data; // both ways
};
constexpr Registers kFirst{.write_control = 0xA0001,
                           .read_command = 0xA0008,
                           .read_start = 0xA00FF,
                           .read_status = 0xA0FFD,
                           .data = 0xB0000};
constexpr Registers kSecond{.write_control = 0xE0001,
                            .read_command = 0xE0008,
                            .read_start = 0xE00FF,
                            .read_status = 0xE0FFD,
                            .data = 0xF0000};

// The record of write_control and read_command. A write starts with it; a read is started by
// writing kStarted to read_start.
constexpr Field kAddr{0, 4};   // in words of 8 bytes
constexpr Field kBursts{4, 2}; // of 64 bytes
constexpr Field kStart{6, 1};
constexpr uint32_t kRecordSize = 7;
constexpr uint8_t kStarted = 1;

constexpr uint32_t kPixelSize = 4;  // bytes
constexpr uint32_t kBurstSize = 64; // bytes: the memory's unit of transfer

constexpr uint32_t bursts_of(uint32_t bytes) {
    return bytes / kBurstSize + (bytes % kBurstSize > 0 ? 1 : 0);
}

/** How far a transfer moves the memory's address: whole bursts of eight words each. */
constexpr uint32_t address_step(uint32_t bytes) {
    constexpr uint32_t kWordsPerBurst = 8;
    return bursts_of(bytes) * kWordsPerBurst;
}

/** Bytes that a line of pixels takes up in the memory: lines begin at bursts. */
constexpr uint64_t line_stride(uint64_t pixels) {
    const uint64_t line = pixels * kPixelSize;
    return (line + kBurstSize - 1) / kBurstSize * kBurstSize;
}

} // namespace ddr2

#endif
