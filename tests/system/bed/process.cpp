// Programs under test and what they print.
#include "tests/system/bed/bed.h"
#include "tests/system/bed/journal.h"
#include "tests/system/bed/repeat.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNotStarted = 127;
constexpr int kSignalledBase = 1000;
constexpr auto kPoll = 1ms;

int memory_file(const char *name) {
    const int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("memfd_create");
    }
    return fd;
}

std::string whole_file(int fd) {
    std::string text(static_cast<size_t>(std::max<off_t>(lseek(fd, 0, SEEK_END), 0)), '\0');
    const ssize_t got = pread(fd, text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

std::string joined(const Words &words) {
    std::string text;
    for (const std::string &word : words) {
        text += word + " ";
    }
    return text;
}

// The words as exec wants them; made before the fork, as other threads may be running.
std::vector<char *> exec_words(const Words &words) {
    std::vector<char *> argv;
    for (const std::string &word : words) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

bool has_crashed(int status) {
    constexpr int kCrashes[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};
    return std::ranges::any_of(kCrashes,
                               [status](int signo) { return status == kSignalledBase + signo; });
}

[[noreturn]] void become(const Launch &launch, char *const *argv, int out_fd, int err_fd) {
    (void)prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGKILL));
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    (void)dup2(nothing, STDIN_FILENO);
    (void)dup2(out_fd, STDOUT_FILENO);
    (void)dup2(err_fd, STDERR_FILENO);
    if (launch.in_child) {
        launch.in_child();
    }
    (void)execvp(launch.program.empty() ? argv[0] : launch.program.c_str(), argv);
    perror(argv[0]);
    _exit(kNotStarted);
}

} // namespace

Process::Process(const Launch &launch)
    : name_(joined(launch.argv)), out_fd_(memory_file("out")), err_fd_(memory_file("err")) {
    const std::vector<char *> argv = exec_words(launch.argv);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork");
    }
    if (pid_ == 0) {
        become(launch, argv.data(), out_fd_, err_fd_);
    }
}

Process::~Process() {
    if (!status_) {
        send(SIGKILL);
        (void)wait();
    }
    if (has_crashed(status_.value_or(0)) || err().find("Sanitizer") != std::string::npos) {
        repeat_never();
    }
    journal_add("$ " + name_ + "\nstatus " + std::to_string(status_.value_or(-1)) +
                "\n--- standard output\n" + out() + "\n--- standard error\n" + err());
    (void)close(out_fd_);
    (void)close(err_fd_);
}

int Process::pid() const {
    return pid_;
}

void Process::send(int signo) const {
    if (!status_) {
        (void)::kill(pid_, signo);
    }
}

std::optional<int> Process::wait(Milliseconds at_most) {
    const auto give_up = Clock::now() + at_most;
    while (!status_) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFSIGNALED(status) ? kSignalledBase + WTERMSIG(status) : WEXITSTATUS(status);
        } else if (Clock::now() > give_up) {
            if (at_most >= kHang) {
                repeat_never();
            }
            return std::nullopt;
        } else {
            std::this_thread::sleep_for(kPoll);
        }
    }
    return status_;
}

bool Process::await_output(std::string_view text) {
    const auto give_up = Clock::now() + kHang;
    while (out().find(text) == std::string::npos) {
        if (wait(kPoll)) {
            return out().find(text) != std::string::npos;
        }
        if (Clock::now() > give_up) {
            repeat_never();
            return false;
        }
    }
    return true;
}

std::string Process::out() const {
    return whole_file(out_fd_);
}

std::string Process::err() const {
    return whole_file(err_fd_);
}

Finished run(const Launch &launch) {
    const auto start = Clock::now();
    Process process(launch);
    const auto status = process.wait();
    const auto duration = std::chrono::duration_cast<Milliseconds>(Clock::now() - start);
    return {status.value_or(-1), process.out(), process.err(), duration};
}

Words ruk_command(const Words &arguments, const Words &prefix) {
    Words argv = prefix;
    argv.emplace_back(RUK_PROGRAM);
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

Finished ruk(const Words &arguments, const Words &prefix) {
    return run({.argv = ruk_command(arguments, prefix)});
}

LinkDown::LinkDown() {
    EXPECT_EQ(run({.argv = {"ip", "link", "set", "eth0", "down"}}).status, 0);
}

LinkDown::~LinkDown() {
    EXPECT_EQ(run({.argv = {"ip", "link", "set", "eth0", "up"}}).status, 0);
    const Words look = {"ip", "link", "show", "dev", "eth0"};
    for (int i = 0; i < 300 && count(run({.argv = look}).out, "NO-CARRIER") > 0; i++) {
        std::this_thread::sleep_for(10ms);
    }
}

int count(std::string_view text, std::string_view wanted) {
    int found = 0;
    for (size_t at = text.find(wanted); at != std::string_view::npos;
         at = text.find(wanted, at + wanted.size())) {
        found += 1;
    }
    return found;
}

int logged(const Finished &run, const std::string &message) {
    return count(run.out, "]:: " + message + "\n");
}

} // namespace bed
