// A picture out of a card's memory into two files: the bytes as they came, and a BMP to look at.
#include "ap_msg/ap_msg.h"

#include "ap_msg/input_file.h"
#include "ap_msg/pictures/bmp_layout.h"
#include "ap_msg/pictures/picture_request.h"
#include "ap_msg/shown.h"
#include "base/clock.h"
#include "board/board.h"
#include "log/write.h"
#include "raw_msg/ddr2.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace {

constexpr char kBmpEnding[] = ".bmp";

struct Picture {
    uint32_t hor;
    uint32_t ver;
    HeapBytes pixels;

    [[nodiscard]] uint64_t size() const {
        return bytes_of(hor, ver, ddr2::kPixelSize);
    }
};

bool get_memory(Picture &picture) {
    if (picture.size() > bmp::kLargestImage) {
        LOG("ap_msg: read picture: %u x %u pixels are more than a BMP file can hold\n", picture.hor,
            picture.ver);
        return false;
    }
    picture.pixels = heap_bytes(picture.size());
    if (picture.pixels == nullptr) {
        LOG("ap_msg: read picture: no memory for %u x %u pixels\n", picture.hor, picture.ver);
        return false;
    }
    return true;
}

void write_bmp_header(FILE *file, const Picture &picture) {
    const auto image_size = static_cast<uint32_t>(picture.size());
    uint8_t header[bmp::kHeaderSize] = {};
    store_le(header, bmp::kMagic, bmp::kMagicValue);
    store_le(header, bmp::kFileSize, image_size + bmp::kHeaderSize);
    store_le(header, bmp::kPixelOffset, bmp::kHeaderSize);
    store_le(header, bmp::kInfoSize, bmp::kInfoHeaderSize);
    store_le(header, bmp::kWidth, picture.hor);
    store_le(header, bmp::kHeight, picture.ver);
    store_le(header, bmp::kPlanes, 1);
    store_le(header, bmp::kBitsPerPixel, bmp::kDepth);
    store_le(header, bmp::kImageSize, image_size);
    (void)fwrite(header, sizeof header, 1, file); // a failure shows when the file is closed
}

// The row that was read first stands last. Of rows without pixels there may be billions.
void write_bmp_rows(FILE *file, const Picture &picture) {
    const size_t line = size_t{picture.hor} * ddr2::kPixelSize;
    for (size_t i = line == 0 ? 0 : picture.ver; i > 0; i--) {
        (void)fwrite(picture.pixels.get() + (i - 1) * line, 1, line, file);
    }
}

// 0x55, red, green, blue in the memory; blue, green, red, 0x55 in a BMP file.
void reverse_pixels(const Picture &picture) {
    uint8_t *const begin = picture.pixels.get();
    for (uint8_t *pixel = begin; pixel != begin + picture.size(); pixel += ddr2::kPixelSize) {
        std::reverse(pixel, pixel + ddr2::kPixelSize);
    }
}

void read_timed(const Request &from, const Picture &picture) {
    constexpr int64_t kMicrosecondsPerSecond = 1000000;
    const Stopwatch watch;
    DDR2Read(from.index, from.model, from.slot, from.addr, static_cast<uint16_t>(picture.hor),
             static_cast<uint16_t>(picture.ver), picture.pixels.get());
    const int64_t took = watch.microseconds();
    LOG("\ntotal time:%d sec,%d usec", static_cast<int>(took / kMicrosecondsPerSecond),
        static_cast<int>(took % kMicrosecondsPerSecond));
}

bool bmp_name_of(const char *name, std::span<char> bmp_name) {
    char whole[sizeof(PictureRequest::name) + sizeof kBmpEnding];
    (void)snprintf(whole, sizeof whole, "%s%s", name, kBmpEnding);
    return copy_name(whole, bmp_name);
}

} // namespace

int read_file_handle(void * /*head*/, void *req) {
    PictureRequest request;
    char bmp_name[message::kLongestBmpName + 1];
    if (!read_picture_request(req, request)) {
        return -1;
    }
    LOG("\n%d ddr to filename:%s\n", 0, Shown(request.name).text());
    Picture picture{.hor = request.hor, .ver = request.ver, .pixels = nullptr};
    if (!bmp_name_of(request.name, bmp_name) || !get_memory(picture)) {
        return -1;
    }
    File bmp_file = open_output(bmp_name);
    if (bmp_file != nullptr) {
        write_bmp_header(bmp_file.get(), picture);
    }
    File plain_file = bmp_file == nullptr ? nullptr : open_output(request.name);
    if (plain_file == nullptr) {
        LOG("\nfile open failed\n");
        return -1;
    }
    read_timed(request.to, picture);
    (void)my_system("sync"); // the files are of use without it
    LOG("\nwait for bmp file generatiiiiing....");
    (void)fwrite(picture.pixels.get(), 1, static_cast<size_t>(picture.size()), plain_file.get());
    reverse_pixels(picture);
    write_bmp_rows(bmp_file.get(), picture);
    const bool plain_is_whole = close_output(std::move(plain_file), request.name);
    const bool bmp_is_whole = close_output(std::move(bmp_file), bmp_name);
    return plain_is_whole && bmp_is_whole ? 0 : -1;
}
