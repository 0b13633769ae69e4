// Picture files of any content, size and claimed size, both ways into a card.
//
// An input is width and height (four bytes each), a byte that chooses the file's ending, and then
// the file. LoadPicture takes it to the memory of an FPGA and write_file_handler to the picture
// port. What has to be sent is worked out here a second time.
#include "ap_msg/ap_msg.h"
#include "log/log.h"
#include "main/main.h"
#include "raw_msg/raw_msg.h"
#include "surroundings.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char *kNames[] = {"fuzz.bmp", "fuzz.txt", "fuzz.BMP"};
constexpr size_t kOffsetOfPixels = 10; // in the header of a BMP file
constexpr uint32_t kBurst = 64;

constexpr uint32_t kMemoryData = 0xB0000;
constexpr uint32_t kMemoryControl = 0xA0001;
constexpr uint32_t kPortPixels = 0x40000;
constexpr uint32_t kPortControl = 0x7040;

struct Picture {
    uint32_t hor;
    uint32_t ver;
    const char *name;
    Bytes file;
};

Bytes g_file;     // what open finds under each of the names
Bytes g_pixels;   // what came to a data register
Bytes g_controls; // what came to a control register

bool is_bmp(const Picture &picture) {
    return picture.name == kNames[0];
}

uint16_t low_half(uint32_t value) {
    return static_cast<uint16_t>(value);
}

// Where the pixels of width x height x bytes begin; the file's size + 1 when it does not hold them.
size_t pixels_at(const Picture &picture, uint64_t hor, uint64_t ver, uint32_t bytes) {
    const Bytes &file = picture.file;
    const size_t nowhere = file.size() + 1;
    uint64_t offset = 0;
    if (is_bmp(picture)) {
        if (file.size() < kOffsetOfPixels + 4) {
            return nowhere;
        }
        for (size_t i = 0; i < 4; i++) {
            offset |= uint64_t{file[kOffsetOfPixels + i]} << (8 * i);
        }
    }
    if (offset > file.size()) {
        return nowhere;
    }
    const uint64_t room = (file.size() - offset) / bytes; // pixels
    return hor == 0 || ver <= room / hor ? static_cast<size_t>(offset) : nowhere;
}

// The i-th pixel of the picture, top down; the lines of a BMP file stand the other way round.
std::array<uint8_t, 4> pixel_of(const Picture &picture, size_t offset, size_t i) {
    const uint8_t *pixels = picture.file.data() + offset;
    if (!is_bmp(picture)) {
        const uint8_t *from = pixels + i * 4;
        return {from[0], from[1], from[2], from[3]};
    }
    const size_t row = picture.ver - 1 - i / picture.hor;
    const uint8_t *from = pixels + (row * picture.hor + i % picture.hor) * 3;
    return {0x55, from[2], from[1], from[0]};
}

// The picture as it stands in the memory: lines begin at bursts.
Bytes in_memory(const Picture &picture, size_t offset) {
    const size_t hor = low_half(picture.hor);
    const size_t ver = low_half(picture.ver);
    const size_t line = (hor * 4 + kBurst - 1) / kBurst * kBurst;
    Bytes memory(line * ver);
    for (size_t i = 0; i < hor * ver; i++) {
        const auto pixel = pixel_of(picture, offset, i);
        std::copy(pixel.begin(), pixel.end(), memory.data() + i / hor * line + i % hor * 4);
    }
    return memory;
}

void check_memory(const Picture &picture) {
    g_pixels.clear();
    g_controls.clear();
    const int result = LoadPicture(0, picture.hor, picture.ver, picture.name, "-e", "-1B");
    const bool bmp = is_bmp(picture);
    const size_t offset = bmp ? pixels_at(picture, picture.hor, picture.ver, 3)
                              : pixels_at(picture, low_half(picture.hor), low_half(picture.ver), 4);
    if (offset > picture.file.size()) {
        require(result == -1 && g_pixels.empty() && g_controls.empty(),
                "nothing is sent of a file that does not hold the picture");
        return;
    }
    require(result == 0, "a file that holds the picture is sent");
    require(g_pixels == in_memory(picture, offset), "the memory gets the picture");
}

