// update_layout.h - what a card gets when its firmware is updated, written once.
#ifndef AP_MSG_FIRMWARE_UPDATE_LAYOUT_H
#define AP_MSG_FIRMWARE_UPDATE_LAYOUT_H

#include "base/field.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace update {

constexpr char kImageFile[] = "/home/updatebin.tmp"; // the head and the firmware behind it

// The head in front of the firmware; all else in it is 0.
constexpr size_t kHeadSize = 256;
constexpr Field kFirmwareSize{0, 4};
constexpr Field kFirmwareChecksum{130, 2}; // kFirmwareChecksumStart and all bytes, modulo 65536
constexpr uint16_t kFirmwareChecksumStart = 0x5555;

// What the head and get_file_size can say of the file that is sent.
constexpr uint64_t kLargestImage =
    std::min<uint64_t>(std::numeric_limits<uint32_t>::max(), std::numeric_limits<long>::max());
constexpr uint64_t kLargestFirmware = kLargestImage - kHeadSize;

// Where file_info goes, field by field.
constexpr uint32_t kTotalFilesSize = 0x11F00000;
constexpr uint32_t kFilesRecvLen = 0x11F00004;
constexpr uint32_t kTotalFilesCount = 0x11F00008;
constexpr uint32_t kCurrentFileSize = 0x11F0000C;
constexpr uint32_t kVersion = 0x11F00010;
constexpr uint32_t kDeviceType = 0x18200000;
constexpr uint32_t kCardModelId = 0x18200002;

constexpr uint32_t kDataRegister = 0x18000000; // every block: the card appends them
constexpr uint32_t kBlockSize = 1024;          // bytes, the last block is shorter

// The only way to the cards that take firmware.
constexpr int kInterface = 0;
constexpr int kModel = 0;

} // namespace update

#endif
