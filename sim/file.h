// file.h - a stdio file that closes itself.
#ifndef CARD_FILE_H
#define CARD_FILE_H

#include <cstdio>
#include <memory>

namespace card {

struct CloseFile {
    void operator()(FILE *file) const {
        (void)std::fclose(file); // whoever needs the bytes on the disk has flushed and looked
    }
};

using File = std::unique_ptr<FILE, CloseFile>;

} // namespace card

#endif
