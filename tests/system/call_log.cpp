// call_log.cpp - preloaded: notes how a program takes its link down, in the file that the
// environment variable CALL_LOG names. A line for each thread that it cancels and each packet
// socket that it closes.
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace {

template <typename Function>
Function next(const char *name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

using Close = int (*)(int fd);

int close_really(int fd) {
    static const auto real = next<Close>("close");
    return real(fd);
}

void note(std::string_view line) {
    const char *name = getenv("CALL_LOG");
    const int fd =
        name == nullptr ? -1 : open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, line.data(), line.size());
        (void)close_really(fd);
    }
}

bool is_packet_socket(int fd) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_PACKET;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int pthread_cancel(pthread_t thread) {
    note("cancel\n");
    static const auto real = next<int (*)(pthread_t)>("pthread_cancel");
    return real(thread);
}

__attribute__((visibility("default"))) int close(int fd) {
    if (is_packet_socket(fd)) {
        note("close\n");
    }
    return close_really(fd);
}
}
