// command_test.cpp - the register commands' own steps, on a played card: what they show, and how
// they end without a buffer.
#include "eth_raw/eth_raw.h"
#include "fake_card.h"
#include "fake_heap.h"
#include "log_lines.h"
#include "main/command.h"
#include "mem/mem.h"
#include "mem/mem_priv.h"
#include "raw_msg/raw_msg.h"
#include "temp_files.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <thread>

namespace {

// What a log call without a file does: it flushes every stream. All of them have to be free.
struct Flushes {
    int count = 0;
    int with_stdout_held = 0;
};
Flushes g_flushes;

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

int __wrap_sem_wait(sem_t * /*semaphore*/) {
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
    return command({.argv = argv, .index = 2, .model = 0x102, .slot = 5, .addr = kAddr});
}

class Commands : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        (void)mem_uinit(); // no blocks are left over from the case before
        handed_out = mem_handed_out();
        g_flushes = {};
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

} // namespace
