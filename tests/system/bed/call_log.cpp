// call_log.cpp - preloaded: notes how a program takes its link down, in the file that the
// environment variable CALL_LOG names. A line for each long sleep of its main thread, each thread
// that it cancels, each packet socket that it closes, and an end without exit.
//
// UNWINDER=missing: there is none to be had. RECEIVER=hangs: a cancelled receiver does not end, and
// from the first cancel on the main thread's clock is moved by its sleeps alone, which take no
// time. RECEIVER=prints: it is not cancelled before it has printed something, and had the
// time to fill the log of whoever does not read it.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#define MODULE_API extern "C" __attribute__((visibility("default")))

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNanosecondsPerMicrosecond = 1'000;
constexpr int64_t kLongSleep = 50'000; // us; below are pauses between frames and looks

std::atomic<bool> g_is_receiving{false};
int64_t g_main_clock = 0; // ns: what the main thread was told last
bool g_main_clock_stands = false;
int64_t g_slept = 0; // ns, on a clock that stands

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool is_set(const char *name, std::string_view value) {
    const char *text = getenv(name);
    return text != nullptr && value == text;
}

int close_really(int fd) {
    static auto *const real = next<int(int)>("close");
    return real(fd);
}

// The shells that the program starts load this, too.
void note(std::string_view line) {
    static const bool is_tool = std::string_view("ruk") == program_invocation_short_name;
    const char *name = is_tool ? getenv("CALL_LOG") : nullptr;
    const int fd =
        name == nullptr ? -1 : open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, line.data(), line.size());
        (void)close_really(fd);
    }
}

void note_time(const std::string &what, int64_t nanoseconds) {
    note(what + std::to_string(nanoseconds / kNanosecondsPerMicrosecond) + " us\n");
}

bool is_main_thread() {
    return syscall(SYS_gettid) == getpid();
}

bool is_packet_socket(int fd) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_PACKET;
}

int sleep_really(clockid_t clock, int flags, const timespec *until, timespec *rest) {
    static auto *const real =
        next<int(clockid_t, int, const timespec *, timespec *)>("clock_nanosleep");
    return real(clock, flags, until, rest);
}

void sleep_milliseconds(long count) {
    const timespec time{.tv_sec = 0, .tv_nsec = count * 1'000'000};
    (void)sleep_really(CLOCK_MONOTONIC, 0, &time, nullptr);
}

// Ten seconds at most.
void await_unread_output() {
    pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    for (int i = 0; i < 1000 && poll(&output, 1, 0) == 1; i++) {
        sleep_milliseconds(10);
    }
    sleep_milliseconds(200);
}

// A cancelled receiver takes its time to end, so that whoever does not wait for it is seen.
class Receiving {
public:
    Receiving() {
        g_is_receiving = true;
    }
    Receiving(const Receiving &) = delete;
    Receiving &operator=(const Receiving &) = delete;
    ~Receiving() {
        while (!is_done && is_set("RECEIVER", "hangs")) {
            (void)pause();
        }
        if (!is_done) {
            sleep_milliseconds(20);
        }
        g_is_receiving = false;
    }

    bool is_done = false;
};

} // namespace

MODULE_API ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from,
                            socklen_t *from_size) {
    static auto *const real =
        next<ssize_t(int, void *, size_t, int, sockaddr *, socklen_t *)>("recvfrom");
    Receiving receiving;
    const ssize_t got = real(fd, buffer, size, flags, from, from_size);
    receiving.is_done = true;
    return got;
}

MODULE_API int clock_gettime(clockid_t clock, timespec *now) {
    static auto *const real = next<int(clockid_t, timespec *)>("clock_gettime");
    const int result = real(clock, now);
    if (clock != CLOCK_MONOTONIC || !is_main_thread()) {
        return result;
    }
    if (!g_main_clock_stands) {
        g_main_clock = now->tv_sec * kNanosecondsPerSecond + now->tv_nsec;
    }
    now->tv_sec = static_cast<time_t>(g_main_clock / kNanosecondsPerSecond);
    now->tv_nsec = static_cast<long>(g_main_clock % kNanosecondsPerSecond);
    return result;
}

MODULE_API int clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest) {
    if (flags != TIMER_ABSTIME || !is_main_thread()) {
        return sleep_really(clock, flags, until, rest);
    }
    const int64_t time = until->tv_sec * kNanosecondsPerSecond + until->tv_nsec - g_main_clock;
    if (g_main_clock_stands) {
        g_main_clock += time;
        g_slept += time;
        return 0;
    }
    const int result = sleep_really(clock, flags, until, rest);
    if (result == 0 && time >= kLongSleep * kNanosecondsPerMicrosecond) {
        note_time("sleep ", time); // as a whole: ticks end it early several times
    }
    return result;
}

MODULE_API int backtrace(void **frames, int size) {
    static auto *const real = next<int(void **, int)>("backtrace");
    return is_set("UNWINDER", "missing") ? 0 : real(frames, size);
}

MODULE_API int pthread_cancel(pthread_t thread) {
    if (is_set("RECEIVER", "prints")) {
        await_unread_output();
    }
    note("cancel\n");
    g_main_clock_stands = is_set("RECEIVER", "hangs");
    static auto *const real = next<int(pthread_t)>("pthread_cancel");
    return real(thread);
}

MODULE_API int close(int fd) {
    if (is_packet_socket(fd)) {
        note(g_is_receiving ? "close under the receiver\n" : "close\n");
    }
    return close_really(fd);
}

MODULE_API void _exit(int status) {
    note_time("no exit after ", g_slept);
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