void check_port(const Picture &picture) {
    g_pixels.clear();
    g_controls.clear();
    const int result = write_file_handler(0, 5, 1, 0, static_cast<int>(picture.hor),
                                          static_cast<int>(picture.ver), picture.name);
    constexpr uint32_t kLargest = 0x7FFFFFFF; // a larger number is a negative size
    const bool is_negative = picture.hor > kLargest || picture.ver > kLargest;
    const size_t offset = pixels_at(picture, picture.hor, picture.ver, 3);
    if (is_negative || offset > picture.file.size()) {
        require(result == -1 && g_pixels.empty() && g_controls.empty(),
                "nothing is sent of a file that does not hold the picture");
        return;
    }
    require(result == 0, "a file that holds the picture is sent");
    const size_t size = size_t{low_half(picture.hor)} * low_half(picture.ver) * 3;
    const auto begin = picture.file.begin() + static_cast<ptrdiff_t>(offset);
    require(g_pixels == Bytes(begin, begin + static_cast<ptrdiff_t>(size)),
            "the port gets the pixels of the file");
    const auto hor = low_half(picture.hor);
    const auto ver = low_half(picture.ver);
    const Bytes controls{0,
                         static_cast<uint8_t>(hor),
                         static_cast<uint8_t>(hor >> 8),
                         static_cast<uint8_t>(ver),
                         static_cast<uint8_t>(ver >> 8),
                         0,
                         1,
                         0};
    require(g_controls == controls, "the port is told the size, then to start and to stop");
}

// Log lines are made, for the sake of their arguments, and go nowhere.
bool prepare() {
    require(freopen("/dev/null", "w", stdout) != nullptr, "there is a place for the output");
    log_debug = 1;
    return true;
}

bool is_ours(std::string_view name) {
    return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

// A new descriptor of the file, for the caller to close.
int open_file() {
    const int fd = memfd_create("picture", MFD_CLOEXEC);
    require(fd >= 0 &&
                write(fd, g_file.data(), g_file.size()) == static_cast<ssize_t>(g_file.size()),
            "there is memory for the file");
    return fd;
}

void append(Bytes &to, const uint8_t *data, uint32_t len) {
    to.insert(to.end(), data, data + len);
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int __real_access(const char *name, int mode);
int __wrap_access(const char *name, int mode);
int __real_open(const char *name, int flags, ...);
int __wrap_open(const char *name, int flags, ...);
int __wrap_RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                          const uint8_t *data, uint32_t len);
int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *left);

int __wrap_access(const char *name, int mode) {
    return is_ours(name) ? 0 : __real_access(name, mode);
}

int __wrap_open(const char *name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    return is_ours(name) ? open_file() : __real_open(name, flags, mode);
}

int __wrap_RawSockSendMsg(int index, uint16_t /*model*/, uint8_t /*slot*/, uint32_t addr,
                          uint8_t code, const uint8_t *data, uint32_t len) {
    const bool is_memory = index == 1 && (addr == kMemoryData || addr == kMemoryControl);
    const bool is_port = index == 0 && addr == kPortPixels;
    require(code == 0x01 && (is_memory || is_port), "plain writes go where a picture belongs");
    append(addr == kMemoryControl ? g_controls : g_pixels, data, len);
    return 0;
}

int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len,
                                     uint8_t * /*ack*/, int32_t ticks) {
    require(index == 0 && model == 1 && slot == 5 && addr == kPortControl && code == 0x11 &&
                ticks == 3,
            "acknowledged writes go to the picture port's control register");
    append(g_controls, data, len);
    return 0;
}

// The pause between two chunks, which nobody needs here.
int __wrap_clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec * /*until*/,
                           timespec * /*left*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool is_prepared = prepare();
    require(is_prepared, "there is a place for the output");
    Input head(data, size);
    Picture picture{};
    picture.hor = head.long_word();
    picture.ver = head.long_word();
    picture.name = kNames[head.byte() % std::size(kNames)];
    constexpr size_t kHeadSize = 9;
    picture.file.assign(data + std::min(size, kHeadSize), data + size);
    g_file = picture.file;
    check_memory(picture);
    check_port(picture);
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
