// Picture files into FPGA memory, for hosts.
#include "main/main.h"

#include "ap_msg/input_file.h"
#include "ap_msg/pictures/picture_file.h"
#include "log/write.h"
#include "raw_msg/ddr2.h"
#include "raw_msg/raw_msg.h"

#include <cstring>
#include <sys/time.h>

namespace {

constexpr uint32_t kFilePixelSize = 3; // bytes: blue, green, red
constexpr uint8_t kOpaque = 0x55;      // first byte of each pixel in the memory
constexpr double kMicrosecondsPerSecond = 1000000.0;

// What DDR2Write is told.
struct Target {
    uint8_t ts_sel;
    uint8_t fpga_sel;
    uint8_t ddr_sel;
    uint32_t addr;
    uint32_t hor;
    uint32_t ver;
};

// Too short a selector selects nothing.
char selector(const char *text, size_t position) {
    return strnlen(text, position + 1) > position ? text[position] : '\0';
}

Target target_of(uint32_t addr, uint32_t hor, uint32_t ver, const char *ts, const char *sel) {
    return {.ts_sel = static_cast<uint8_t>(selector(ts, 1)),
            .fpga_sel = static_cast<uint8_t>(convert_index(selector(sel, 1))),
            .ddr_sel = static_cast<uint8_t>(convert_index(selector(sel, 2))),
            .addr = addr,
            .hor = hor,
            .ver = ver};
}

// The low 16 bits are what fits the card's own size registers.
uint16_t card_hor(const Target &target) {
    return static_cast<uint16_t>(target.hor);
}

uint16_t card_ver(const Target &target) {
    return static_cast<uint16_t>(target.ver);
}

void send(const Target &target, const uint8_t *pixels) {
    DDR2Write(target.ts_sel, target.fpga_sel, target.addr, card_hor(target), card_ver(target),
              pixels, target.ddr_sel);
}

// Blue, green, red from the bottom row up become 0x55, red, green, blue from the top row down.
// Null: no memory. Rows in the file are taken without their padding.
HeapBytes convert(const Target &target, const uint8_t *source) {
    const uint64_t line = uint64_t{target.hor} * ddr2::kPixelSize;
    HeapBytes converted = heap_bytes(bytes_of(target.hor, target.ver, ddr2::kPixelSize));
    const uint64_t rows = target.hor == 0 ? 0 : target.ver; // empty rows may be billions
    for (uint64_t row = rows; converted != nullptr && row > 0; row--) {
        uint8_t *pixel = converted.get() + (row - 1) * line;
        for (uint32_t i = 0; i < target.hor; i++) {
            pixel[0] = kOpaque;
            pixel[1] = source[2];
            pixel[2] = source[1];
            pixel[3] = source[0];
            pixel += ddr2::kPixelSize;
            source += kFilePixelSize;
        }
    }
    return converted;
}

bool send_bmp(const Target &target, const PictureFile &picture) {
    const uint64_t offset = pixel_offset(picture, PictureFormat::kBmp);
    const uint64_t needed = bytes_of(target.hor, target.ver, kFilePixelSize);
    if (!holds_pixels(picture, offset, needed, target.hor, target.ver)) {
        return false;
    }
    const HeapBytes converted = convert(target, picture.bytes.get() + offset);
    if (converted == nullptr) {
        LOG("\nmalloc buffer failed\n");
        return false;
    }
    send(target, converted.get());
    return true;
}

bool send_as_it_is(const Target &target, const PictureFile &picture) {
    const uint64_t needed = bytes_of(card_hor(target), card_ver(target), ddr2::kPixelSize);
    if (!holds_pixels(picture, 0, needed, target.hor, target.ver)) {
        return false;
    }
    send(target, picture.bytes.get());
    return true;
}

// Microseconds in 32 bits, of which only differences have a meaning.
uint32_t time_of_day() {
    constexpr uint32_t kPerSecond = 1000000;
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_sec) * kPerSecond + static_cast<uint32_t>(now.tv_usec);
}

} // namespace

int LoadPicture(uint32_t addr, uint32_t hor, uint32_t ver, const char *filename, const char *ts,
                const char *sel) {
    (void)find_file(filename);
    const File file = open_input(filename);
    PictureFile picture;
    if (file == nullptr ||
        read_picture(file.get(), size_of(file.get()), picture) != PictureError::kNone) {
        return -1;
    }
    const uint32_t start = time_of_day();
    const Target target = target_of(addr, hor, ver, ts, sel);
    const PictureFormat format = picture_format(filename);
    const bool sent =
        format == PictureFormat::kBmp ? send_bmp(target, picture) : send_as_it_is(target, picture);
    if (!sent) {
        return -1;
    }
    if (format == PictureFormat::kOther) {
        LOG("\nfile format error\n"); // the pixels are in the memory all the same
    }
    LOG("\ntotal time:%f sec", (time_of_day() - start) / kMicrosecondsPerSecond);
    LOG("\n");
    return 0;
}
