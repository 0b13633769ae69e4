#include "firmware/firmware_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "file.h"
#include "firmware/firmware_registers.h"
#include "new_file.h"

namespace card {

namespace {

constexpr NumberedName kName = {.stem = "firmware", .suffix = ".bin"};

std::string failed(const char *action, const std::string &path, const char *reason) {
    return std::string("firmware: ") + action + " '" + path + "': " + reason;
}

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

std::string check_firmware_directory(const std::string &directory) {
    return can_create_in(directory) ? ""
                                    : failed("save in directory", directory, std::strerror(errno));
}

std::string save_firmware(Bytes image, const std::string &directory, uint32_t &number,
                          std::string &path) {
    path = directory;
    if (image.size() < firmware_head::kSize) {
        return failed("save", path, "too much firmware waits for the disk");
    }
    Fd fd = create_numbered(directory, kName, number, path);
    if (!fd.valid()) {
        return failed("create", path, std::strerror(errno));
    }
    if (!write_all(std::move(fd), image.subspan(firmware_head::kSize))) {
        const int error = errno;
        (void)unlink(path.c_str()); // half a file is worse than none
        return failed("write", path, std::strerror(error));
    }
    return "";
}

} // namespace card
