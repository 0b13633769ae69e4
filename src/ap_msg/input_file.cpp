#include "ap_msg/input_file.h"

#include "ap_msg/shown.h"
#include "log/write.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kOutputMode = 0666; // less the process's umask

// Without O_NONBLOCK the opening itself would wait for a pipe's other end; files do not care for
// it. O_CLOEXEC keeps them out of the shells that the system starts. Without O_NOCTTY a terminal
// would become that of a service that has none, and who types there could end it.
File open_checked(const char *name, int flags, const char *mode) {
    const int fd = open(name, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, kOutputMode);
    if (fd < 0) {
        return nullptr;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0 || S_ISFIFO(status.st_mode) || S_ISDIR(status.st_mode)) {
        LOG("open '%s': a pipe or a directory, not a file\n", Shown(name).text());
        (void)close(fd);
        errno = EINVAL;
        return nullptr;
    }
    File file(fdopen(fd, mode));
    if (file == nullptr) {
        (void)close(fd);
    }
    return file;
}

} // namespace

bool find_file(const char *name) {
    const bool found = access(name, F_OK) == 0;
    LOG("%s file %s\n", found ? "found" : "not found", Shown(name).text());
    return found;
}

File open_input(const char *name) {
    return open_checked(name, O_RDONLY, "r");
}

File open_output(const char *name) {
    return open_checked(name, O_RDWR | O_CREAT | O_TRUNC, "w+");
}

int64_t size_of(FILE *file) {
    if (fseeko(file, 0, SEEK_END) != 0) {
        return -1;
    }
    const off_t size = ftello(file);
    return fseeko(file, 0, SEEK_SET) == 0 ? size : -1;
}

bool close_output(File file, const char *name) {
    const bool had_error = ferror(file.get()) != 0;
    if (fclose(file.release()) == 0 && !had_error) {
        return true;
    }
    LOG("ap_msg: write '%s': %s\n", Shown(name).text(), strerror(errno));
    return false;
}
