// memory_file.h - the card's memory from and to files.
//
// Both return an empty text, or a message that says which step failed.
#ifndef CARD_MEMORY_FILE_H
#define CARD_MEMORY_FILE_H

#include <string>

#include "registers/memory.h"

namespace card {

/** What to load: the whole file, to `addr` on. */
struct LoadOrder {
    std::string path;
    uint32_t addr = 0;
};

/** What to save: `len` bytes from `addr` on, or with `whole` all that exists from address 0 on. */
struct SaveOrder {
    std::string path;
    bool whole = true;
    uint32_t addr = 0;
    uint64_t len = 0;
};

/** Holes of a sparse file are skipped, so a saved memory loads as fast as it was filled. */
std::string memory_load(Memory &memory, const LoadOrder &order);

/**
 * A whole memory becomes a file that ends with the last page written, with holes where no page
 * exists. A file that exists is replaced.
 */
std::string memory_save(const Memory &memory, const SaveOrder &order);

} // namespace card

#endif
