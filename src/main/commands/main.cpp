// The command-line tool: bring one link up, run one command, take the link down.
#include "base/standard_streams.h"
#include "board/board.h"
#include "eth_raw/eth_raw.h"
#include "eth_raw/link_state.h"
#include "log/log.h"
#include "log/write.h"
#include "main/commands/command.h"
#include "main/commands/usage.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "raw_msg/threads.h"
#include "timer/last_alarm.h"
#include "timer/sleep.h"
#include "timer/timer.h"
#include "timer/unblock.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <initializer_list>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kThreadStart = 100000us; // until both threads of the link are running
constexpr auto kThreadEnd = 1000ms;     // at most; they end as soon as they are cancelled
constexpr int kFailed = -1;             // the shell sees 255
constexpr char kDumpingName[] = "ruk_test";

// Room for a burst of frames. Their outcome does not matter: without the right the limits stay.
constexpr const char *kStartCommands[] = {
    "sysctl -w net.core.wmem_max=3492800",
    "sysctl -w net.core.wmem_default=3492800",
};

struct Command {
    const char *word;
    Outcome (*run)(const CommandLine &line);
};
constexpr Command kCommands[] = {
    {"writepic", run_writepic}, {"update", run_update}, {"read", run_read},
    {"readw", run_readw},       {"write", run_write},   {"writea", run_writea},
    {"writeaw", run_writeaw},
};

struct Threads {
    pthread_t receive = {};
    pthread_t check = {};
};

void end_quietly(int /*signo*/) {
    limit_last_words();
    exit(0);
}

void install_signal_handlers() {
    const std::initializer_list<int> ends = {SIGTERM, SIGINT, SIGQUIT};
    for (const int signo : ends) {
        (void)signal(signo, end_quietly); // cannot fail for these signals
    }
    unblock(ends);
    (void)signal(SIGHUP, SIG_IGN);
}

void start_up(const char *program) {
    install_signal_handlers();
    queue_init();
    (void)mem_init();
    if (initTimer() != 0) {
        perror("ruk: interval timer");
    }
    log_debug = 1;
    if (strcmp(program, kDumpingName) == 0) {
        print_flag = 1;
    }
    (void)sem_init(&sem_test, 0, 0); // cannot fail with this value
    for (const char *command : kStartCommands) {
        (void)my_system(command);
    }
    LOG("use mem manage\n");
}

// The library reports a link that is down like one that is up; a person should see the difference.
void complain_about_link(int index, int reason, const Threads &threads) {
    if (link_record(index) == nullptr) {
        (void)fprintf(stderr, "ruk: interface index %d: only 0 to %d exist, nothing is sent\n",
                      index, MAX_ETH - 1);
    } else if (!link_is_up(index)) {
        (void)fprintf(stderr, "ruk: %s: not up (%s), nothing is sent\n", g_netdev_name[index],
                      strerror(reason));
    } else if (threads.receive == pthread_t{}) {
        (void)fprintf(stderr,
                      "ruk: %s: no real-time rights for the receive thread, "
                      "no answer is seen\n",
                      g_netdev_name[index]);
    }
}

void cancel(pthread_t thread, int &cancelled) {
    if (thread == pthread_t{}) {
        return; // it was never created
    }
    (void)pthread_cancel(thread); // both threads run until they are cancelled
    cancelled += 1;
}

void detach(pthread_t thread) {
    if (thread != pthread_t{}) {
        (void)pthread_detach(thread);
    }
}

// To cancel a thread takes the unwinder. The C library loads it when it is first wanted, and
// without the memory to do so ends the process with SIGABRT.
bool can_cancel() {
    void *frame = nullptr;
    return backtrace(&frame, 1) > 0; // wants the unwinder too, and goes without
}

// False: at least one of them still runs.
bool end_threads(const Threads &threads) {
    if (!can_cancel()) {
        return false;
    }
    int cancelled = 0;
    cancel(threads.receive, cancelled);
    cancel(threads.check, cancelled);
    return await_thread_ends(cancelled, kThreadEnd);
}

// The threads are not joined: one that hangs in the kernel must not keep the tool from ending. Its
// socket must not be closed under it, nor may exit be called: that writes once more what it finds
// half written, and waits for the list of streams, which the thread may hold while it waits for one
// of them. Nor is standard output flushed, which the thread may hold while nobody reads it: all
// that is left in there is the thread's. The end of the process closes the socket.
void stop_threads(const Threads &threads, int status) {
    const bool ended = end_threads(threads);
    detach(threads.receive);
    detach(threads.check);
    if (!ended) {
        _exit(status);
    }
}

int shut_down(int index, const Threads &threads) {
    stop_threads(threads, EXIT_SUCCESS);
    (void)RawMsgModuleUnInit(index); // gives -1 by definition
    (void)mem_uinit();
    return EXIT_SUCCESS;
}

int abandon(int index, const Threads &threads) {
    stop_threads(threads, kFailed);
    (void)RawSockMsgUnInit(static_cast<uint32_t>(index)); // gives -1 by definition
    return kFailed;
}

CommandLine parse(std::span<char *> argv, int index) {
    return {.argv = argv,
            .index = index,
            .model = static_cast<uint16_t>(parse_hex(argv[kArgModel])),
            .slot = static_cast<uint8_t>(parse_hex(argv[kArgSlot])),
            .addr = parse_hex(argv[kArgAddr])};
}

// An unknown word runs nothing; the link goes up and down all the same.
Outcome dispatch(const CommandLine &line) {
    for (const Command &command : kCommands) {
        if (strcmp(line.argv[kArgCommand], command.word) == 0) {
            return command.run(line);
        }
    }
    return Outcome::kDone;
}

} // namespace

int main(int argc, char **argv) {
    fill_standard_streams();
    const std::span<char *> words(argv, static_cast<size_t>(argc));
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // a log that is watched through a pipe is up to date
    start_up(words.empty() ? "" : words[0]);
    if (words.size() <= kArgAddr) {
        usage();
        return kFailed;
    }
    const int index = parse_index(words[kArgIndex]); // a word that is no number is interface 0
    LOG("index = %d\n", index);

    Threads threads;
    if (RawMsgModuleInit(index, &threads.receive, &threads.check) != 0) {
        return kFailed;
    }
    complain_about_link(index, errno, threads);
    sleep_full(kThreadStart);
    if (dispatch(parse(words, index)) == Outcome::kAbandoned) {
        return abandon(index, threads);
    }
    return shut_down(index, threads);
}
