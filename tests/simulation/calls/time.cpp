// Clocks, sleeps, signals and the interval timer.
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <sys/time.h>

namespace {

using namespace sim;

// The clock at the start of a run: not 0, which might be taken for "never".
constexpr Time kStart = 1000 * kSecond;

Time as_time(const timespec &when) {
    return when.tv_sec * kSecond + when.tv_nsec;
}

timespec as_timespec(Time when) {
    return {.tv_sec = when / kSecond, .tv_nsec = when % kSecond};
}

int sleep_until(const char *call, Time until) {
    cancellation_point();
    point(call);
    cancellation_point();
    while (now() < until) {
        switch (wait(call, nullptr, until, true, true)) {
        case Woken::kSignal:
            SIM_TELL("%s: EINTR", call);
            return EINTR;
        case Woken::kCancelled:
            cancellation_point();
            break;
        default:
            break;
        }
    }
    cancellation_point();
    return 0;
}

} // namespace

extern "C" {

// NOLINTBEGIN: the linker's names
int __wrap_clock_gettime(clockid_t, timespec *when) {
    *when = as_timespec(kStart + now());
    return 0;
}

int __wrap_gettimeofday(timeval *when, void *) {
    when->tv_sec = (kStart + now()) / kSecond;
    when->tv_usec = (kStart + now()) % kSecond / kMicrosecond;
    return 0;
}

int __wrap_clock_nanosleep(clockid_t, int flags, const timespec *duration, timespec *) {
    const bool is_absolute = (flags & TIMER_ABSTIME) != 0;
    const Time until = is_absolute ? as_time(*duration) - kStart : now() + as_time(*duration);
    return sleep_until("clock_nanosleep", until);
}

int __wrap_usleep(useconds_t duration) {
    if (sleep_until("usleep", now() + duration * kMicrosecond) == 0) {
        return 0;
    }
    errno = EINTR;
    return -1;
}

int __wrap_setitimer(__itimer_which_t, const itimerval *both, itimerval *) {
    point("setitimer");
    set_tick(both->it_interval.tv_sec * kSecond + both->it_interval.tv_usec * kMicrosecond);
    return 0;
}

unsigned __wrap_alarm(unsigned seconds) {
    set_tick(seconds * kSecond);
    return 0;
}

sighandler_t __wrap_signal(int signo, sighandler_t handler) {
    point("signal");
    set_signal_handler(signo, handler == SIG_IGN || handler == SIG_DFL ? nullptr : handler);
    return SIG_DFL;
}

// Signals are never blocked here: what the product unblocks is not blocked.
int __wrap_pthread_sigmask(int, const sigset_t *, sigset_t *) {
    return 0;
}

std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(kStart + now()));
}
// NOLINTEND
}
