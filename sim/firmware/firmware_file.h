// firmware_file.h - the firmware that came, as files to compare with those that were sent.
//
// Functions that can fail return an empty text, or a message that says which step failed.
#ifndef CARD_FIRMWARE_FILE_H
#define CARD_FIRMWARE_FILE_H

#include <cstdint>
#include <string>

#include "wire/bytes.h"

namespace card {

/**
 * Save an image without its head under the next free name firmware-NNN.bin of the directory.
 * `number` is where the search starts, and is set behind the number taken; `path` is set to the
 * name. An empty image is one that was given up because too many waited.
 */
std::string save_firmware(Bytes image, const std::string &directory, uint32_t &number,
                          std::string &path);

} // namespace card

#endif
