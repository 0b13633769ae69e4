#include "message_directory.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

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

bool has_default_access_list(const char *directory) {
    return getxattr(directory, "system.posix_acl_default", nullptr, 0) > 0;
}

// A name without symbolic links, in memory of its own: there may be none for more.
class Path {
public:
    // False with errno. What the name ends in may be missing.
    bool resolve(const char *name) {
        if (realpath(name, path_) != nullptr) {
            return true;
        }
        return errno == ENOENT && resolve_parent_of(name);
    }
    [[nodiscard]] const char *text() const {
        return path_;
    }
    [[nodiscard]] bool is_root() const {
        return path_[1] == '\0';
    }
    void go_up() {
        char *last = strrchr(path_, '/');
        last[last == path_ ? 1 : 0] = '\0';
    }

private:
    bool resolve_parent_of(std::string_view name) {
        while (name.ends_with('/')) {
            name.remove_suffix(1);
        }
        const size_t slash = name.rfind('/');
        const std::string_view leaf = slash == name.npos ? name : name.substr(slash + 1);
        const std::string_view before = slash == name.npos ? "." : name.substr(0, slash + 1);
        char parent[PATH_MAX];
        if (before.size() >= sizeof parent) {
            errno = ENAMETOOLONG;
            return false;
        }
        *std::copy(before.begin(), before.end(), parent) = '\0';
        return realpath(parent, path_) != nullptr && append(leaf);
    }

    bool append(std::string_view leaf) {
        const size_t used = is_root() ? 0 : strlen(path_);
        if (used + 1 + leaf.size() >= sizeof path_) {
            errno = ENAMETOOLONG;
            return false;
        }
        path_[used] = '/';
        *std::copy(leaf.begin(), leaf.end(), path_ + used + 1) = '\0';
        return true;
    }

    char path_[PATH_MAX] = "/";
};

bool fail() {
    (void)fprintf(stderr, "rukd: message directory %s: %s\n", message_directory(), strerror(errno));
    return false;
}

// Looks at a directory and all around it, up to the root. The first may be missing: the message
// library makes it for its owner alone. False: what is wrong has been told.
bool is_closed(const Path &directory) {
    bool exists_below = false;
    Path path = directory;
    for (bool is_first = true;; is_first = false) {
        struct stat found {};
        if (lstat(path.text(), &found) == 0) {
            const char *way = is_first ? way_in(found) : way_around(found, exists_below);
            if (way == nullptr && !exists_below && has_default_access_list(path.text())) {
                way = "an access list goes to its sockets";
            }
            if (way != nullptr) {
                (void)fprintf(stderr,
                              "rukd: message directory %s: %s %s; root's files would be open to "
                              "whoever sends requests: use --user NAME, or --as-root\n",
                              message_directory(), path.text(), way);
                return false;
            }
            exists_below = true;
        }
        if (path.is_root()) {
            return true;
        }
        path.go_up();
    }
}

} // namespace

const char *message_directory() {
    const char *directory = getenv("APIPC_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "/run/apipc";
}

bool message_directory_is_roots() {
    Path directory;
    if (!directory.resolve(message_directory())) {
        return fail();
    }
    return is_closed(directory) && (setenv("APIPC_DIR", directory.text(), 1) == 0 || fail());
}
