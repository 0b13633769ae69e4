// command_test.cpp - the register commands' own steps, on a played card: what they show, and how
// they end without a buffer.
#include "eth_raw/eth_raw.h"
#include "helpers/forked.h"
#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "main/commands/command.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "raw_msg/raw_msg.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"
#include "stand_ins/short_read.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <pty.h>
#include <semaphore.h>
#include <thread>
#include <unistd.h>

namespace {

// What a log call without a file does: it flushes every stream. All of them have to be free.
struct Flushes {
    int count = 0;
    int with_stdout_held = 0;
};
Flushes g_flushes;
int g_waits = 0; // for sem_test

bool is_stdout_held() {
    bool is_held = false;
    std::thread other([&is_held] {
        is_held = ftrylockfile(stdout) != 0;
        if (!is_held) {
            funlockfile(stdout);
        }
    });
    other.join();
    return is_held;
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_fflush(FILE *stream);
int __wrap_fflush(FILE *stream);
int __wrap_sem_wait(sem_t *semaphore);
void __wrap_RawMsgMinBuffFree(uint8_t *buf);

int __wrap_fflush(FILE *stream) {
    if (stream == nullptr) {
        g_flushes.count += 1;
        g_flushes.with_stdout_held += is_stdout_held() ? 1 : 0;
    }
    return __real_fflush(stream);
}

int __wrap_sem_wait(sem_t *semaphore) {
    g_waits += semaphore == &sem_test ? 1 : 0;
    return 0; // the played card has answered already
}

// A read keeps its buffer until the end of the process; here are many.
void __wrap_RawMsgMinBuffFree(uint8_t *buf) {
    RawMsgBuffFree(buf);
}
}
#pragma GCC visibility pop

namespace {

using Words = std::vector<std::string>;
using RunCommand = Outcome (*)(const CommandLine &line);

constexpr uint32_t kAddr = 0x7040;

// The words behind ADDR.
Outcome run_words(RunCommand command, Words words) {
    const Words first = {"ruk", "2", "command", "102", "5", "7040"};
    words.insert(words.begin(), first.begin(), first.end());
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr); // as for main
    const std::span<char *> all(argv.data(), words.size());
    return command({.argv = all, .index = 2, .model = 0x102, .slot = 5, .addr = kAddr});
}

class Commands : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        (void)mem_uinit(); // no blocks are left over from the case before
        handed_out = mem_handed_out();
        g_flushes = {};
        g_waits = 0;
    }
    void TearDown() override {
        log_debug = 0;
        EXPECT_EQ(mem_handed_out(), handed_out) << "a frame buffer was not given back";
    }

    int64_t handed_out = 0;
};

TEST_F(Commands, WithoutAFrameBufferEachLogsItAndIsAbandoned) {
    struct Row {
        RunCommand run;
        Words words;
    };
    const test::TempDirectory directory;
    const std::string file = test::write_file(directory.path("data"), test::pattern(1400));
    for (const Row &row :
         {Row{run_read, {"4"}}, Row{run_readw, {"4"}}, Row{run_write, {"0x1"}},
          Row{run_writea, {"0x1"}}, Row{run_writeaw, {"0x1"}}, Row{run_write, {file}},
          Row{run_writea, {file}}, Row{run_writeaw, {file}}}) {
        (void)mem_uinit();
        Outcome outcome = Outcome::kDone;
        const std::string log = test::log_of([&] {
            const HeapLimit no_frame_buffer(1400);
            outcome = run_words(row.run, row.words);
        });
        EXPECT_EQ(outcome, Outcome::kAbandoned) << row.words[0];
        EXPECT_TRUE(log.ends_with("|RawMsgBuffGet fail\n")) << log;
        EXPECT_EQ(test::occurrences(log, "RawMsgBuffGet fail"), 1);
        EXPECT_TRUE(card_calls().empty());
    }
}

// Another thread may be flushing every stream: it would wait for standard output, we for it.
TEST_F(Commands, TheValuesAreShownWithoutHoldingStandardOutputInALogCall) {
    const std::string log = test::log_of([] {
        EXPECT_EQ(run_words(run_write, {"0x1", "22", "333"}), Outcome::kDone);
    });
    EXPECT_EQ(log, "|write fpga 2 , register : 0x00007040 , length : 3 value :01 22 33 \n"
                   "|write register end\n");
    EXPECT_GT(g_flushes.count, 0);
    EXPECT_EQ(g_flushes.with_stdout_held, 0);
}

TEST_F(Commands, TheLineOfAsManyValuesAsAFrameTakesStaysWhole) {
    const Words values(1401, "0xa5");
    std::string line = "write fpga 2 , register : 0x00007040 , length : 1401 value :";
    for (int i = 0; i < 1400; i++) {
        line += "a5 ";
    }
    log_debug = 1;
    const std::string text =
        test::output_among_others([&] { EXPECT_EQ(run_words(run_write, values), Outcome::kDone); });
    const size_t header = text.find("[20");
    const size_t message = text.find("]:: ", header);
    ASSERT_NE(message, std::string::npos);
    EXPECT_EQ(text.find('~', header), text.find('~', text.find('\n', message)));
    EXPECT_EQ(text.compare(message + 4, line.size() + 1, line + "\n"), 0);
}

