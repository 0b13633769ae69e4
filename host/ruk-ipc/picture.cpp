#include "picture.h"

#include "ap_msg/message_layout.h"
#include "ap_msg/pictures/bmp_layout.h"
#include "ap_msg/pictures/picture_file.h"
#include "board/descriptor.h"
#include "raw_msg/ddr2.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace ipc {

namespace {

using board::Descriptor;

std::string pixels(uint32_t width, uint32_t height) {
    return std::to_string(width) + " x " + std::to_string(height) + " pixels";
}

// Where the pixels begin. A header that cannot be read here, which the service may be able to, has
// at least its field for that.
uint64_t offset_in(const std::string &file) {
    if (!file.ends_with(".bmp")) {
        return 0;
    }
    constexpr Field kOffset = bmp::kPixelOffset;
    const Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    uint8_t bytes[kOffset.width];
    if (!opened.is_open() || pread(opened.get(), bytes, sizeof bytes,
                                   static_cast<off_t>(kOffset.offset)) != sizeof bytes) {
        return kOffset.offset + kOffset.width;
    }
    return load_le(bytes, {.offset = 0, .width = sizeof bytes});
}

} // namespace

std::string check_picture_size(const CommandRow &command, uint32_t width, uint32_t height) {
    if (command.code != message::kCodeGetPicture ||
        uint64_t{width} * height * ddr2::kPixelSize <= bmp::kLargestImage) {
        return {};
    }
    return std::string(command.word) + ": " + pixels(width, height) +
           " are more than a BMP file can hold";
}

std::string check_picture_file(const std::string &file, uint32_t width, uint32_t height) {
    struct stat found {};
    if (stat(file.c_str(), &found) != 0) {
        const bool is_missing = errno == ENOENT || errno == ENOTDIR;
        return is_missing ? "no file '" + file + "'" : ""; // the service may get where we do not
    }
    if (S_ISDIR(found.st_mode) || S_ISFIFO(found.st_mode)) {
        return "'" + file + "' is a pipe or a directory, not a file";
    }
    const uint64_t offset = offset_in(file);
    const uint64_t needed = offset + uint64_t{width} * height * kPortPixelSize;
    if (!S_ISREG(found.st_mode) || static_cast<uint64_t>(found.st_size) >= needed) {
        return {};
    }
    return "'" + file + "' has " + std::to_string(found.st_size) + " bytes, " +
           pixels(width, height) + " from its byte " + std::to_string(offset) + " on need " +
           std::to_string(needed);
}

} // namespace ipc
