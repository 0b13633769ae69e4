#include "firmware/firmware_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "failure.h"
#include "file.h"
#include "firmware/firmware_registers.h"
#include "new_file.h"

namespace card {

namespace {

constexpr NumberedName kName = {.stem = "firmware", .suffix = ".bin"};

bool write_all(Fd fd, Bytes data) {
    const File file(fdopen(fd.get(), "w"));
    if (file == nullptr) {
        return false;
    }
    (void)fd.release(); // the file closes it
    return std::fwrite(data.data(), 1, data.size(), file.get()) == data.size() &&
           std::fflush(file.get()) == 0;
}

} // namespace

std::string save_firmware(Bytes image, const std::string &directory, uint32_t &number,
                          std::string &path) {
    path = directory;
    if (image.size() < firmware_head::kSize) {
        return failure("firmware", "save", path, "too much firmware waits for the disk");
    }
    Fd fd = create_numbered(directory, kName, number, path);
    if (!fd.valid()) {
        return failure("firmware", "create", path);
    }
    if (!write_all(std::move(fd), image.subspan(firmware_head::kSize))) {
        const int error = errno;
        (void)unlink(path.c_str()); // half a file is worse than none
        return failure("firmware", "write", path, std::strerror(error));
    }
    return "";
}

} // namespace card
