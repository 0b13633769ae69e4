// forked.h - code that ends its process, run in a process of its own.
#ifndef TESTS_UNIT_HELPERS_FORKED_H
#define TESTS_UNIT_HELPERS_FORKED_H

#include "helpers/log_lines.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

constexpr int kReturned = 99; // exit status of a body that came to its end

struct Ended {
    int status;         // or 1000 + n when signal n ended it
    std::string output; // '|' for each log header
};

/** A forked process with the log on standard output. Killed and reaped with its owner. */
class Forked {
public:
    explicit Forked(const std::function<void()> &body) : output_(memfd_create("output", 0)) {
        (void)fflush(stdout);
        pid_ = fork();
        if (output_ < 0 || pid_ < 0) {
            throw std::runtime_error("memfd_create or fork");
        }
        if (pid_ == 0) {
            run(body);
        }
    }
    Forked(Forked &&other) noexcept : output_(other.output_), pid_(other.pid_) {
        other.output_ = other.pid_ = -1;
    }
    Forked(const Forked &) = delete;
    Forked &operator=(const Forked &) = delete;
    Forked &operator=(Forked &&) = delete;
    ~Forked() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)wait();
        }
        if (output_ >= 0) {
            (void)close(output_);
        }
    }

    Ended wait() {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        std::string text(static_cast<size_t>(lseek(output_, 0, SEEK_END)), '\0');
        const ssize_t got = pread(output_, text.data(), text.size(), 0);
        text.resize(static_cast<size_t>(got));
        return {WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status),
                without_headers(text)};
    }

private:
    [[noreturn]] void run(const std::function<void()> &body) const {
        (void)prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGKILL));
        (void)dup2(output_, STDOUT_FILENO);
        log_debug = 1;
        body();
        (void)fflush(stdout);
        _exit(kReturned);
    }

    int output_;
    pid_t pid_ = -1;
};

inline Ended run_forked(const std::function<void()> &body) {
    return Forked(body).wait();
}

} // namespace test

#endif
