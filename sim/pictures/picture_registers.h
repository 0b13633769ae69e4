// picture_registers.h - the registers of the card's picture side, and the layouts of their records.
#ifndef CARD_PICTURE_REGISTERS_H
#define CARD_PICTURE_REGISTERS_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "wire/bytes.h"

namespace card {

/** The registers of one DDR2 memory. Only chunk bytes also go to the addresses behind theirs. */
struct Ddr2Registers {
    uint32_t data;    // written: bytes of a chunk; read: the read-back FIFO
    uint32_t move;    // moves the chunk to the memory
    uint32_t command; // which bytes to read back
    uint32_t start;   // starts the command
    uint32_t status;  // 1: the last command is done
};

constexpr size_t kDdr2Memories = 2;
constexpr std::array<Ddr2Registers, kDdr2Memories> kDdr2Registers = {{
    {.data = 0xB0000, .move = 0xA0001, .command = 0xA0008, .start = 0xA00FF, .status = 0xA0FFD},
    {.data = 0xF0000, .move = 0xE0001, .command = 0xE0008, .start = 0xE00FF, .status = 0xE0FFD},
}};

constexpr size_t kChunkWindow = 16384; // addresses from the data register on that take chunk bytes
constexpr size_t kBurstBytes = 64;     // a memory moves whole bursts only
constexpr size_t kUnitBytes = 8;       // what the addresses in the records count

// The record for the move and for the command register.
namespace ddr2_record {
constexpr Field kAddr{0, 4};
constexpr Field kBursts{4, 2};
constexpr Field kMode{6, 1};
constexpr size_t kSize = 7;
constexpr uint32_t kModeMove = 1;
constexpr uint32_t kModeCommand = 0;
} // namespace ddr2_record

constexpr uint32_t kPortControl = 0x7040;
constexpr uint32_t kPortData = 0x40000;
constexpr size_t kPortPixelBytes = 3;

// The record for the picture port's control register that sets the size.
namespace port_record {
constexpr Field kZero{0, 1};
constexpr Field kWidth{1, 2};
constexpr Field kHeight{3, 2};
constexpr Field kEnd{5, 1};
constexpr size_t kSize = 6;
} // namespace port_record

constexpr uint8_t kOff = 0;
constexpr uint8_t kOn = 1;

} // namespace card

#endif
