#include "pictures/picture_file.h"

#include <fcntl.h>
#include <png.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "failure.h"
#include "fd.h"
#include "file.h"
#include "new_file.h"
#include "pictures/picture_registers.h"

namespace card {

namespace {

constexpr size_t kDdr2PixelBytes = 4; // 0x55, red, green, blue
constexpr size_t kRgbBytes = 3;
constexpr NumberedName kPortName = {.stem = "picture", .suffix = ".png"};

/** What a PNG file is made of. */
struct Image {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t format = 0;    // libpng's
    bool bottom_up = false; // the first row of the pixels is the lowest one
    Bytes pixels;           // rows without padding, three bytes a pixel
};

// With libpng's simplified interface, which returns when it fails; its other one jumps (longjmp).
std::string write_png(FILE *file, const Image &image, const std::string &path) {
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    png.width = image.width;
    png.height = image.height;
    png.format = image.format;
    const auto row = static_cast<png_int_32>(image.width * kRgbBytes);
    const int done = png_image_write_to_stdio(&png, file, 0, image.pixels.data(),
                                              image.bottom_up ? -row : row, nullptr);
    if (done == 0) {
        return failure("picture", "write", path, png.message);
    }
    return std::fflush(file) == 0 ? "" : failure("picture", "write", path);
}

// Half a picture is worse than none.
std::string save(Fd fd, const Image &image, const std::string &path) {
    const File file(fdopen(fd.get(), "w"));
    if (file == nullptr) {
        return failure("picture", "write", path);
    }
    (void)fd.release(); // the file closes it
    std::string error = write_png(file.get(), image, path);
    if (!error.empty()) {
        (void)unlink(path.c_str()); // the first failure is the one to report
    }
    return error;
}

size_t ddr2_stride(const Ddr2PictureOrder &order) {
    const size_t line = order.width * kDdr2PixelBytes;
    return (line + kBurstBytes - 1) / kBurstBytes * kBurstBytes;
}

// The region's red, green and blue bytes, rows packed.
std::vector<uint8_t> ddr2_pixels(const Memory &memory, const Ddr2PictureOrder &order) {
    std::vector<uint8_t> out;
    out.reserve(kRgbBytes * order.width * order.height);
    std::vector<uint8_t> line(order.width * kDdr2PixelBytes);
    uint64_t at = uint64_t{order.addr} * kUnitBytes;
    for (uint32_t y = 0; y < order.height; y++) {
        memory_read(memory, static_cast<uint32_t>(at), line);
        for (size_t x = 0; x < line.size(); x += kDdr2PixelBytes) {
            const Bytes rgb = Bytes(line).subspan(x + 1, kRgbBytes);
            out.insert(out.end(), rgb.begin(), rgb.end());
        }
        at += ddr2_stride(order);
    }
    return out;
}

} // namespace

bool ddr2_picture_fits(const Ddr2PictureOrder &order) {
    constexpr uint32_t kMaxSide = 0xFFFF;
    if (order.memory >= kDdr2Memories || order.width == 0 || order.width > kMaxSide ||
        order.height == 0 || order.height > kMaxSide) {
        return false;
    }
    const uint64_t end =
        uint64_t{order.addr} * kUnitBytes + uint64_t{ddr2_stride(order)} * order.height;
    return end <= kMemorySize &&
           uint64_t{kRgbBytes} * order.width * order.height <= kMaxPictureBytes;
}

std::string save_port_picture(PortPicture picture, const std::string &directory, uint32_t &number,
                              std::string &path) {
    const uint64_t size = port_expected_bytes(picture);
    path = directory;
    if (size == 0) {
        return failure("picture", "save", path, "the picture has no pixels");
    }
    if (size > kMaxPictureBytes) {
        return failure("picture", "save", path, "the picture is larger than 64 MiB");
    }
    if (picture.received > 0 && picture.pixels.empty()) {
        return failure("picture", "save", path, "too many pictures wait for the disk");
    }
    picture.pixels.resize(static_cast<size_t>(size), 0);
    Fd fd = create_numbered(directory, kPortName, number, path);
    if (!fd.valid()) {
        return failure("picture", "create", path);
    }
    return save(std::move(fd),
                {.width = picture.width,
                 .height = picture.height,
                 .format = PNG_FORMAT_BGR,
                 .bottom_up = true,
                 .pixels = picture.pixels},
                path);
}

std::string save_ddr2_picture(const Memory &memory, const Ddr2PictureOrder &order,
                              const std::string &directory, std::string &path) {
    std::array<char, 40> name{};
    (void)std::snprintf(name.data(), name.size(), "/ddr2-%zu-%08x.png", order.memory, order.addr);
    path = directory + name.data();
    Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    if (!fd.valid()) {
        return failure("picture", "create", path);
    }
    const std::vector<uint8_t> pixels = ddr2_pixels(memory, order);
    return save(std::move(fd),
                {.width = order.width,
                 .height = order.height,
                 .format = PNG_FORMAT_RGB,
                 .bottom_up = false,
                 .pixels = pixels},
                path);
}

} // namespace card
