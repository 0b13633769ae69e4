#include "tests/system/bed/standstill.h"

#include <atomic>
#include <csignal>
#include <pthread.h>
#include <sched.h>
#include <thread>

namespace bed {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPause{5};

std::atomic<int64_t> g_longest_ms{0};

cpu_set_t only(size_t processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    return set;
}

void note(milliseconds gap) {
    int64_t longest = g_longest_ms.load();
    while (gap.count() > longest && !g_longest_ms.compare_exchange_weak(longest, gap.count())) {
    }
}

// Wants to run for a moment again and again; how late it does is what everybody else suffers, too.
[[noreturn]] void watch(size_t processor) {
    const cpu_set_t here = only(processor);
    (void)sched_setaffinity(0, sizeof here, &here);
    for (Clock::time_point last = Clock::now();;) {
        std::this_thread::sleep_for(kPause);
        const Clock::time_point now = Clock::now();
        note(std::chrono::duration_cast<milliseconds>(now - last) - kPause);
        last = now;
    }
}

} // namespace

// Signals are for the tests' own threads.
void standstill_watch() {
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    (void)sched_getaffinity(0, sizeof allowed, &allowed);
    for (size_t processor = 0; processor < CPU_SETSIZE; processor++) {
        if (CPU_ISSET(processor, &allowed)) {
            std::thread(watch, processor).detach();
        }
    }
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

milliseconds standstill_take() {
    return milliseconds(g_longest_ms.exchange(0));
}

} // namespace bed
