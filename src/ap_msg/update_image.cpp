#include "ap_msg/update_image.h"

#include "ap_msg/ap_msg.h"
#include "ap_msg/input_file.h"
#include "ap_msg/update_layout.h"
#include "log/write.h"

#include <cerrno>
#include <cstring>
#include <numeric>
#include <utility>

namespace {

constexpr uint64_t kLargestFirmware = std::numeric_limits<uint32_t>::max() - update::kHeadSize;

struct Firmware {
    uint64_t size = 0;
    uint32_t checksum = update::kFirmwareChecksumStart; // its low 16 bits count
};

// False: the firmware cannot be read, or is larger than its head can say (logged). What cannot be
// written shows when the image is closed.
bool copy(FILE *from, FILE *to, Firmware &firmware) {
    uint8_t chunk[4096];
    size_t n = fread(chunk, 1, sizeof chunk, from);
    while (n > 0 && firmware.size + n <= kLargestFirmware) {
        firmware.checksum = std::accumulate(chunk, chunk + n, firmware.checksum);
        firmware.size += n;
        (void)fwrite(chunk, 1, n, to);
        n = fread(chunk, 1, sizeof chunk, from);
    }
    if (ferror(from) != 0) {
        LOG("update: read firmware: %s\n", strerror(errno));
        return false;
    }
    if (n > 0) {
        LOG("update: firmware of more than %u bytes\n", static_cast<unsigned>(kLargestFirmware));
        return false;
    }
    return true;
}

void write_head(FILE *image, const Firmware &firmware) {
    uint8_t head[update::kHeadSize] = {};
    store_le(head, update::kFirmwareSize, static_cast<uint32_t>(firmware.size));
    store_le(head, update::kFirmwareChecksum, firmware.checksum);
    (void)fseeko(image, 0, SEEK_SET); // unlike rewind it does not forget what failed before
    (void)fwrite(head, sizeof head, 1, image); // a failure shows when the image is closed
}

File opened(File file, const char *name) {
    if (file == nullptr) {
        LOG("update: open '%s': %s\n", name, strerror(errno));
    }
    return file;
}

bool fill(FILE *from, File image) {
    Firmware firmware;
    const uint8_t no_head[update::kHeadSize] = {}; // its place, until size and checksum are known
    (void)fwrite(no_head, sizeof no_head, 1, image.get());
    const bool is_copied = copy(from, image.get(), firmware);
    if (is_copied) {
        write_head(image.get(), firmware);
        printf("temp file is deal over! ");
    }
    return close_output(std::move(image), update::kImageFile) && is_copied;
}

} // namespace

Image make_image(const char *firmware_path) {
    (void)update_temfile_creat(update::kImageFile); // its failure shows when the file is opened
    const File firmware = opened(open_input(firmware_path), firmware_path);
    File image = opened(open_output(update::kImageFile), update::kImageFile);
    if (firmware == nullptr || image == nullptr) {
        printf(" file open fail");
        return image == nullptr ? Image::kMissing : Image::kEmpty;
    }
    return fill(firmware.get(), std::move(image)) ? Image::kWhole : Image::kBroken;
}
