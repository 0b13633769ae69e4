// The built-in throughput tests: what they send, and that each of them ends, with a card, without
// an answer and without a link.
#include "tests/system/throughput/throughput.h"

#include <csignal>

namespace bed {

namespace {

class Throughput : public SystemTest {};

const uint32_t kSixAddresses[] = {0x7040, 0x8000, 0x9000, 0xFFFFFFFF, 0, 1};

Bytes counting_bytes() {
    Bytes bytes;
    while (bytes.size() < 1400) {
        bytes.push_back(static_cast<uint8_t>(bytes.size() & 0xFF));
    }
    return bytes;
}

// The frames of test1, test2 and test3, as each must be on the wire when nothing is sent again.
std::vector<Bytes> frames_of(const std::string &test, const Form &form) {
    std::vector<Bytes> frames;
    for (const uint32_t addr : kSixAddresses) {
        const uint16_t number = static_cast<uint16_t>(form.is_numbered ? frames.size() : 0);
        const uint8_t slot = test == "test3" ? 1 : 3;
        frames.push_back(request_frame(
            {.model = 1, .slot = slot, .seq = number, .code = form.code, .addr = addr, .len = 1400},
            counting_bytes()));
        if (test == "test1") {
            break;
        }
    }
    return frames;
}

TEST_F(Throughput, ThreeTestsSendFramesOfThePattern) {
    for (const std::string test : {"test1", "test2", "test3"}) {
        for (const Form &form : kWrites) {
            Card card;
            Capture capture;
            const Finished result = ruk(command(form, arguments_of(test)), at_speed(kFast));
            expect_normal_end(result, form);
            const std::vector<Bytes> frames = frames_of(test, form);
            EXPECT_TRUE(capture.sent() == frames) << test << " " << form.word;
            EXPECT_EQ(count(result.out, ", length : 1400 value :["),
                      static_cast<int>(frames.size()));
            EXPECT_EQ(card.stop()["bytes_written"], static_cast<int64_t>(1400 * frames.size()));
        }
    }
}

TEST_F(Throughput, ThreeTestsEndWhenNobodyAnswers) {
    for (const std::string test : {"test1", "test2", "test3"}) {
        for (const Form &form : kWrites) {
            Capture capture;
            expect_normal_end(ruk(command(form, arguments_of(test)), at_speed(kFast)), form);
            std::vector<Bytes> sent = capture.sent();
            const std::vector<Bytes> frames = frames_of(test, form);
            ASSERT_GE(sent.size(), frames.size());
            if (!form.is_pipelined) { // those send again, at some time
                EXPECT_EQ(sent.size(), frames.size());
            }
            sent.resize(frames.size());
            EXPECT_TRUE(sent == frames) << test << " " << form.word;
        }
    }
}

// --- nobody answers -----------------------------------------------------------------------------

void run_against_nobody(const Load &load, const Form &form, int rate) {
    const Finished result = ruk(command(form, {load.test}), at_speed(rate));
    expect_normal_end(result, form);
    (void)packets_of(result, load, form);
}

TEST_F(Throughput, Test4AndTest5EndWhenNobodyAnswers) {
    for (const Form &form : kWrites) {
        run_against_nobody(kTest4, form, kFast);
    }
    for (const Form &form : kReads) {
        run_against_nobody(kTest5, form, kFast);
    }
}

TEST_F(Throughput, Test6AndTest7EndWhenNobodyAnswers) {
    for (const Form &form : kWrites) {
        run_against_nobody(kTest6, form, kFastest);
    }
    for (const Form &form : kReads) {
        run_against_nobody(kTest7, form, kFastest);
    }
}

// --- without a link -----------------------------------------------------------------------------

// Programs that start the tool where it can send nothing.
const Words kNoInterface = {"unshare", "--net"};
const Words kInterfaceDown = {
    "unshare", "--net", "sh", "-c", "ip link add eth0 type veth peer name other && exec \"$@\"",
    "sh"};

Finished run_without_a_link(const Words &prefix, const Form &form, const std::string &test,
                            int rate) {
    Words starter = prefix;
    for (const std::string &word : at_speed(rate)) {
        starter.push_back(word);
    }
    const Finished result = ruk(command(form, arguments_of(test)), starter);
    expect_normal_end(result, form);
    EXPECT_GE(count(result.err, "sendto fail:"), 1) << form.word << " " << test;
    return result;
}

TEST_F(Throughput, WithoutALinkEveryTestEnds) {
    for (const Words &prefix : {kNoInterface, kInterfaceDown}) {
        for (const Form &form : kWrites) {
            for (const std::string test : {"test1", "test2", "test3"}) {
                const Finished result = run_without_a_link(prefix, form, test, kFaster);
                EXPECT_EQ(count(result.err, "sendto fail:"), test == "test1" ? 1 : 6);
            }
            (void)packets_of(run_without_a_link(prefix, form, "test4", kFaster), kTest4, form);
            (void)packets_of(run_without_a_link(prefix, form, "test6", 10 * kFastest), kTest6,
                             form);
        }
        for (const Form &form : kReads) {
            (void)packets_of(run_without_a_link(prefix, form, "test5", kFaster), kTest5, form);
            (void)packets_of(run_without_a_link(prefix, form, "test7", 10 * kFastest), kTest7,
                             form);
        }
    }
}

// --- everything else ----------------------------------------------------------------------------

TEST_F(Throughput, ASignalEndsATestOfTwelveHours) {
    for (const Form &form : kWrites) {
        Card card;
        Process tool({.argv = ruk_command(command(form, {"test6"}))});
        ASSERT_TRUE(tool.await_output("test6 begin\n"));
        tool.send(SIGINT);
        EXPECT_EQ(tool.wait(), 0);
        EXPECT_EQ(count(tool.out(), "packets"), 0);
    }
}

TEST_F(Throughput, AReadWithMoreWordsIsAnOrdinaryRead) {
    for (const Form &form : kReads) {
        Card card;
        Capture capture;
        const Finished result = ruk(command(form, {"test5", "more"}));
        expect_normal_end(result, form);
        ASSERT_EQ(capture.sent().size(), 1U);
        EXPECT_EQ(capture.sent()[0],
                  request_frame({.model = 1, .slot = 3, .code = kRead, .addr = 0x7040, .len = 1}));
        EXPECT_EQ(count(result.out, "\n00007040: 00\n"), 1) << result.out;
    }
}

} // namespace

} // namespace bed
