// shell_test.cpp - shell command lines under the conditions of the tool and of host processes.
#include "board/board.h"

#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

// Runs a command in a process of its own that has treated a signal as told.
int status_with_signal(int signo, void (*disposition)(int), const char *command) {
    test::Child child([=] {
        (void)signal(signo, disposition);
        return my_system(command);
    });
    return child.wait();
}

long open_descriptors() {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
}

std::string read_all(int fd) {
    std::string text;
    char part[256];
    ssize_t count = 0;
    while ((count = read(fd, part, sizeof part)) > 0) {
        text.append(part, static_cast<size_t>(count));
    }
    return text;
}

TEST(System, ReturnsTheExitStatus) {
    for (const int status : {0, 1, 3, 126, 254, 255}) {
        EXPECT_EQ(my_system(("exit " + std::to_string(status)).c_str()), status);
    }
}

TEST(System, RunsAShellCommandLine) {
    EXPECT_EQ(my_system("a=5; (exit $a) || test $? = 5 && exit 9"), 9);
    EXPECT_EQ(my_system(""), 0);
    EXPECT_EQ(my_system("/no/such/command 2>/dev/null"), 127);
    EXPECT_EQ(my_system("exec 2>/dev/null; eval 'if'"), 2);
}

TEST(System, ReportsADeathBySignalAsShellsDo) {
    EXPECT_EQ(my_system("kill -KILL $$"), 128 + SIGKILL);
    EXPECT_EQ(my_system("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(my_system("sh -c 'kill -KILL $$' 2>/dev/null; exit $?"), 128 + SIGKILL);
}

TEST(System, RefusesNoCommand) {
    errno = 0;
    EXPECT_EQ(my_system(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(System, SaysWhyTheShellCouldNotBeStarted) {
    const std::string longer_than_an_argument_may_be(1 << 20, ':');
    errno = 0;
    EXPECT_EQ(my_system(longer_than_an_argument_may_be.c_str()), -1);
    EXPECT_EQ(errno, E2BIG);
}

TEST(System, SaysWhenDescriptorsRunOut) {
    test::Child child([] {
        const rlimit none{.rlim_cur = 3, .rlim_max = 3};
        (void)setrlimit(RLIMIT_NOFILE, &none);
        errno = 0;
        return my_system("exit 0") == -1 && errno == EMFILE ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST(System, SurvivesTheIntervalTimer) {
    const test::Ticks ticks;
    EXPECT_EQ(my_system("sleep 0.3; exit 7"), 7);
    EXPECT_GE(test::Ticks::count(), 5);
}

TEST(System, KnowsTheStatusAlthoughSigchldIsIgnored) {
    EXPECT_EQ(status_with_signal(SIGCHLD, SIG_IGN, "sh -c 'exit 6'; exit $?"), 6);
}

TEST(System, KnowsTheStatusAlthoughChildrenAreNotKept) {
    test::Child child([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_NOCLDWAIT;
        (void)sigaction(SIGCHLD, &action, nullptr);
        return my_system("exit 8");
    });
    EXPECT_EQ(child.wait(), 8);
}

TEST(System, KnowsTheStatusAlthoughAnotherThreadReapsEveryChild) {
    std::atomic<bool> stop{false};
    std::thread reaper([&stop] {
        while (!stop) {
            if (waitpid(-1, nullptr, WNOHANG) <= 0) {
                std::this_thread::yield();
            }
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(my_system("exit 4"), 4);
    }
    stop = true;
    reaper.join();
}

TEST(System, StartsTheCommandWithDefaultSignals) {
    EXPECT_EQ(status_with_signal(SIGPIPE, SIG_IGN, "kill -PIPE $$; exit 1"), 128 + SIGPIPE);
    EXPECT_EQ(status_with_signal(SIGTERM, SIG_IGN, "kill -TERM $$; exit 1"), 128 + SIGTERM);
    EXPECT_EQ(status_with_signal(SIGINT, SIG_IGN, "kill -INT $$; exit 1"), 128 + SIGINT);
    EXPECT_EQ(status_with_signal(
                  SIGUSR1, [](int) {}, "kill -USR1 $$; exit 1"),
              128 + SIGUSR1);
}

TEST(System, LeavesAnIgnoredHangUpIgnored) {
    EXPECT_EQ(status_with_signal(SIGHUP, SIG_IGN, "kill -HUP $$; exit 4"), 4);
    EXPECT_EQ(status_with_signal(SIGHUP, SIG_DFL, "kill -HUP $$; exit 4"), 128 + SIGHUP);
}

TEST(System, StartsTheCommandWithNoSignalBlocked) {
    test::Child child([] {
        sigset_t all;
        (void)sigfillset(&all);
        (void)sigprocmask(SIG_SETMASK, &all, nullptr);
        return my_system("kill -USR1 $$; exit 1");
    });
    EXPECT_EQ(child.wait(), 128 + SIGUSR1);
}

TEST(System, RestoresTheCallersSignalMask) {
    sigset_t before;
    sigset_t after;
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &before);
    EXPECT_EQ(my_system("exit 0"), 0);
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signo = 1; signo <= SIGRTMAX; ++signo) {
        EXPECT_EQ(sigismember(&before, signo), sigismember(&after, signo)) << signo;
    }
}

TEST(System, FlushesNothing) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    (void)std::fflush(stdout); // the child's buffer starts as a copy of this one
    test::Child child([&ends] {
        (void)dup2(ends[1], STDOUT_FILENO);
        (void)std::printf("buffered\n");
        const int status = my_system("echo shell");
        (void)std::fflush(stdout);
        return status;
    });
    EXPECT_EQ(child.wait(), 0);
    (void)close(ends[1]);
    EXPECT_EQ(read_all(ends[0]), "shell\nbuffered\n");
    (void)close(ends[0]);
}

TEST(System, LeavesNoDescriptorAndNoChildBehind) {
    const long before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        (void)my_system("exit 1");
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(System, HandsNoDescriptorOfItsOwnToTheCommand) {
    test::Child child([] {
        for (int fd = 3; fd < 1024; ++fd) {
            (void)close(fd);
        }
        // 0, 1, 2 and the one that ls reads the directory with
        return my_system("test $(ls /proc/self/fd | wc -l) -eq 4");
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST(System, EndsBeforeItsThreadIsCancelled) {
    const long before = open_descriptors();
    std::atomic<int> status{-2};
    pthread_t thread{};
    const auto body = [](void *out) -> void * {
        *static_cast<std::atomic<int> *>(out) = my_system("sleep 0.2; exit 5");
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &status), 0);
    (void)usleep(50000);
    (void)pthread_cancel(thread);
    (void)pthread_join(thread, nullptr);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(System, RunsOnSeveralThreadsAtOnce) {
    std::atomic<int> wrong{0};
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &wrong] {
            const std::string command = "exit " + std::to_string(10 + t);
            for (int i = 0; i < 25; ++i) {
                wrong += my_system(command.c_str()) == 10 + t ? 0 : 1;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST(Popen, ReadsWhatTheCommandWrites) {
    FILE *stream = my_popen("echo hello; exit 3", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_NE(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
    char line[32] = {};
    EXPECT_STREQ(std::fgets(line, sizeof line, stream), "hello\n");
    EXPECT_EQ(WEXITSTATUS(pclose(stream)), 3);
}

TEST(Popen, WritesWhatTheCommandReads) {
    FILE *stream = my_popen("read word; test \"$word\" = card", "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_NE(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_GT(std::fputs("card\n", stream), 0);
    EXPECT_EQ(WEXITSTATUS(pclose(stream)), 0);
}

TEST(Popen, RefusesAnyOtherModeAndNoCommand) {
    for (const char *mode : {"", "rw", "r+", "re", "a", "R"}) {
        errno = 0;
        EXPECT_EQ(my_popen("exit 0", mode), nullptr) << mode;
        EXPECT_EQ(errno, EINVAL) << mode;
    }
    EXPECT_EQ(my_popen("exit 0", nullptr), nullptr);
    EXPECT_EQ(my_popen(nullptr, "r"), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
