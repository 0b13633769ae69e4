// How rukd ends: told to, or crashed.
#include "service.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <regex>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

class ServiceEnd : public SystemTest {
protected:
    Directory directory;
    std::string sockets = directory.path("m");
};

// The thread sanitizer would report that the crash handler calls what is not safe in a handler,
// which it does on purpose.
Launch rukd_that_may_crash(const std::string &sockets) {
    Launch launch = rukd_command(sockets);
    launch.in_child = [inner = launch.in_child] {
        inner();
        const char *options = getenv("TSAN_OPTIONS");
        std::string more = options != nullptr ? options : "";
        more += ":report_signal_unsafe=0";
        (void)setenv("TSAN_OPTIONS", more.c_str(), 1);
    };
    return launch;
}

TEST_F(ServiceEnd, IsCleanOnEverySignalThatAsksForIt) {
    for (const int signo : {SIGTERM, SIGINT, SIGQUIT}) {
        Process rukd(rukd_command(sockets));
        ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
        rukd.send(signo);
        EXPECT_EQ(rukd.wait(), 0) << signo;
        EXPECT_TRUE(rukd.out().ends_with("rukd: ended\n")) << rukd.out();
        EXPECT_EQ(count(rukd.out(), "task_die"), 0) << signo;
    }
}

// A log that nobody reads: the pipe fills, and so stands still whoever prints.
class StalledLog {
public:
    StalledLog() {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
        EXPECT_GT(fcntl(ends_[1], F_SETPIPE_SZ, kRoom), 0);
    }
    StalledLog(const StalledLog &) = delete;
    StalledLog &operator=(const StalledLog &) = delete;
    ~StalledLog() {
        (void)close(ends_[0]);
        (void)close(ends_[1]);
    }
    [[nodiscard]] Launch as_output_of(Launch launch) const {
        launch.in_child = [inner = launch.in_child, end = ends_[1]] {
            inner();
            (void)dup2(end, STDOUT_FILENO);
        };
        return launch;
    }
    [[nodiscard]] bool read_up_to(std::string_view text) const {
        std::string log;
        char piece[kRoom];
        ssize_t got = 1;
        while (got > 0 && log.find(text) == std::string::npos) {
            got = read(ends_[0], piece, sizeof piece);
            log.append(piece, got > 0 ? static_cast<size_t>(got) : 0);
        }
        return got > 0;
    }
    [[nodiscard]] bool is_full() const {
        pollfd room{.fd = ends_[1], .events = POLLOUT, .revents = 0};
        return poll(&room, 1, 0) == 0;
    }

private:
    static constexpr int kRoom = 4096;
    int ends_[2] = {-1, -1};
};

TEST_F(ServiceEnd, ComesAlsoWhenNobodyReadsTheLog) {
    const StalledLog log;
    Process rukd(log.as_output_of(rukd_command(sockets)));
    ASSERT_TRUE(log.read_up_to("rukd: ready")) << rukd.err();
    const Client client(sockets, 0x50);
    const Message unknown{.code = 0x33, .len = 900, .data = Bytes(900, 'x')};
    while (!log.is_full()) {
        ASSERT_TRUE(client.send(unknown));
        std::this_thread::sleep_for(1ms); // or its queue would fill, and the sender stand still
    }
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

TEST_F(ServiceEnd, DoesNotComeWithItsTerminal) {
    Process rukd(rukd_command(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    rukd.send(SIGHUP);
    const Client client(sockets, 0x50);
    expect_greeting(client);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

TEST_F(ServiceEnd, DoesNotComeWithTheReaderOfItsLog) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Launch launch = rukd_command(sockets);
    launch.in_child = [inner = launch.in_child, log = ends[1]] {
        inner();
        (void)dup2(log, STDOUT_FILENO);
    };
    Process rukd(launch);
    (void)close(ends[1]);
    std::string log;
    char byte = 0;
    while (count(log, "rukd: ready") == 0 && read(ends[0], &byte, 1) == 1) {
        log += byte;
    }
    (void)close(ends[0]);
    const Client client(sockets, 0x50);
    expect_greeting(client);
    expect_greeting(client);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << log << rukd.err();
}

TEST_F(ServiceEnd, LeavesTheStackOfACrashInTheLog) {
    Process rukd(rukd_that_may_crash(sockets));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    rukd.send(SIGSEGV);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    EXPECT_EQ(rukd.err(), "");
    const std::string out = rukd.out();
    EXPECT_EQ(count(out, "rukd: ended"), 0) << out;
    static const std::regex report(R"(task_die/ +\d+ \]:: task_die!!!\n)"
                                   R"([^\n]*\]:: backtrace\(\) returned (\d+) addresses\n)");
    std::smatch parts;
    ASSERT_TRUE(std::regex_search(out, parts, report)) << out;
    // Other threads may log meanwhile, so only the stack's own lines count.
    const std::string stack = parts.suffix();
    EXPECT_EQ(count(stack, " putstackinfo/"), std::stoi(parts[1])) << out;
    EXPECT_EQ(count(stack, "rukd(task_die+0x"), 1) << out; // published names are told
    EXPECT_EQ(count(stack, "(__libc_start_main+0x"), 1) << out;
}

TEST_F(ServiceEnd, LeavesTheAddressFreeAfterACrash) {
    Process crashed(rukd_that_may_crash(sockets));
    ASSERT_TRUE(crashed.await_output("rukd: ready")) << crashed.err();
    crashed.send(SIGSEGV);
    EXPECT_EQ(crashed.wait(), 0);
    Service next(sockets);
    const Client client(sockets, 0x50);
    expect_greeting(client);
    next.stop();
}

} // namespace

} // namespace bed
