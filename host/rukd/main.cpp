// rukd - the reference host process: one link, the request service and its file thread, in the
// foreground, with the log on standard output. Read it before you write a host of your own.
#include "main/main.h"
#include "ap_msg/ap_msg.h"
#include "board/board.h"
#include "eth_raw/eth_raw.h"
#include "log/log.h"
#include "log/standard_streams.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "timer/last_alarm.h"
#include "timer/timer.h"
#include "timer/unblock.h"

#include "arguments.h"
#include "counters.h"
#include "message_directory.h"
#include "user.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <net/if.h>
#include <string_view>
#include <sys/ioctl.h>
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

bool open_link(int index) {
    const char *name = g_netdev_name[index];
    if (if_nametoindex(name) == 0) {
        (void)fprintf(stderr, "rukd: %s: no such interface\n", name);
        return false;
    }
    pthread_t receive{};
    pthread_t check{};
    errno = 0;
    (void)RawMsgModuleInit(index, &receive, &check); // 0 in every case
    if (g_eth_init[index].flag == 0 || check == pthread_t{}) {
        const bool no_right = errno == EPERM || errno == EACCES;
        (void)fprintf(stderr, "rukd: %s: link not up: %s%s\n", name, strerror(errno),
                      no_right ? " (raw sockets need CAP_NET_RAW and CAP_NET_ADMIN)" : "");
        return false;
    }
    if (receive == pthread_t{}) {
        (void)fprintf(stderr, "rukd: %s: no right to real-time threads (CAP_SYS_NICE)\n", name);
        return false;
    }
    return true;
}

// It may come up later, so that is no reason not to serve.
void warn_of_dead_interface(int index) {
    ifreq request{};
    (void)std::string_view(g_netdev_name[index])
        .copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (ioctl(g_eth_init[index].sock_fd, SIOCGIFFLAGS, &request) == 0 &&
        (request.ifr_flags & IFF_RUNNING) == 0) {
        (void)fprintf(stderr, "rukd: %s is down or without a cable: requests fail until it is up\n",
                      g_netdev_name[index]);
    }
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

// Each request that waited for a card has posted too; taking the posts keeps the count from
// running over in a process that serves for years.
void wait_for_end() {
    while (!g_end) {
        (void)sem_wait(&sem_test); // a signal may end it early, which is looked at next
        show_counters_when_asked();
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
    if (!register_service() || !open_link(arguments.index) || !start_service(arguments.index)) {
        (void)fflush(stdout);
        _exit(kMissing); // threads may run: their memory must stay
    }
    warn_of_dead_interface(arguments.index);
    printf("rukd: ready, slot %d, %s, messages in %s\n", apcard_bit_self(),
           g_netdev_name[arguments.index], message_directory());
    wait_for_end();
    limit_last_words(); // once more: the signal may have come before the layers started
    printf("rukd: ended\n");
    _exit(0); // the threads are in the middle of their waits: the end of the process ends them
}
