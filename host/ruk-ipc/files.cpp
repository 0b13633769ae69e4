#include "files.h"

#include "board/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace ipc {

namespace {

using board::Descriptor;

constexpr mode_t kFileMode = 0666; // before the umask
constexpr size_t kReadStep = 65536;

std::string complaint(const char *action, const std::string &name, int error) {
    return std::string("cannot ") + action + " '" + name + "': " + std::strerror(error);
}

// 0 or an errno.
int write_all(int fd, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            return errno;
        }
        bytes = bytes.subspan(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
    return 0;
}

// A full disk may show only when the file is closed.
int write_and_close(Descriptor &file, std::span<const uint8_t> bytes) {
    const int error = write_all(file.get(), bytes);
    const int closed = close(file.release()) == 0 ? 0 : errno;
    return error != 0 ? error : closed;
}

mode_t masked_mode() {
    const mode_t mask = umask(0); // it can only be read by setting it
    (void)umask(mask);
    return kFileMode & ~mask;
}

// The file behind a symbolic link is replaced, not the link.
std::string real_name(const std::string &name) {
    char real[PATH_MAX];
    return realpath(name.c_str(), real) != nullptr ? real : name;
}

// With its slash; empty for the current one.
std::string directory_of(const std::string &name) {
    return name.substr(0, name.rfind('/') + 1);
}

std::string replace_file(const std::string &name, mode_t mode, std::span<const uint8_t> bytes) {
    std::string temporary = directory_of(name) + ".ruk-ipc.XXXXXX"; // name may be as long as can be
    Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.is_open()) {
        return complaint("create", name, errno);
    }
    int error = fchmod(file.get(), mode) == 0 ? 0 : errno;
    if (error == 0) {
        error = write_and_close(file, bytes);
    }
    if (error == 0 && rename(temporary.c_str(), name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(temporary.c_str()); // the failure above is the one to tell of
        return complaint("write", name, error);
    }
    return {};
}

std::string write_in_place(const std::string &name, std::span<const uint8_t> bytes) {
    Descriptor file(open(name.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.is_open()) {
        return complaint("open", name, errno);
    }
    const int error = write_and_close(file, bytes);
    return error == 0 ? std::string() : complaint("write", name, error);
}

} // namespace

std::string read_file(const std::string &name, size_t most, std::vector<uint8_t> &bytes) {
    const Descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.is_open()) {
        return complaint("open", name, errno);
    }
    bytes.clear();
    ssize_t got = 1;
    while (got != 0 && bytes.size() <= most) {
        const size_t before = bytes.size();
        bytes.resize(before + kReadStep);
        got = read(file.get(), bytes.data() + before, kReadStep);
        const int error = errno;
        bytes.resize(before + static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0 && error != EINTR) {
            return complaint("read", name, error);
        }
    }
    if (bytes.size() > most) {
        return "'" + name + "' has more than " + std::to_string(most) + " bytes";
    }
    return bytes.empty() ? "'" + name + "' is empty: nothing to write" : std::string();
}

std::string save_file(const std::string &name, std::span<const uint8_t> bytes) {
    struct stat found {};
    if (stat(name.c_str(), &found) != 0) {
        return replace_file(name, masked_mode(), bytes);
    }
    constexpr mode_t kPermissions = 07777;
    return S_ISREG(found.st_mode)
               ? replace_file(real_name(name), found.st_mode & kPermissions, bytes)
               : write_in_place(name, bytes);
}

} // namespace ipc
