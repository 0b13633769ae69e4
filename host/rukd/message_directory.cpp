#include "message_directory.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>

namespace {

using Path = std::filesystem::path;

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

// What gives others a way in, or null. Whoever may write to a socket may send requests.
const char *way_in(const struct stat &directory) {
    if (directory.st_uid != 0) {
        return "does not belong to root";
    }
    if ((directory.st_mode & kOthersWrite) != 0) {
        return "others may write to it";
    }
    const gid_t group_of_sockets =
        (directory.st_mode & S_ISGID) != 0 ? directory.st_gid : getegid();
    return group_of_sockets != 0 ? "its sockets belong to a group" : nullptr;
}

// The same for a directory on the way. What is root's stays where it is in a sticky one.
const char *way_around(const struct stat &directory, bool holds_roots) {
    if (directory.st_uid != 0) {
        return "does not belong to root";
    }
    const bool stays = holds_roots && (directory.st_mode & S_ISVTX) != 0;
    return (directory.st_mode & kOthersWrite) != 0 && !stays ? "others may write to it" : nullptr;
}

bool has_default_access_list(const Path &directory) {
    return getxattr(directory.c_str(), "system.posix_acl_default", nullptr, 0) > 0;
}

// What is wrong with a path, from its last directory up to the root. The last one may be missing:
// the message library makes it for its owner alone.
bool tell_way_in(const Path &directory, std::string &told) {
    bool exists_below = false;
    for (Path path = directory;; path = path.parent_path()) {
        struct stat found {};
        if (lstat(path.c_str(), &found) == 0) {
            const char *way = path == directory ? way_in(found) : way_around(found, exists_below);
            if (way == nullptr && !exists_below && has_default_access_list(path)) {
                way = "an access list goes to its sockets";
            }
            if (way != nullptr) {
                told = path.string() + " " + way;
                return true;
            }
            exists_below = true;
        }
        if (path == path.root_path()) {
            return false;
        }
    }
}

} // namespace

const char *message_directory() {
    const char *directory = getenv("APIPC_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "/run/apipc";
}

bool message_directory_is_roots() {
    std::error_code error;
    const Path directory = std::filesystem::weakly_canonical(message_directory(), error);
    std::string way;
    if (error) {
        (void)fprintf(stderr, "rukd: message directory %s: %s\n", message_directory(),
                      error.message().c_str());
        return false;
    }
    if (tell_way_in(directory, way)) {
        (void)fprintf(stderr,
                      "rukd: message directory %s: %s; root's files would be open to whoever sends "
                      "requests: use --user NAME, or --as-root\n",
                      message_directory(), way.c_str());
        return false;
    }
    return setenv("APIPC_DIR", directory.c_str(), 1) == 0;
}
