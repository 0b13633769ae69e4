// Programs whose parent has left signals blocked, which survives exec.
#include "tests/system/bed/service.h"

#include <csignal>

namespace bed {

namespace {

class InheritedMask : public SystemTest {};

Launch with_blocked_signals(Launch launch) {
    launch.in_child = [inner = launch.in_child] {
        if (inner) {
            inner();
        }
        sigset_t all;
        (void)sigfillset(&all);
        (void)sigprocmask(SIG_BLOCK, &all, nullptr);
    };
    return launch;
}

Words command(const std::string &word) {
    return {"0", word, "1", "3", "7040", word.starts_with("read") ? "4" : "0x12"};
}

// Time-outs come from SIGALRM.
TEST_F(InheritedMask, RequestsTimeOutAllTheSame) {
    for (const std::string word : {"read", "readw", "writea", "writeaw"}) {
        Capture capture;
        const Finished result = run(with_blocked_signals({.argv = ruk_command(command(word))}));
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_EQ(capture.sent().size(), word.ends_with("w") ? 1U : 3U) << word;
        EXPECT_EQ(count(result.out, "register end"), 1) << result.out;
    }
}

// The card's refusals keep the tool busy for ever.
TEST_F(InheritedMask, ASignalEndsTheToolAllTheSame) {
    for (const int signo : {SIGINT, SIGTERM, SIGQUIT}) {
        Card card({"--error", "02@any", "--delay", "5ms"});
        Capture capture;
        Process tool(with_blocked_signals({.argv = ruk_command(command("writea"))}));
        ASSERT_TRUE(capture.await_sent(2)) << tool.out();
        tool.send(signo);
        EXPECT_EQ(tool.wait(), 0) << signo;
        (void)card.stop();
    }
}

TEST_F(InheritedMask, ASignalEndsTheServiceAllTheSame) {
    const Directory directory;
    for (const int signo : {SIGINT, SIGTERM, SIGQUIT}) {
        Process rukd(with_blocked_signals(rukd_command(directory.path("m"))));
        ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
        rukd.send(signo);
        EXPECT_EQ(rukd.wait(), 0) << signo;
        EXPECT_TRUE(rukd.out().ends_with("rukd: ended\n")) << rukd.out();
    }
}

} // namespace

} // namespace bed
