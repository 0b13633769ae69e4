// picture_file.h - pictures from the card to PNG files that a person can look at.
//
// Functions that can fail return an empty text, or a message that says which step failed.
#ifndef CARD_PICTURE_FILE_H
#define CARD_PICTURE_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "pictures/picture_port.h"
#include "registers/memory.h"

namespace card {

/** A region of a DDR2 memory to save as a picture. */
struct Ddr2PictureOrder {
    size_t memory = 0;
    uint32_t addr = 0; // in units
    uint32_t width = 0;
    uint32_t height = 0;
};

/** Whether the region lies in the memory and is not too large to save. */
bool ddr2_picture_fits(const Ddr2PictureOrder &order);

/**
 * Save a picture under the next free name picture-NNN.png of the directory; what is missing is
 * black. `number` is where the search starts, and is set behind the number taken; `path` is set to
 * the name.
 */
std::string save_port_picture(PortPicture picture, const std::string &directory, uint32_t &number,
                              std::string &path);

/** Save a region as ddr2-MEM-ADDR.png in the directory; a file of that name is replaced. */
std::string save_ddr2_picture(const Memory &memory, const Ddr2PictureOrder &order,
                              const std::string &directory, std::string &path);

} // namespace card

#endif
