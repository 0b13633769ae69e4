// picture_file.h - picture files on their way into a card's memory.
#ifndef AP_MSG_PICTURES_PICTURE_FILE_H
#define AP_MSG_PICTURES_PICTURE_FILE_H

#include "base/owners.h"

#include <string_view>

/** What the last four characters of a file's name say. ".BMP" is not ".bmp". */
enum class PictureFormat { kBmp, kText, kOther };
PictureFormat picture_format(std::string_view name);

constexpr uint32_t kPortPixelSize = 3; // bytes of the picture port: blue, green, red

struct PictureFile {
    HeapBytes bytes;
    uint64_t size = 0;
};

enum class PictureError { kNone, kNoMemory, kShortRead };

/** Read the size bytes of an open file, below 0 = unknown. A failure is logged. */
PictureError read_picture(FILE *file, int64_t size, PictureFile &picture);

/**
 * Where a picture's pixels begin: what the header of a BMP file says (logged), else 0. Behind every
 * file's end when the file is too short for the header.
 */
uint64_t pixel_offset(const PictureFile &picture, PictureFormat format);

/** Whether so many bytes of pixels begin there. If not, the size error is logged. */
bool holds_pixels(const PictureFile &picture, uint64_t offset, uint64_t needed, uint32_t hor,
                  uint32_t ver);

#endif
