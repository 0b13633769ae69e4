// process.h - forked processes for tests whose point is that several processes take part.
#ifndef RUK_TESTS_BOARD_PROCESS_H
#define RUK_TESTS_BOARD_PROCESS_H

#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>

namespace test {

/** A forked process; its exit status is what the body returns. Killed and reaped with its owner. */
class Child {
public:
    explicit Child(const std::function<int()> &body) : pid_(fork()) {
        if (pid_ < 0) {
            throw std::runtime_error("fork");
        }
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGKILL));
            _exit(body());
        }
    }
    Child(Child &&other) noexcept : pid_(other.pid_) {
        other.pid_ = -1;
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    Child &operator=(Child &&) = delete;
    ~Child() {
        if (pid_ > 0) {
            send(SIGKILL);
            (void)wait();
        }
    }

    void send(int signo) const {
        (void)::kill(pid_, signo);
    }
    /** Its exit status, or 1000 + n when signal n ended it. */
    int wait() {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t pid_;
};

/** A pipe through which one process tells others to go on. */
class Gate {
public:
    Gate() {
        if (pipe(ends_) != 0) {
            throw std::runtime_error("pipe");
        }
    }
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;
    ~Gate() {
        (void)close(ends_[0]);
        (void)close(ends_[1]);
    }
    /** Lets as many through. */
    void open(int passes = 1) const {
        for (int i = 0; i < passes; ++i) {
            if (write(ends_[1], "g", 1) != 1) {
                throw std::runtime_error("write");
            }
        }
    }
    /** Returns once a pass has been given. */
    void enter() const {
        char pass = 0;
        while (read(ends_[0], &pass, 1) < 0 && errno == EINTR) {
        }
    }

private:
    int ends_[2] = {-1, -1};
};

/** SIGALRM every 30 ms on this process, as the interval timer of the tool sends it. */
class Ticks {
public:
    Ticks() {
        count() = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++count(); }; // without SA_RESTART
        (void)sigaction(SIGALRM, &action, &before_);
        set(30000);
    }
    Ticks(const Ticks &) = delete;
    Ticks &operator=(const Ticks &) = delete;
    ~Ticks() {
        set(0);
        (void)sigaction(SIGALRM, &before_, nullptr);
    }
    static std::atomic<int> &count() {
        static std::atomic<int> ticks{0};
        return ticks;
    }

private:
    static void set(suseconds_t us) {
        itimerval interval{};
        interval.it_interval.tv_usec = us;
        interval.it_value.tv_usec = us;
        (void)setitimer(ITIMER_REAL, &interval, nullptr);
    }
    struct sigaction before_ {};
};

/** Milliseconds since it was made. */
class Stopwatch {
public:
    [[nodiscard]] long ms() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now() - start_)
            .count();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace test

#endif
