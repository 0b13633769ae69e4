// Links that do not come up, or go down, and rights that are missing: the tool ends all the same.
#include "tests/system/bed/bed.h"
#include "tests/system/bed/refused_calls.h"

#include <csignal>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace bed {

namespace {

class NoLink : public SystemTest {};

struct Form {
    const char *word;
    const char *argument;
    const char *failed; // logged when nothing can be sent
    size_t frames;      // sent when nobody answers
};
constexpr Form kForms[] = {
    {"read", "4", "RawSockSendMsgWithRead : send fail", 3},
    {"readw", "4", "RawSockSendMsgWithReadWait : send fail", 1},
    {"write", "0x1", "#######error RawSockSendMsg : index:0 addr:0x7040 length:1 send fail", 1},
    {"writea", "0x1", "RawSockSendOneMsgWithAck : send fail", 3},
    {"writeaw", "0x1", "RawSockSendOneMsgWithAckWait : send fail", 1},
};

Words words(const Form &form, const char *index = "0") {
    return {index, form.word, "1", "3", "7040", form.argument};
}

const Words kWithoutInterfaces = {"unshare", "--net"};
// Everything of an unprivileged user, but able to reach the program wherever it was built.
const Words kUnprivileged = {"setpriv",
                             "--reuid=65534",
                             "--regid=65534",
                             "--clear-groups",
                             "--inh-caps=-all,+dac_read_search",
                             "--ambient-caps=-all,+dac_read_search",
                             "--bounding-set=-all,+dac_read_search"};
const Words kWithoutRealTime = {"setpriv", "--bounding-set=-sys_nice", "--inh-caps=-sys_nice"};

void expect_failed_send(const Form &form, const Finished &result) {
    EXPECT_EQ(result.status, 0) << form.word;
    EXPECT_EQ(logged(result, form.failed), 1) << result.out;
    EXPECT_EQ(count(result.err, "sendto fail:"), 1) << result.err;
    EXPECT_EQ(count(result.out, "register end"), 1); // the command ran to its end
}

TEST_F(NoLink, WithoutAnInterfaceEveryCommandEnds) {
    for (const Form &form : kForms) {
        const Finished result = ruk(words(form), kWithoutInterfaces);
        expect_failed_send(form, result);
        EXPECT_EQ(count(result.out, ":get inferface flag failed.\n"), 1) << result.out;
        EXPECT_EQ(logged(result, "init_netdev(0) failed(-1)."), 1);
    }
}

TEST_F(NoLink, AnUnprivilegedUserIsToldAndEveryCommandEnds) {
    for (const Form &form : kForms) {
        Capture capture;
        const Finished result = ruk(words(form), kUnprivileged);
        expect_failed_send(form, result);
        EXPECT_EQ(count(result.out, ":socket() created failed.\n"), 1) << result.out;
        EXPECT_EQ(logged(result, "init_netdev(0) failed(-1)."), 1);
        EXPECT_TRUE(capture.sent().empty());
    }
}

// What is open, but goes nowhere or has nobody to time it out, would keep the tool waiting.
void expect_down(const std::function<void()> &in_child, const std::string &complaint) {
    for (const Form &form : kForms) {
        Card card;
        Capture capture;
        const Finished result = run({.argv = ruk_command(words(form)), .in_child = in_child});
        EXPECT_EQ(result.status, 0) << form.word;
        EXPECT_EQ(logged(result, form.failed), 1) << result.out;
        EXPECT_EQ(count(result.out, "register end"), 1);
        EXPECT_EQ(count(result.err, complaint), 1) << result.err;
        EXPECT_TRUE(capture.sent().empty()) << form.word;
        EXPECT_EQ(card.stop()["requests"], 0);
    }
}

TEST_F(NoLink, ALinkWhoseSocketCannotBeBoundSendsNothingAndEveryCommandEnds) {
    expect_down(refuse_to_bind,
                "ruk: eth0: not up (Cannot assign requested address), nothing is sent\n");
}

TEST_F(NoLink, ALinkWhoseThreadsCannotBeStartedSendsNothingAndEveryCommandEnds) {
    expect_down(refuse_threads,
                "ruk: eth0: not up (Resource temporarily unavailable), nothing is sent\n");
}

TEST_F(NoLink, WithoutATimerItIsSaidAndWhatWaitsForNothingIsSent) {
    Capture capture;
    const Finished result = run(
        {.argv = ruk_command({"0", "write", "1", "3", "7040", "0x1"}), .in_child = refuse_a_timer});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.err, "ruk: interval timer: Operation not permitted\n"), 1);
    EXPECT_EQ(capture.sent().size(), 1U);
}

