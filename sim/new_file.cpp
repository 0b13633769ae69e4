#include "new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "failure.h"

namespace card {

Fd create_numbered(const std::string &directory, const NumberedName &name, uint32_t &number,
                   std::string &path) {
    Fd fd;
    do {
        std::array<char, 16> digits{};
        (void)std::snprintf(digits.data(), digits.size(), "-%03u", number++);
        path = directory + "/" + name.stem + digits.data() + name.suffix;
        fd = Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    } while (!fd.valid() && errno == EEXIST);
    return fd;
}

std::string check_directory(const char *what, const std::string &directory) {
    std::string path = directory + "/.ruk-card-XXXXXX";
    const Fd fd(mkostemp(path.data(), O_CLOEXEC));
    if (!fd.valid()) {
        return failure(what, "save in directory", directory);
    }
    (void)unlink(path.c_str()); // made a moment ago: what may be made may be removed
    return "";
}

} // namespace card