TEST_F(Commands, ValuesBehindThoseOfAFrameAreSaidToBeIgnored) {
    const std::string log =
        test::log_of([] { EXPECT_EQ(run_words(run_write, Words(1401, "0x1")), Outcome::kDone); });
    EXPECT_TRUE(log.ends_with("01 01 \n|main: write values: more than one frame's 1400 bytes, the "
                              "others ignored\n|write register end\n"))
        << log;
    EXPECT_EQ(card_calls(), std::vector<CardCall>{plain_write(2, 0x102, 5, kAddr, Bytes(1400, 1))});
}

// The word behind them, where the longest tests have theirs, is not there.
TEST_F(Commands, FiveValuesAreValues) {
    EXPECT_EQ(run_words(run_write, {"0x1", "2", "3", "4", "5"}), Outcome::kDone);
    EXPECT_EQ(card_calls(),
              std::vector<CardCall>{plain_write(2, 0x102, 5, kAddr, {1, 2, 3, 4, 5})});
}

TEST_F(Commands, AnAcknowledgedWriteThatIsNotSentAsAWholeSaysSo) {
    card_answers_acked_writes(-1, 0xFF);
    const std::string log =
        test::log_of([] { EXPECT_EQ(run_words(run_writea, {"0x1"}), Outcome::kDone); });
    EXPECT_TRUE(log.ends_with("|main: write with acknowledgement: fail, not all of it was sent\n"
                              "|write register end\n"))
        << log;
}

// It sleeps meanwhile.
TEST_F(Commands, WaitForWhatPostsAtItsEnd) {
    const test::TempDirectory directory;
    const std::string empty = test::write_file(directory.path("empty"), {});
    const struct {
        RunCommand run;
        std::string word;
        int waits;
    } rows[] = {
        {run_read, "4", 1},     {run_readw, "4", 1},    {run_write, "0x1", 0},
        {run_writea, "0x1", 1}, {run_writea, empty, 0}, {run_writeaw, "0x1", 1},
    };
    for (const auto &row : rows) {
        g_waits = 0;
        (void)test::output_of([&] { EXPECT_EQ(run_words(row.run, {row.word}), Outcome::kDone); });
        EXPECT_EQ(g_waits, row.waits) << row.word;
    }
}

TEST_F(Commands, AReadThatIsNotSentShowsTheAddressAlone) {
    card_answers_reads(
        [](const CardCall &) { return ReadAnswer{.result = -1, .data = {}, .is_sent = false}; });
    const std::string log =
        test::log_of([] { EXPECT_EQ(run_words(run_readw, {"4"}), Outcome::kDone); });
    EXPECT_EQ(log, "\n00007040: \n|read register end\n");
}

// What a command says of a file that it does not send, behind "found file NAME".
void expect_refused(const std::string &name, const std::string &reason) {
    for (const RunCommand command : {run_write, run_writea, run_writeaw}) {
        const std::string log = test::log_of(
            [&] { EXPECT_EQ(run_words(command, {name}), Outcome::kAbandoned) << name; });
        EXPECT_EQ(log, "|found file " + name + "\n" + reason);
    }
    EXPECT_TRUE(card_calls().empty());
}

// Its low 32 bits alone are those of a small one.
TEST_F(Commands, AFileLargerThanEveryCardIsNotSent) {
    const test::TempDirectory directory;
    const std::string name = test::write_file(directory.path("large"), {});
    std::filesystem::resize_file(name, (uint64_t{1} << 32) + 5);
    expect_refused(name, "|RawMsgBuffGet fail\n");
}

TEST_F(Commands, AFileWhoseSizeNobodyKnowsIsNotSent) {
    int outside = -1;
    int inside = -1;
    char name[64] = {};
    ASSERT_EQ(openpty(&outside, &inside, name, nullptr, nullptr), 0);
    expect_refused(name, "|RawMsgBuffGet fail\n");
    (void)close(outside);
    (void)close(inside);
}

TEST_F(Commands, ATerminalThatIsNamedAsAFileDoesNotBecomeThatOfTheProcess) {
    int outside = -1;
    int inside = -1;
    char name[64] = {};
    ASSERT_EQ(openpty(&outside, &inside, name, nullptr, nullptr), 0);
    const test::Ended ended = test::run_forked([&name] {
        (void)setsid(); // as a service: whoever has a terminal gets no other
        (void)run_words(run_write, {name});
        (void)printf("%s\n",
                     open("/dev/tty", O_RDWR | O_CLOEXEC) < 0 ? "no terminal" : "a terminal");
    });
    EXPECT_TRUE(ended.output.ends_with("|RawMsgBuffGet fail\nno terminal\n")) << ended.output;
    (void)close(outside);
    (void)close(inside);
}

TEST_F(Commands, AFileThatShrinksWhileItIsReadIsNotSent) {
    const test::TempDirectory directory;
    const std::string name = test::write_file(directory.path("data"), test::pattern(4));
    const ShortRead shorter;
    const std::string log =
        test::log_of([&] { EXPECT_EQ(run_words(run_write, {name}), Outcome::kAbandoned); });
    EXPECT_EQ(log, "|found file " + name + "\n|file size 4\n|main: read '" + name +
                       "': shorter than its size\n");
    EXPECT_TRUE(card_calls().empty());
}

} // namespace
