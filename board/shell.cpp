// shell.cpp - shell command lines.
//
// A process that ignores SIGCHLD, or reaps children on another thread, never learns the status of
// its own child. So my_system puts a watcher between: a forked copy of the process that treats
// SIGCHLD as it needs it, starts the shell, waits for it and writes the outcome into a pipe.
#include "board/board.h"

#include "board/cancellation.h"
#include "board/descriptor.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

using board::Descriptor;
using board::WithoutCancellation;

namespace {

constexpr int kSignalledBase = 128; // a shell reports the end by signal n as 128 + n
constexpr int kNotStarted = 127;

// What travels through the pipe; shorter than PIPE_BUF, so it is written and read in one piece.
struct Outcome {
    int error;  // errno when the command could not be started, else 0
    int status; // as waitpid tells it
};

void tell(int pipe, Outcome outcome) {
    ssize_t written = -1;
    do {
        written = write(pipe, &outcome, sizeof outcome);
    } while (written < 0 && errno == EINTR);
}

bool hear(int pipe, Outcome &outcome) {
    ssize_t received = -1;
    do {
        received = read(pipe, &outcome, sizeof outcome);
    } while (received < 0 && errno == EINTR);
    return received == static_cast<ssize_t>(sizeof outcome);
}

pid_t wait_for_end(pid_t child, int &status) {
    pid_t ended = -1;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended;
}

// Ends a forked copy of the process. _exit will not do: under the thread sanitizer it flushes the
// streams, whose contents belong to the original.
[[noreturn]] void leave(int status) {
    while (true) {
        (void)syscall(SYS_exit_group, status);
    }
}

// An ignored SIGHUP is meant for the children too: they shall outlive the terminal. Every other
// disposition is this process's own affair.
void restore_default_signals() {
    struct sigaction by_default {};
    by_default.sa_handler = SIG_DFL;
    for (int signo = 1; signo <= SIGRTMAX; ++signo) {
        struct sigaction current {};
        const bool stays = signo == SIGHUP && sigaction(signo, nullptr, &current) == 0 &&
                           current.sa_handler == SIG_IGN;
        if (!stays) {
            (void)sigaction(signo, &by_default, nullptr); // SIGKILL and SIGSTOP cannot be set
        }
    }
    sigset_t none;
    (void)sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become_shell(const char *command, int pipe) {
    restore_default_signals();
    (void)execl("/bin/sh", "sh", "-c", command, nullptr);
    tell(pipe, {.error = errno, .status = 0});
    leave(kNotStarted);
}

// Runs with all signals blocked, so that no handler of the process it was copied from runs here.
[[noreturn]] void watch_shell(const char *command, int pipe) {
    // It holds copies of all descriptors, sockets too: it must not outlive their owner.
    (void)prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGKILL));
    struct sigaction by_default {};
    by_default.sa_handler = SIG_DFL;
    (void)sigaction(SIGCHLD, &by_default, nullptr);
    const pid_t shell = fork();
    if (shell == 0) {
        become_shell(command, pipe);
    }
    Outcome outcome{};
    if (shell < 0 || wait_for_end(shell, outcome.status) < 0) {
        outcome.error = errno;
    }
    tell(pipe, outcome);
    leave(0);
}

// The process id of a new watcher, or -1 with errno.
pid_t start_watcher(const char *command, int pipe) {
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t watcher = fork();
    if (watcher == 0) {
        watch_shell(command, pipe);
    }
    const int saved = errno;
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = saved;
    return watcher;
}

int exit_status(int status) {
    return WIFSIGNALED(status) ? kSignalledBase + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

int my_system(const char *command) {
    if (command == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const WithoutCancellation without_cancellation;
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const pid_t watcher = start_watcher(command, writing.get());
    if (watcher < 0) {
        return -1;
    }
    writing.reset(-1); // so that the watcher's death ends the read
    Outcome outcome{.error = ECHILD, .status = 0};
    const bool heard = hear(reading.get(), outcome);
    int ignored = 0;
    (void)wait_for_end(watcher, ignored); // somebody else may have reaped it
    if (!heard || outcome.error != 0) {
        errno = heard ? outcome.error : ECHILD;
        return -1;
    }
    return exit_status(outcome.status);
}

FILE *my_popen(const char *command, const char *mode) {
    const bool reads = mode != nullptr && std::strcmp(mode, "r") == 0;
    const bool writes = mode != nullptr && std::strcmp(mode, "w") == 0;
    if (command == nullptr || (!reads && !writes)) {
        errno = EINVAL;
        return nullptr;
    }
    return popen(command, reads ? "re" : "we"); // "e": close on exec
}
