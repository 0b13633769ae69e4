// How rukd ends: told to, or crashed.
#include "tests/system/bed/service.h"
#include "tests/system/bed/stalled_log.h"

#include <csignal>
#include <cstdlib>
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

// The thread sanitizer holds a signal back from a thread that waits for a stream's lock.
#if !defined(__SANITIZE_THREAD__)
TEST_F(ServiceEnd, ComesAlsoWhenNobodyReadsTheLog) {
    const StalledLog log;
    Process rukd(log.as_output_of(rukd_command(sockets)));
    ASSERT_TRUE(log.read_up_to("rukd: ready")) << rukd.err();
    const Client client(sockets, 0x50);
    // The dump of one has room in the pipe, that of another has not.
    const Message unknown{.code = 0x33, .len = 900, .data = Bytes(900, 'x')};
    for (int i = 0; i < 5; i++) {
        ASSERT_TRUE(client.send(unknown));
    }
    while (log.held() < StalledLog::kRoom / 2 && !rukd.wait(1ms)) {
    }
    std::this_thread::sleep_for(100ms);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}
#endif

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
