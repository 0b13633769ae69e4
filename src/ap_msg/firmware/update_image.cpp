#include "ap_msg/firmware/update_image.h"

#include "ap_msg/ap_msg.h"
#include "ap_msg/firmware/update_layout.h"
#include "ap_msg/input_file.h"
#include "ap_msg/shown.h"
#include "log/write.h"

#include <cerrno>
#include <cstring>
#include <numeric>
#include <sys/stat.h>
#include <utility>

namespace {

struct Firmware {
    uint64_t size = 0;
    uint32_t checksum = update::kFirmwareChecksumStart; // its low 16 bits count
};

bool is_refused(uint64_t size) {
    if (size <= update::kLargestFirmware) {
        return false;
    }
    LOG("update: firmware of more than %llu bytes\n",
        static_cast<unsigned long long>(update::kLargestFirmware));
    return true;
}

// Before gigabytes are copied for nothing. What has no size, a device, shows it while it is copied.
bool is_known_to_be_refused(FILE *firmware) {
    struct stat status {};
    return fstat(fileno(firmware), &status) == 0 &&
           is_refused(static_cast<uint64_t>(status.st_size));
}

// False: the firmware cannot be read, or is larger than its head can say (logged); or it cannot be
// written, which is logged when the image is closed.
bool copy(FILE *from, FILE *to, Firmware &firmware) {
    uint8_t chunk[4096];
    for (size_t n = fread(chunk, 1, sizeof chunk, from); n > 0;
         n = fread(chunk, 1, sizeof chunk, from)) {
        firmware.checksum = std::accumulate(chunk, chunk + n, firmware.checksum);
        firmware.size += n;
        if (is_refused(firmware.size) || fwrite(chunk, 1, n, to) != n) {
            return false;
        }
    }
    if (ferror(from) != 0) {
        LOG("update: read firmware: %s\n", strerror(errno));
        return false;
    }
    return true;
}

// False: not written, which is logged when the image is closed.
bool write_head(FILE *image, const Firmware &firmware) {
    uint8_t head[update::kHeadSize] = {};
    store_le(head, update::kFirmwareSize, static_cast<uint32_t>(firmware.size));
    store_le(head, update::kFirmwareChecksum, firmware.checksum);
    return fseeko(image, 0, SEEK_SET) == 0 && fwrite(head, sizeof head, 1, image) == 1;
}

File opened(File file, const char *name) {
    if (file == nullptr) {
        LOG("update: open '%s': %s\n", Shown(name).text(), strerror(errno));
    }
    return file;
}

bool fill(FILE *from, FILE *image) {
    Firmware firmware;
    const uint8_t no_head[update::kHeadSize] = {}; // its place, until size and checksum are known
    return fwrite(no_head, sizeof no_head, 1, image) == 1 && copy(from, image, firmware) &&
           write_head(image, firmware);
}

// A part of a firmware is of no use to anybody, and the room that it takes may be missed elsewhere.
void give_space_back() {
    (void)open_output(update::kImageFile); // opening it for output empties it
}

bool make(FILE *firmware, File image) {
    if (is_known_to_be_refused(firmware)) {
        return false;
    }
    const bool is_filled = fill(firmware, image.get());
    if (close_output(std::move(image), update::kImageFile) && is_filled) {
        return true;
    }
    give_space_back();
    return false;
}

} // namespace

Image make_image(const char *firmware_path) {
    // First, as it may be the temporary file of an older update, which is removed, under another
    // name: what is open can still be read.
    const File firmware = opened(open_input(firmware_path), firmware_path);
    (void)update_temfile_creat(update::kImageFile); // its failure shows when the file is opened
    File image = opened(open_output(update::kImageFile), update::kImageFile);
    if (firmware == nullptr || image == nullptr) {
        printf(" file open fail");
        return image == nullptr ? Image::kMissing : Image::kEmpty;
    }
    if (!make(firmware.get(), std::move(image))) {
        return Image::kBroken;
    }
    printf("temp file is deal over! ");
    return Image::kWhole;
}
