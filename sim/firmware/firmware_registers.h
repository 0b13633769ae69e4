// firmware_registers.h - the registers through which firmware comes in, and the layout of its head.
#ifndef CARD_FIRMWARE_REGISTERS_H
#define CARD_FIRMWARE_REGISTERS_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "wire/bytes.h"

namespace card {

/** What is told about a transfer before its data, in this order. */
enum class FirmwareField : uint8_t {
    kTotalFilesSize, // bytes that will come, the head included
    kFilesRecvLen,   // bytes that have come already
    kTotalFilesCount,
    kCurrentFileSize,
    kV,
    kDeviceType, // high byte first, as the only one
    kCardModelid,
};
constexpr size_t kFirmwareFields = 7;

struct FirmwareRegister {
    const char *name;
    uint32_t addr;
    size_t size;
};

// In the order of FirmwareField.
constexpr std::array<FirmwareRegister, kFirmwareFields> kFirmwareRegisters = {{
    {.name = "total_files_size", .addr = 0x11F00000, .size = 4},
    {.name = "files_recv_len", .addr = 0x11F00004, .size = 4},
    {.name = "total_files_count", .addr = 0x11F00008, .size = 4},
    {.name = "current_file_size", .addr = 0x11F0000C, .size = 4},
    {.name = "v", .addr = 0x11F00010, .size = 1},
    {.name = "device_type", .addr = 0x18200000, .size = 2},
    {.name = "card_modelid", .addr = 0x18200002, .size = 3},
}};

constexpr uint32_t kFirmwareData = 0x18000000; // takes the blocks, one after the other
constexpr uint16_t kFirmwareModel = 0;         // whatever the card's own model is

// The head before the firmware; all its other bytes are 0.
namespace firmware_head {
constexpr Field kFirmwareSize{0, 4};
constexpr Field kChecksum{130, 2};
constexpr size_t kSize = 256;
} // namespace firmware_head

constexpr uint16_t kFirmwareChecksumStart = 0x5555;

// The most that a transfer may announce: it is kept in memory until it is complete.
constexpr uint32_t kMaxFirmwareTotal = uint32_t{256} << 20;

} // namespace card

#endif