TEST_F(NoLink, WithoutRealTimeRightsNobodyListensButEveryCommandEnds) {
    for (const Form &form : kForms) {
        Card card;
        Capture capture;
        const Finished result = ruk(words(form), kWithoutRealTime);
        EXPECT_EQ(result.status, 0) << form.word;
        EXPECT_EQ(logged(result, "failed to create thread "), 1) << result.out;
        EXPECT_EQ(count(result.err, "ruk: eth0: no real-time rights for the receive thread, "
                                    "no answer is seen\n"),
                  1)
            << result.err;
        EXPECT_EQ(count(result.out, "thread1 id : "), 1); // the time-outs still work
        EXPECT_EQ(capture.sent().size(), form.frames);
        EXPECT_EQ(count(result.out, "register end"), 1);
        EXPECT_EQ(card.stop()["requests"], static_cast<int64_t>(form.frames));
    }
}

TEST_F(NoLink, IndicesOutsideTheTableSendNothing) {
    for (const std::string index : {"-1", "3", "99", "99999999999"}) {
        const std::string shown = index.size() > 2 ? "2147483647" : index;
        for (const Form &form : kForms) {
            Capture capture;
            const Finished result = ruk(words(form, index.c_str()));
            EXPECT_EQ(count(result.err, "ruk: interface index " + shown +
                                            ": only 0 to 2 exist, nothing is sent\n"),
                      1)
                << result.err;
            EXPECT_EQ(result.status, 0) << index << " " << form.word;
            EXPECT_EQ(count(result.out, "send fail\n"), 1) << result.out;
            EXPECT_EQ(count(result.out, "register end"), 1);
            EXPECT_TRUE(capture.sent().empty());
            EXPECT_EQ(count(result.out, "MAX_ETH(3).\n"), index == "-1" ? 0 : 1);
        }
    }
}

TEST_F(NoLink, WithoutACardEveryCommandEnds) {
    for (const Form &form : kForms) {
        Capture capture;
        EXPECT_EQ(ruk(words(form)).status, 0);
        EXPECT_EQ(capture.sent().size(), form.frames) << form.word;
    }
}

TEST_F(NoLink, ALinkThatGoesDownMeanwhileEndsEveryCommand) {
    for (const Form &form : kForms) {
        if (std::string(form.word) == "write") {
            continue; // waits for nothing
        }
        Capture capture;
        Process tool({.argv = ruk_command(words(form))});
        ASSERT_TRUE(capture.await_sent(1));
        const LinkDown down;
        EXPECT_EQ(tool.wait(), 0) << form.word;
        EXPECT_EQ(count(tool.out(), "send msg again ("), static_cast<int>(form.frames) - 1);
        // Resends fail as soon as the link is down. While it is going down the kernel swallows them
        // without an error.
        const auto failed = static_cast<size_t>(count(tool.err(), "sendto fail:"));
        EXPECT_LE(capture.sent().size() + failed, form.frames);
        EXPECT_EQ(count(tool.out(), "register end"), 1) << tool.out();
    }
}

TEST_F(NoLink, WithoutStandardInputTheLinkWorks) {
    const Directory directory;
    Card card({"--memory-load", directory.file("register", {0xCA, 0xFE}) + "@7040"});
    const Finished result = run({.argv = ruk_command({"0", "readw", "1", "3", "7040", "2"}),
                                 .in_child = [] { (void)close(STDIN_FILENO); }});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.out, "\n\n00007040: cafe\n"), 1) << result.out;
    EXPECT_EQ(card.stop()["read_replies"], 1);
}

void close_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        (void)close(fd);
    }
}

// What is opened first would take their numbers, and log lines would go where it leads.
TEST_F(NoLink, WithoutStandardStreamsNothingButTheRequestGoesOut) {
    Card card;
    Capture capture;
    const Finished result = run({.argv = ruk_command({"0", "readw", "1", "3", "7040", "2"}),
                                 .in_child = close_standard_streams});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(capture.sent().size(), 1U);
    EXPECT_EQ(card.stop()["read_replies"], 1);
}

// Nobody would learn that it is ready.
TEST_F(NoLink, WithoutStandardStreamsTheCardEndsAndSendsNothing) {
    Capture capture;
    Process card({.argv = card_command({}), .in_child = close_standard_streams});
    EXPECT_EQ(card.wait(), 1);
    EXPECT_TRUE(capture.received().empty());
}

// A record that was never filled holds descriptor 0.
TEST_F(NoLink, NothingIsSentOnStandardInputInstead) {
    for (const char *index : {"0", "-1", "3"}) {
        for (const Form &form : kForms) {
            int ends[2] = {-1, -1};
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
            const int given = ends[1];
            const Finished result =
                run({.argv = ruk_command(words(form, index), kWithoutInterfaces),
                     .in_child = [given] { (void)dup2(given, STDIN_FILENO); }});
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(count(result.out, "send fail\n"), 1) << result.out;
            uint8_t byte = 0;
            EXPECT_EQ(recv(ends[0], &byte, 1, MSG_DONTWAIT), -1) << form.word;
            (void)close(ends[0]);
            (void)close(ends[1]);
        }
    }
}

} // namespace

} // namespace bed
