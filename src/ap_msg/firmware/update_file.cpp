// Sizes of files, and the temporary file's making and removing by the shell.
#include "ap_msg/ap_msg.h"

#include "ap_msg/firmware/shell_command.h"
#include "ap_msg/input_file.h"
#include "ap_msg/shown.h"
#include "log/write.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

// What does not fit in the result cannot be had.
long as_size(int64_t size) {
    return size >= 0 && size <= std::numeric_limits<long>::max() ? static_cast<long>(size) : 0;
}

} // namespace

long get_file_size(const char *path) {
    struct stat status {};
    return stat(path, &status) == 0 ? as_size(status.st_size) : 0;
}

long get_file_size_old(const char *path) {
    const File file = open_input(path);
    if (file == nullptr) {
        LOG("ERROR: Open file %s failed.\n", Shown(path).text());
        return 0;
    }
    return as_size(size_of(file.get()));
}

int update_temfile_creat(const char *path) {
    if (access(path, F_OK) == 0) {
        (void)ShellCommand("/bin/rm -f  ", path).run();
    }
    return ShellCommand("/bin/touch ", path).run();
}

int update_temfile_del(const char *path) {
    return ShellCommand("/bin/rm -f ", path).run();
}
