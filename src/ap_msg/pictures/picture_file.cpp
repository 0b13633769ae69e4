#include "ap_msg/pictures/picture_file.h"

#include "ap_msg/pictures/bmp_layout.h"
#include "log/write.h"

PictureFormat picture_format(std::string_view name) {
    if (name.ends_with(".bmp")) {
        return PictureFormat::kBmp;
    }
    return name.ends_with(".txt") ? PictureFormat::kText : PictureFormat::kOther;
}

PictureError read_picture(FILE *file, int64_t size, PictureFile &picture) {
    picture.bytes = size < 0 ? nullptr : heap_bytes(static_cast<uint64_t>(size));
    if (picture.bytes == nullptr) {
        LOG("\nmalloc p failed\n");
        return PictureError::kNoMemory;
    }
    picture.size = static_cast<uint64_t>(size);
    if (fread(picture.bytes.get(), 1, static_cast<size_t>(size), file) != picture.size) {
        LOG("\nfread failed\n");
        return PictureError::kShortRead;
    }
    return PictureError::kNone;
}

uint64_t pixel_offset(const PictureFile &picture, PictureFormat format) {
    if (format != PictureFormat::kBmp) {
        return 0;
    }
    if (picture.size < bmp::kPixelOffset.offset + bmp::kPixelOffset.width) {
        return std::numeric_limits<uint64_t>::max();
    }
    const uint32_t offset = load_le(picture.bytes.get(), bmp::kPixelOffset);
    LOG("offset = %d\n", static_cast<int>(offset));
    return offset;
}

bool holds_pixels(const PictureFile &picture, uint64_t offset, uint64_t needed, uint32_t hor,
                  uint32_t ver) {
    if (offset <= picture.size && picture.size - offset >= needed) {
        return true;
    }
    LOG("\nfile size error, hor=%d, ver=%d, filesize=%d\n", static_cast<int>(hor),
        static_cast<int>(ver), static_cast<int>(picture.size));
    return false;
}
