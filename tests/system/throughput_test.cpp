// The built-in throughput tests, against a card, against nobody and without a link.
//
// Most runs have their time accelerated by libfaketime: the clocks and the sleeps of the tool go so
// many times faster. The 30 ms tick comes from the kernel's interval timer and keeps its pace, so a
// request that nobody answers takes as long as ever.
#include "bed.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace bed {

namespace {

class Throughput : public SystemTest {};

constexpr int kRealTime = 1;
constexpr int kFast = 5;        // two seconds in 400 ms
constexpr int kFaster = 100;    // for links that fail at once and say so each time
constexpr int kFastest = 40000; // twelve hours in about a second

// Under the address sanitizer, whose runtime wants to be the first library, the tool is told to
// take it as it comes: the shells that it starts inherit the preloaded library, but have no
// sanitizer.
Words at_speed(int rate) {
    if (rate == kRealTime) {
        return {};
    }
    const char *options = getenv("ASAN_OPTIONS");
    return {"env", "LD_PRELOAD=" RUK_FAKETIME, "FAKETIME=+0 x" + std::to_string(rate),
            std::string("ASAN_OPTIONS=") + (options != nullptr ? options : "") +
                ":verify_asan_link_order=0"};
}

struct Form {
    const char *word;
    uint8_t code;
    bool is_numbered;  // plain writes all carry the number 0
    bool is_pipelined; // goes on without an answer
    const char *verb;
};
const Form kWrites[] = {{"write", kWrite, false, false, "write"},
                        {"writea", kWriteAck, true, true, "write"},
                        {"writeaw", kWriteAck, true, false, "write"}};
const Form kReads[] = {{"read", kRead, true, true, "read"}, {"readw", kRead, true, false, "read"}};

Bytes counting_bytes() {
    Bytes bytes;
    while (bytes.size() < 1400) {
        bytes.push_back(static_cast<uint8_t>(bytes.size() & 0xFF));
    }
    return bytes;
}

Words command(const Form &form, const Words &arguments) {
    Words words = {"0", form.word, "1", "3", "7040"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

const Words kAddresses = {"8000", "0x9000", "ffffffff", "zz", "1"};
const uint32_t kSixAddresses[] = {0x7040, 0x8000, 0x9000, 0xFFFFFFFF, 0, 1};

// The arguments that run a test.
Words arguments_of(const std::string &test) {
    Words words;
    if (test == "test2" || test == "test3") {
        words = kAddresses;
    }
    words.push_back(test);
    return words;
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

void expect_normal_end(const Finished &result, const Form &form) {
    EXPECT_EQ(result.status, 0) << form.word << " " << result.err;
    EXPECT_EQ(logged(result, std::string(form.verb) + " register end"), 1) << form.word;
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

// --- loads --------------------------------------------------------------------------------------

struct Load {
    const char *test;
    const char *unit;
    int64_t until;
    int64_t bytes_per_packet;
};
constexpr Load kTest4 = {"test4", "us", 2'000'000, 94};
constexpr Load kTest5 = {"test5", "us", 2'000'000, 94};
constexpr Load kTest6 = {"test6", "s", 43'200, 1430};
constexpr Load kTest7 = {"test7", "s", 43'200, 94};

// Checks the result line and returns its packets.
int64_t packets_of(const Finished &result, const Load &load, const Form &form) {
    EXPECT_EQ(logged(result, std::string(load.test) + " begin"), 1);
    const std::string middle =
        std::string(" ") + load.unit + " : send " + form.verb + " "; // between time and packets
    EXPECT_EQ(count(result.out, middle), 1) << form.word << " " << load.test;
    const size_t at = result.out.find(middle);
    if (at == std::string::npos) {
        return -1;
    }
    const size_t begin = result.out.rfind("]:: ", at) + 4;
    const int64_t elapsed = strtoll(result.out.c_str() + begin, nullptr, 10);
    const int64_t packets = strtoll(result.out.c_str() + at + middle.size(), nullptr, 10);
    EXPECT_EQ(logged(result, std::to_string(elapsed) + middle + std::to_string(packets) +
                                 " packets " + std::to_string(packets * load.bytes_per_packet) +
                                 " bytes"),
              1)
        << result.out.substr(begin, 200);
    EXPECT_GE(elapsed, load.until) << form.word << " " << load.test;
    EXPECT_GE(packets, 1);
    return packets;
}

int64_t dropped_by_the_cable() {
    std::ifstream file("/sys/class/net/eth0/statistics/tx_dropped");
    int64_t dropped = -1;
    file >> dropped;
    EXPECT_GE(dropped, 0);
    return dropped;
}

// The card answers in turn: with this answer it has seen everything before. It is asked for another
// address than the test, whose late answers carry the same numbers. Returns the requests that it
// took.
int ask_until_answered() {
    for (int asked = 1; asked <= 100; asked++) {
        if (count(ruk({"0", "readw", "1", "3", "9000", "4"}).out, "\n00009000: 0") == 1) {
            return asked;
        }
    }
    ADD_FAILURE() << "the card does not answer any more";
    return 0;
}

Finished run_against_a_card(const Load &load, const Form &form, int rate) {
    const int64_t dropped_before = dropped_by_the_cable();
    Card card;
    const Finished result = ruk(command(form, {load.test}), at_speed(rate));
    expect_normal_end(result, form);
    const int64_t packets = packets_of(result, load, form);
    EXPECT_EQ(count(result.out, "\n00007040: "), 0); // read data are not shown
    const int64_t asked = ask_until_answered();
    const Counters counters = card.stop_overloaded();
    const int64_t lost =
        counters["kernel_drops"] + dropped_by_the_cable() - dropped_before; // before the card
    const int64_t resent = count(result.out, "send msg again (");
    // Requests that found no room in the queue.
    const int64_t unsent = count(result.out, "assert queue_add fail again");
    // The end of the tool may come between a resend's line and its frame.
    const int64_t missing = packets + resent - unsent + asked - counters["requests"] - lost;
    EXPECT_GE(missing, 0) << form.word << " " << load.test << " " << counters.json;
    EXPECT_LE(missing, form.is_pipelined ? 1 : 0)
        << packets << " packets, " << resent << " sent again, " << counters.json;
    if (!form.is_pipelined) {
        EXPECT_EQ(resent, 0);
    }
    return result;
}

void run_against_nobody(const Load &load, const Form &form, int rate) {
    const Finished result = ruk(command(form, {load.test}), at_speed(rate));
    expect_normal_end(result, form);
    (void)packets_of(result, load, form);
}

TEST_F(Throughput, Test4CountsWhatTheCardGets) {
    EXPECT_GE(run_against_a_card(kTest4, kWrites[0], kRealTime).duration, 2s);
    // It gives the card five seconds more.
    EXPECT_GE(run_against_a_card(kTest4, kWrites[1], kRealTime).duration, 7s);
    (void)run_against_a_card(kTest4, kWrites[2], kFast);
}

TEST_F(Throughput, Test5CountsWhatTheCardGets) {
    (void)run_against_a_card(kTest5, kReads[0], kFast);
    EXPECT_GE(run_against_a_card(kTest5, kReads[1], kRealTime).duration, 7s);
}

TEST_F(Throughput, Test6CountsWhatTheCardGets) {
    for (const Form &form : kWrites) {
        (void)run_against_a_card(kTest6, form, kFastest);
    }
}

TEST_F(Throughput, Test7CountsWhatTheCardGets) {
    for (const Form &form : kReads) {
        (void)run_against_a_card(kTest7, form, kFastest);
    }
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
