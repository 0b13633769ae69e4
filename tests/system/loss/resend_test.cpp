// Lost frames: what the non-waiting forms send again, and what the waiting forms do not.
#include "tests/system/bed/bed.h"

namespace bed {

namespace {

class Resend : public SystemTest {};

const Words kRead4 = {"0", "read", "1", "3", "7040", "4"};
const Words kReadWait4 = {"0", "readw", "1", "3", "7040", "4"};
const Words kWriteAck2 = {"0", "writea", "1", "3", "7040", "0x12", "0x34"};
const Words kWriteAckWait2 = {"0", "writeaw", "1", "3", "7040", "0x12", "0x34"};

const Bytes kReadFrame =
    request_frame({.model = 1, .slot = 3, .code = kRead, .addr = 0x7040, .len = 4});
const Bytes kWriteFrame = write_frame(kWriteAck, 0, 0x7040, {0x12, 0x34});

struct NonWaiting {
    Words words;
    Bytes frame;
};
const NonWaiting kNonWaiting[] = {{kRead4, kReadFrame}, {kWriteAck2, kWriteFrame}};

// A memory in which the register holds what the tests expect.
std::string register_file(const Directory &directory) {
    return directory.file("register", {0xCA, 0xFE, 0xBA, 0xBE}) + "@7040";
}
constexpr char kShown[] = "\n\n00007040: cafebabe \n";

TEST_F(Resend, ALostFrameIsSentAgainUnchanged) {
    const Directory directory;
    struct Row {
        Words options;
        const char *fault;
    };
    for (const Row &row :
         {Row{{"--nth", "drop:1"}, "drop"}, Row{{"--nth", "drop_request:1"}, "drop_request"},
          Row{{"--silence", "7040x1"}, "silence"}}) {
        for (const NonWaiting &form : kNonWaiting) {
            Words options = row.options;
            options.insert(options.end(), {"--memory-load", register_file(directory)});
            options.insert(options.end(), {"--memory-save", directory.path("after") + "@7040:2"});
            Card card(options);
            Capture capture;
            const Finished result = ruk(form.words);
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(capture.sent(), std::vector<Bytes>(2, form.frame));
            EXPECT_EQ(logged(result, "no ack msg (0xff), send msg again (2)!"), 1) << result.out;
            EXPECT_EQ(count(result.out, "send msg"), 1);
            EXPECT_GE(result.duration, 160ms); // 100 ms of start-up and two whole ticks
            const Counters counters = card.stop();
            EXPECT_EQ(counters[row.fault], 1);
            EXPECT_EQ(counters["unanswered_requests"], 0);
            const bool is_read = form.words[1] == "read";
            EXPECT_EQ(count(result.out, kShown), is_read ? 1 : 0) << result.out;
            EXPECT_EQ(hex(content_of(directory.path("after"))), is_read ? "cafe" : "1234");
        }
    }
}

TEST_F(Resend, TheThirdFrameIsTheLastChance) {
    for (const NonWaiting &form : kNonWaiting) {
        Card card({"--silence", "7040x2"});
        Capture capture;
        const Finished result = ruk(form.words);
        EXPECT_EQ(capture.sent(), std::vector<Bytes>(3, form.frame));
        EXPECT_EQ(logged(result, "no ack msg (0xff), send msg again (2)!"), 1);
        EXPECT_EQ(logged(result, "no ack msg (0xff), send msg again (3)!"), 1);
        EXPECT_EQ(count(result.out, "not send again"), 0);
        const Counters counters = card.stop();
        EXPECT_EQ(counters["silence"], 2);
        EXPECT_EQ(counters["resends"], 2);
        EXPECT_EQ(counters["unanswered_requests"], 0);
    }
}

TEST_F(Resend, ThreeFramesWithoutAnswerEndIt) {
    for (const NonWaiting &form : kNonWaiting) {
        Card card({"--silence", "any"});
        Capture capture;
        const Finished result = ruk(form.words);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(capture.sent(), std::vector<Bytes>(3, form.frame));
        EXPECT_EQ(logged(result, "no ack msg (0xff), send msg again (2)!"), 1);
        EXPECT_EQ(logged(result, "no ack msg (0xff), send msg again (3)!"), 1);
        const bool is_read = form.words[1] == "read";
        EXPECT_EQ(logged(result, "wrong ack (0xff), send msg count (4), not send again!"),
                  is_read ? 0 : 1);
        EXPECT_EQ(count(result.out, "send msg"), is_read ? 2 : 3) << result.out;
        EXPECT_EQ(count(result.out, "\n00007040: "), 0); // nothing was read, nothing is shown
        EXPECT_GE(result.duration, 340ms);               // start-up and three times 80 ms or more
        const Counters counters = card.stop();
        EXPECT_EQ(counters["silence"], 3);
        EXPECT_EQ(counters["unanswered_requests"], 1);
    }
}

TEST_F(Resend, AFileArrivesWholeThoughItsSecondFrameWasLost) {
    for (const char *fault : {"drop", "drop_request"}) {
        const Directory directory;
        const Bytes content = pattern(3000);
        Card card({"--nth", std::string(fault) + ":2", "--memory-save",
                   directory.path("after") + "@a0000:3000"});
        Capture capture;
        EXPECT_EQ(ruk({"0", "writea", "1", "3", "a0000", directory.file("data", content)}).status,
                  0);
        ASSERT_EQ(capture.sent().size(), 4U);
        EXPECT_EQ(capture.sent()[3], capture.sent()[1]);
        const Counters counters = card.stop();
        EXPECT_EQ(counters[fault], 1);
        EXPECT_EQ(counters["unanswered_requests"], 0);
        EXPECT_TRUE(content_of(directory.path("after")) == content);
    }
}

TEST_F(Resend, AWaitingReadIsNotSentAgain) {
    Card card({"--silence", "any"});
    Capture capture;
    const Finished result = ruk(kReadWait4);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(capture.sent(), std::vector<Bytes>(1, kReadFrame));
    EXPECT_EQ(logged(result, "no resp msg (0xff) read error no msg!"), 1);
    EXPECT_EQ(logged(result, "#######error read index:0 slot:3 model:1 addr:0x7040 length:4 "
                             "failed:*length=0, timeout or ack error"),
              1)
        << result.out;
    EXPECT_EQ(count(result.out, "\n\n00007040: \n"), 1);
    EXPECT_EQ(logged(result, "read register end"), 1);
    EXPECT_GE(result.duration, 600ms); // start-up and three times 6 ticks, the first maybe begun
    EXPECT_EQ(card.stop()["silence"], 1);
}

TEST_F(Resend, AWaitingWriteIsNotSentAgain) {
    Card card({"--silence", "any"});
    Capture capture;
    const Finished result = ruk(kWriteAckWait2);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(capture.sent(), std::vector<Bytes>(1, kWriteFrame));
    EXPECT_EQ(logged(result, "no ack msg (0xff) write error!"), 1);
    EXPECT_EQ(logged(result, "ack failed, no ack"), 1);
    EXPECT_EQ(logged(result, "write ack wait error: ack wrong index:0 model:1 slot:3 addr:0x7040 "
                             "len:2 ack:0xff"),
              1)
        << result.out;
    EXPECT_EQ(logged(result, "write register end"), 1);
    EXPECT_GE(result.duration, 600ms);
    EXPECT_EQ(card.stop()["silence"], 1);
}

TEST_F(Resend, AWaitingFileGoesOnBehindALostFrame) {
    const Directory directory;
    Card card({"--nth", "drop:2", "--memory-save", directory.path("after") + "@a0000:3000"});
    Capture capture;
    const Finished result =
        ruk({"0", "writeaw", "1", "3", "a0000", directory.file("data", pattern(3000))});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(capture.sent().size(), 3U);
    EXPECT_EQ(logged(result, "write ack wait error: ack wrong index:0 model:1 slot:3 addr:0xa0578 "
                             "len:1400 ack:0xff"),
              1)
        << result.out;
    EXPECT_EQ(count(result.out, "write ack wait error"), 1);
    EXPECT_EQ(card.stop()["drop"], 1);
    EXPECT_TRUE(content_of(directory.path("after")) == pattern(3000));
}

TEST_F(Resend, ALateAnswerEndsTheRequest) {
    const Directory directory;
    for (const Words &words : {kRead4, kReadWait4, kWriteAck2, kWriteAckWait2}) {
        Card card({"--delay", "140ms:160ms", "--memory-load", register_file(directory)});
        Capture capture;
        const Finished result = ruk(words);
        EXPECT_EQ(result.status, 0);
        const bool is_waiting = words[1].ends_with("w");
        // Up to two more may go out before the late answer when the machine is busy.
        EXPECT_GE(capture.sent().size(), is_waiting ? 1U : 2U);
        EXPECT_LE(capture.sent().size(), is_waiting ? 1U : 3U);
        EXPECT_EQ(count(result.out, kShown), words[1].starts_with("read") ? 1 : 0) << result.out;
        EXPECT_EQ(count(result.out, "not send again"), 0);
        EXPECT_EQ(count(result.out, "error"), 0);
        EXPECT_GE(card.stop()["delay"], 1);
    }
}

// A request ends after half a second; the rest of the delay is for a machine that is busy. The file
// makes three requests: the answer to one comes while the next is waiting for its own.
TEST_F(Resend, AnAnswerAfterTheEndHarmsNobody) {
    const Directory directory;
    struct Row {
        Words words;
        const char *complaint;
        int requests;
    };
    for (const Row &row :
         {Row{kReadWait4, "timeout or ack error", 1}, Row{kWriteAckWait2, "no ack\n", 1},
          Row{{"0", "writeaw", "1", "3", "7040", directory.file("data", pattern(3000))},
              "no ack\n",
              3}}) {
        Card card({"--delay", "800ms"});
        const Finished result = ruk(row.words);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count(result.out, row.complaint), row.requests) << result.out;
        EXPECT_EQ(card.stop()["delay"], row.requests);
    }
}

} // namespace

} // namespace bed
