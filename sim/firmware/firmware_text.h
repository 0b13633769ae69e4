// firmware_text.h - firmware transfers in words: the card's lines, and what the trace adds.
#ifndef CARD_FIRMWARE_TEXT_H
#define CARD_FIRMWARE_TEXT_H

#include <string>

#include "firmware/firmware_side.h"

namespace card {

/** " = firmware field v" or " = firmware block 12", or that it is a stray or repeated one. */
std::string describe_firmware_request(const FirmwareRequest &what);

/** "firmware: bad field v: value 1, expected 0" */
std::string bad_field_text(FirmwareField field, const std::string &wrong);

/** "firmware: stray block of 1024 bytes: no transfer is running" */
std::string stray_block_text(size_t size, const std::string &wrong);

/** "firmware: stopped after 1024 of 4194560 bytes (1 blocks)", or before which field. */
std::string stopped_text(const FirmwareTransfer &transfer);

/** "firmware: 1025 bytes for slot 3, device type 0x0102, checksum 1A2B: intact", or why not. */
std::string complete_text(const FirmwareTransfer &transfer, const std::string &wrong);

} // namespace card

#endif
