// apipc_socket.cpp - one Unix datagram socket per module address, in one directory.
//
//   DIR/030a3b        the socket of module 0x3B of the card in slot 3
//   DIR/030a3b.lock   held (flock) by the process that listens there, for as long as it lives
//
// The kernel lets go of a lock with its owner's death, however that dies. So whoever gets the lock
// knows that the socket is stale and may replace it, and two that come at once cannot both get it.
// Lock files stay behind on purpose: removing one would let two processes lock two files.
#include "board/apipc_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

using board::Descriptor;

namespace {

constexpr const char *kDefaultDirectory = "/run/apipc";
constexpr mode_t kDirectoryMode = 0750; // only the right group gets in
constexpr mode_t kSocketMode = 0660;
// The largest message, and what the kernel counts on top of it for its own records.
constexpr int kSendBufferBytes = 4 * static_cast<int>(board::kLargestMessage);

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerS = 1000000000;

struct Place {
    const char *directory;
    sockaddr_un address;
    char lock_file[sizeof(sockaddr_un::sun_path) + 8];
};

// The names that belong to a key; 0 or ENAMETOOLONG.
int find_place(uint32_t key, Place &place) {
    const char *directory = std::getenv("APIPC_DIR");
    place.directory = directory != nullptr && *directory != '\0' ? directory : kDefaultDirectory;
    place.address = {};
    place.address.sun_family = AF_UNIX;
    const int length = std::snprintf(place.address.sun_path, sizeof place.address.sun_path,
                                     "%s/%06x", place.directory, static_cast<unsigned>(key));
    if (length < 0 || static_cast<size_t>(length) >= sizeof place.address.sun_path) {
        return ENAMETOOLONG;
    }
    (void)std::snprintf(place.lock_file, sizeof place.lock_file, "%s.lock", place.address.sun_path);
    return 0;
}

const sockaddr *as_sockaddr(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

int64_t now_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerS + now.tv_nsec;
}

// Gives back what the process's umask has taken from a file that was just made. Who may write to
// the directory may have put a link in its place meanwhile: what that leads to is not to be
// touched.
bool set_mode(const char *name, mode_t mode) {
    return fchmodat(AT_FDCWD, name, mode, AT_SYMLINK_NOFOLLOW) == 0;
}

int make_directory(const char *directory) {
    if (mkdir(directory, kDirectoryMode) == 0) {
        return set_mode(directory, kDirectoryMode) ? 0 : errno;
    }
    return errno == EEXIST ? 0 : errno;
}

// 0, EADDRINUSE while a living process holds the lock, or what the file was refused with.
int take_lock(const Place &place, Descriptor &lock) {
    lock.reset(open(place.lock_file, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kSocketMode));
    if (!lock.is_open()) {
        return errno;
    }
    // Members of the group take over from each other whatever umask each was started with. Only the
    // file's owner may set the mode, and for the others it is set already.
    (void)fchmod(lock.get(), kSocketMode);
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? EADDRINUSE : errno;
    }
    return 0;
}

// Removes a socket that nobody listens on. Somebody who listens without having taken the lock keeps
// it, and nothing but sockets is removed.
int remove_stale_socket(const Place &place) {
    struct stat found {};
    if (lstat(place.address.sun_path, &found) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    if (!S_ISSOCK(found.st_mode)) {
        return EEXIST;
    }
    const Descriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe.is_open()) {
        return errno;
    }
    const int answer = connect(probe.get(), as_sockaddr(place.address), sizeof place.address);
    if (answer == 0 || errno == EPROTOTYPE) {
        return EADDRINUSE;
    }
    if (errno != ECONNREFUSED) {
        return errno;
    }
    return unlink(place.address.sun_path) == 0 ? 0 : errno;
}

int bind_socket(const Place &place, Descriptor &bound) {
    bound.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!bound.is_open()) {
        return errno;
    }
    // Before bind: the mode that the file is born with, so that it is never wider than this.
    if (fchmod(bound.get(), kSocketMode) != 0 ||
        bind(bound.get(), as_sockaddr(place.address), sizeof place.address) != 0 ||
        !set_mode(place.address.sun_path, kSocketMode)) {
        return errno;
    }
    return 0;
}

// Lets sends on a socket wait until the deadline; false when it has passed.
bool set_wait(int socket, int64_t deadline_ns) {
    const int64_t left_us = (deadline_ns - now_ns()) / kNsPerUs;
    if (left_us <= 0) {
        return false; // a time-out of 0 would mean to wait for ever
    }
    timeval wait{};
    wait.tv_sec = static_cast<time_t>(left_us * kNsPerUs / kNsPerS);
    wait.tv_usec = static_cast<suseconds_t>(left_us % (kNsPerS / kNsPerUs));
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) == 0;
}

} // namespace

namespace board {

int open_module(uint32_t key, Module &module) {
    Place place;
    Module opened;
    int error = find_place(key, place);
    if (error == 0) {
        error = make_directory(place.directory);
    }
    if (error == 0) {
        error = take_lock(place, opened.lock);
    }
    if (error == 0) {
        error = remove_stale_socket(place);
    }
    if (error == 0) {
        error = bind_socket(place, opened.socket);
    }
    if (error == 0) {
        module = std::move(opened);
    }
    return error;
}

// Each message has a socket of its own: what a slow receiver leaves unread counts against the
// sender's buffer, and must not stand in the way of messages to others.
int send_message(uint32_t key, std::span<const uint8_t> message, int64_t wait_ms) {
    Place place;
    const int error = find_place(key, place);
    if (error != 0) {
        return error;
    }
    const Descriptor sending(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sending.is_open()) {
        return errno;
    }
    // Best effort: a refusal leaves the system's default, and sendto says when that is too small.
    (void)setsockopt(sending.get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes,
                     sizeof kSendBufferBytes);
    const int64_t deadline_ns = now_ns() + wait_ms * kNsPerMs;
    const int errno_before = errno;
    int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
    do {
        if (sendto(sending.get(), message.data(), message.size(), flags, as_sockaddr(place.address),
                   sizeof place.address) >= 0) {
            errno = errno_before; // an EAGAIN that waiting has mended is nobody's business
            return 0;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return errno;
        }
        flags = MSG_NOSIGNAL;
    } while (set_wait(sending.get(), deadline_ns));
    return ETIMEDOUT;
}

ssize_t receive_message(int socket, uint8_t *buffer, size_t size) {
    while (true) {
        // MSG_TRUNC: the message's whole length, even where the buffer is shorter
        const ssize_t received = recv(socket, buffer, size, MSG_TRUNC);
        if (received > static_cast<ssize_t>(size)) {
            (void)std::fprintf(stderr, "apipc: receive message: longer than %zu bytes, ignored\n",
                               size);
        } else if (received >= 0 || errno != EINTR) {
            return received;
        }
    }
}

} // namespace board
