// new_file.h - numbered files in a directory, none of which replaces another.
#ifndef CARD_NEW_FILE_H
#define CARD_NEW_FILE_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "fd.h"

namespace card {

constexpr mode_t kFileMode = 0666; // less what the umask takes away

/** "picture" and ".png" for picture-001.png, picture-002.png and so on. */
struct NumberedName {
    const char *stem;
    const char *suffix;
};

/**
 * Create a file with the next free number. `number` is where the search starts, and is set behind
 * the number taken; `path` is set to the name. Without a file, errno says why.
 */
Fd create_numbered(const std::string &directory, const NumberedName &name, uint32_t &number,
                   std::string &path);

/**
 * Try whether files can be made in the directory; leaves none. Returns an empty text, or a message
 * that begins with what the files are for.
 */
std::string check_directory(const char *what, const std::string &directory);

} // namespace card

#endif
