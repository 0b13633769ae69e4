// rukd - the reference host process: one link, the request service and its file thread, in the
// foreground, with the log on standard output. Read it before you write a host of your own.
#include "main/main.h"
#include "ap_msg/ap_msg.h"
#include "base/standard_streams.h"
#include "board/board.h"
#include "eth_raw/eth_raw.h"
#include "log/log.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "timer/last_alarm.h"
#include "timer/timer.h"
#include "timer/unblock.h"

#include "arguments.h"
#include "counters.h"
#include "link.h"
#include "message_directory.h"
#include "user.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <unistd.h>

namespace {

std::atomic<bool> g_end{false}; // set on whichever thread takes the signal
static_assert(std::atomic<bool>::is_always_lock_free, "a handler sets it");

// The main thread waits on sem_test; posting it is all that a handler may do to wake it. It may
// also be printing, and wait for whoever reads the log.
void end_service(int /*signo*/) {
    if (!g_end.exchange(true)) {
        limit_last_words();
    }
    post_test();
}

void install_signal_handlers() {
    (void)signal_set(); // a crash leaves its stack in the log
    // Being told to end is no crash: these get their own handler instead of the one set above.
    const std::initializer_list<int> ends = {SIGTERM, SIGINT, SIGQUIT};
    for (const int signo : ends) {
        (void)signal(signo, end_service); // cannot fail for these signals
    }
    unblock(ends);
    install_counters_signal();
    for (const int signo : {SIGHUP, SIGPIPE}) {
        (void)signal(signo, SIG_IGN); // the service outlives its terminal and the reader of its log
    }
}

void start_layers() {
    queue_init();
    (void)mem_init();
    log_debug = 1;
    (void)sem_init(&sem_test, 0, 0); // cannot fail with this value
    if (initTimer() != 0) {
        perror("rukd: interval timer");
    }
}

// Every request may name files, which the service opens with the rights that it has.
bool limit_rights(const Arguments &arguments) {
    if (arguments.user != nullptr) {
        return become_user(arguments.user);
    }
    return geteuid() != 0 || arguments.as_root || message_directory_is_roots();
}

// The receive thread registers too, but could only log why it failed.
bool register_service() {
    if (PmdApipcInit() == 0) {
        return true;
    }
    if (errno == EADDRINUSE) {
        (void)fprintf(stderr,
                      "rukd: message directory %s: another process serves slot %d already\n",
                      message_directory(), apcard_bit_self());
    } else {
        (void)fprintf(stderr, "rukd: message directory %s: %s\n", message_directory(),
                      strerror(errno));
    }
    return false;
}

void *as_argument(int index) {
    const intptr_t value = index;
    return reinterpret_cast<void *>(value); // NOLINT(performance-no-int-to-ptr)
}

// The file thread first: its semaphore must be there before a request can come.
bool start_service(int index) {
    if (PmdApFileTaskCreate(as_argument(index)) == 0 &&
        PmdApRecvTaskCreate(as_argument(index)) == 0) {
        return true;
    }
    (void)fprintf(stderr, "rukd: request service: no right to real-time threads (CAP_SYS_NICE)\n");
    return false;
}

constexpr auto kBetweenLooks = std::chrono::milliseconds(200); // at the link's interface
constexpr auto kBetweenTries = std::chrono::seconds(1); // to open it, each with its log lines

// Waits for a post, and not much longer than until the next look. A signal may end it early, which
// is looked at next.
void wait_for_post() {
    timespec until{};
    (void)clock_gettime(CLOCK_MONOTONIC, &until); // cannot fail for this clock
    constexpr long kNsPerS = 1000000000;
    until.tv_nsec += std::chrono::nanoseconds(kBetweenLooks).count();
    until.tv_sec += until.tv_nsec / kNsPerS;
    until.tv_nsec %= kNsPerS;
    (void)sem_clockwait(&sem_test, CLOCK_MONOTONIC, &until);
}

// Each request that waited for a card has posted too; taking the posts keeps the count from
// running over in a process that serves for years.
void serve_until_end(Link &link) {
    using Clock = std::chrono::steady_clock;
    auto next_look = Clock::now() + kBetweenLooks;
    while (!g_end) {
        wait_for_post();
        show_counters_when_asked();
        if (Clock::now() >= next_look) {
            look_after(link);
            next_look = Clock::now();
            next_look += link.is_failing ? kBetweenTries : kBetweenLooks;
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    fill_standard_streams();
    const Arguments arguments = parse(argc, argv);
    if (arguments.status >= 0) {
        return arguments.status;
    }
    if (!limit_rights(arguments)) {
        return kMissing;
    }
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // a log that is watched is up to date
    install_signal_handlers();
    start_layers();
    Link link{.index = arguments.index};
    if (!register_service() || !open_link(link) || !start_service(link.index)) {
        (void)fflush(stdout);
        _exit(kMissing); // threads may run: their memory must stay
    }
    printf("rukd: ready, slot %d, %s, messages in %s\n", apcard_bit_self(),
           g_netdev_name[link.index], message_directory());
    serve_until_end(link);
    limit_last_words(); // once more: the signal may have come before the layers started
    printf("rukd: ended\n");
    _exit(0); // the threads are in the middle of their waits: the end of the process ends them
}
