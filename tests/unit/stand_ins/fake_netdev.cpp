#include "stand_ins/fake_netdev.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <net/ethernet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr int kFirstSocket = 5000;

struct Socket {
    bool is_raw;
    int bound_to;
    bool is_open;
};

struct Kernel {
    std::mutex lock;
    std::map<int, Socket> sockets;
    std::map<std::string, int> failures;
    std::vector<std::string> calls;
    int next_socket = kFirstSocket;
    bool zero_is_free = false;
};

// Never destroyed: descriptors are closed until the end of the process.
Kernel &kernel() {
    static auto *const the_kernel = new Kernel;
    return *the_kernel;
}

// Without a lock: others' descriptors are closed in forked processes, too.
std::atomic<bool> g_zero_is_played{false};

bool is_played(int fd) {
    return fd >= kFirstSocket || (fd == 0 && g_zero_is_played);
}

// Notes a call; its failure, with errno set, or 0.
int begin_locked(Kernel &k, const std::string &call, const std::string &details = "") {
    k.calls.push_back(call + details);
    const auto failure = k.failures.find(call);
    if (failure == k.failures.end() || failure->second == 0) {
        return 0;
    }
    errno = failure->second;
    return -1;
}

int number_of(const std::string &name) {
    return name.size() == 4 && name.starts_with("eth") ? kFirstInterface + (name[3] - '0') : 0;
}

int answer_locked(Kernel &k, unsigned long request, ifreq &about) {
    const std::string name = about.ifr_name;
    char flags[16];
    (void)snprintf(flags, sizeof flags, " %x", static_cast<unsigned short>(about.ifr_flags));
    switch (request) {
    case SIOCGIFFLAGS:
        about.ifr_flags = kInterfaceFlags;
        return begin_locked(k, "SIOCGIFFLAGS", " " + name);
    case SIOCSIFFLAGS:
        return begin_locked(k, "SIOCSIFFLAGS", " " + name + flags);
    case SIOCGIFINDEX:
        about.ifr_ifindex = number_of(name);
        return begin_locked(k, "SIOCGIFINDEX", " " + name);
    default:
        return begin_locked(k, "ioctl");
    }
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

int __wrap_socket(int domain, int type, int protocol);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_bind(int fd, const sockaddr *address, socklen_t size);
int __wrap_close(int fd);
int __real_close(int fd);

int __wrap_socket(int domain, int type, int protocol) {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    if (begin_locked(k, "socket") != 0) {
        return -1;
    }
    const int fd = k.zero_is_free ? 0 : k.next_socket++;
    k.zero_is_free = false;
    k.sockets[fd] = {.is_raw = domain == AF_PACKET && type == (SOCK_RAW | SOCK_CLOEXEC) &&
                               protocol == htons(ETH_P_ALL),
                     .bound_to = 0,
                     .is_open = true};
    return fd;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *about = va_arg(arguments, void *);
    va_end(arguments);
    if (!is_played(fd)) {
        return __real_ioctl(fd, request, about);
    }
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    return answer_locked(k, request, *static_cast<ifreq *>(about));
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t size) {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    if (begin_locked(k, "bind") != 0) {
        return -1;
    }
    sockaddr_ll link{};
    if (size == sizeof link) {
        link = *reinterpret_cast<const sockaddr_ll *>(address);
    }
    if (link.sll_family == AF_PACKET && link.sll_protocol == htons(ETH_P_ALL)) {
        k.sockets[fd].bound_to = link.sll_ifindex;
    }
    return 0;
}

int __wrap_close(int fd) {
    if (!is_played(fd)) {
        return __real_close(fd);
    }
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    Socket &socket = k.sockets[fd];
    const bool was_open = socket.is_open;
    socket.is_open = false;
    if (begin_locked(k, "close") != 0) {
        return -1;
    }
    errno = was_open ? errno : EBADF;
    return was_open ? 0 : -1;
}

} // extern "C"

#pragma GCC visibility pop

void netdev_reset() {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    k.sockets.clear();
    g_zero_is_played = false;
    k.zero_is_free = false;
    k.failures.clear();
    k.calls.clear();
}

void netdev_zero_is_free() {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    g_zero_is_played = true;
    k.zero_is_free = true;
}

void netdev_fails(const std::string &call, int error) {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    k.failures[call] = error;
}

std::vector<std::string> netdev_calls() {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    return std::exchange(k.calls, {});
}

std::vector<int> netdev_sockets() {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    std::vector<int> open;
    for (const auto &[fd, socket] : k.sockets) {
        if (socket.is_open) {
            open.push_back(fd);
        }
    }
    return open;
}

bool netdev_is_raw(int socket) {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    return k.sockets.at(socket).is_raw;
}

int netdev_bound_to(int socket) {
    Kernel &k = kernel();
    const std::lock_guard guard(k.lock);
    return k.sockets.at(socket).bound_to;
}
