// The end of a host that crashes or is told to end: its stack into the log, the pool to the system.
#include "main/main.h"

#include "log/write.h"
#include "mem/mem.h"
#include "timer/last_alarm.h"
#include "timer/unblock.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <execinfo.h>
#include <memory>
#include <span>
#include <unistd.h>

namespace {

constexpr int kMostFrames = 100;
constexpr int kUnfinished = 1;       // exit status when the end itself went wrong
constexpr unsigned kMostSeconds = 5; // for the end: long for a slow log, short for who waits for it

static_assert(std::atomic<bool>::is_always_lock_free, "a handler takes no lock for it");
std::atomic<bool> g_is_ending{false};

struct FreeLines {
    void operator()(char **lines) const {
        std::free(lines);
    }
};
using Lines = std::unique_ptr<char *, FreeLines>;

// The signal may have come while its thread held a lock that the way out needs: the pool's, that of
// malloc or that of a stream. It would wait for itself for ever. So an alarm enters task_die again,
// which ends the process. Every call here is one that a handler may make.
void limit_time() {
    set_last_alarm(kMostSeconds, task_die);
    unblock({SIGALRM});
}

} // namespace

signal_handler signal_set(void) {
    // The first call of backtrace loads the unwinder, with malloc and the loader's locks; a handler
    // could get stuck there.
    void *frame = nullptr;
    (void)backtrace(&frame, 1);
    for (const int signo : {SIGTERM, SIGINT, SIGQUIT, SIGSEGV}) {
        (void)signal(signo, task_die); // cannot fail for these signals
    }
    return signal(SIGHUP, SIG_IGN);
}

void task_die(int /*signo*/) {
    if (g_is_ending.exchange(true)) {
        _exit(kUnfinished);
    }
    limit_time();
    LOG("task_die!!!\n");
    putstackinfo();
    (void)mem_uinit(); // always 0
    exit(0);
}

void putstackinfo(void) {
    std::array<void *, kMostFrames> frames{};
    const int count = backtrace(frames.data(), kMostFrames);
    LOG("backtrace() returned %d addresses\n", count);
    const Lines lines(backtrace_symbols(frames.data(), count));
    if (lines == nullptr) {
        LOG("backtrace_symbols");
        exit(kUnfinished);
    }
    for (const char *line : std::span(lines.get(), static_cast<size_t>(count))) {
        LOG("%s\n", line);
    }
}
