// The throughput tests of the tool, on a clock that the test plays.
#include "eth_raw/eth_raw.h"
#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "main/commands/command.h"
#include "main/commands/throughput.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "raw_msg/raw_msg.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"

#include <climits>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <semaphore.h>

namespace {

constexpr int64_t kSecond = 1'000'000; // us
constexpr int kMostQuestions = 100'000;

// A clock that moves with every question, and what the product waits for on it.
struct FakeTime {
    bool active = false;
    int64_t now_us = 0;
    int64_t step_us = 0;
    int questions = 0;
    std::string waits; // "3 requests, slept 5000000 us\n"
};

// Never destroyed: the clock is read until the end of the process.
FakeTime &fake_time() {
    static auto *const the_time = new FakeTime;
    return *the_time;
}

void note_wait(const std::string &what) {
    fake_time().waits += std::to_string(card_calls().size()) + " requests, " + what + "\n";
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);
void __wrap_RawMsgMinBuffFree(uint8_t *buf);
int __real_sem_wait(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore);

int __wrap_clock_gettime(clockid_t clock, timespec *now) {
    FakeTime &time = fake_time();
    if (!time.active || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, now);
    }
    time.questions += 1;
    if (time.questions > kMostQuestions) {
        (void)fprintf(stderr, "the loop of the test does not end\n");
        abort(); // before what it sends fills the memory
    }
    now->tv_sec = static_cast<time_t>(time.now_us / kSecond);
    now->tv_nsec = static_cast<long>(time.now_us % kSecond * 1000 + 999); // below what counts
    time.now_us += time.step_us;
    return 0;
}

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest) {
    FakeTime &time = fake_time();
    if (!time.active) {
        return __real_clock_nanosleep(clock, flags, until, rest);
    }
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(flags, TIMER_ABSTIME);
    const int64_t until_us = int64_t{until->tv_sec} * kSecond + until->tv_nsec / 1000;
    // The clock has moved since the product looked.
    note_wait("slept " + std::to_string(until_us - (time.now_us - time.step_us)) + " us");
    return 0;
}

// An ordinary read keeps its buffer until the end of the process. A process of the tool reads once,
// this one often.
void __wrap_RawMsgMinBuffFree(uint8_t *buf) {
    RawMsgBuffFree(buf);
}

int __wrap_sem_wait(sem_t *semaphore) {
    if (semaphore != &sem_test) {
        return __real_sem_wait(semaphore);
    }
    note_wait("waited");
    return 0;
}
}
#pragma GCC visibility pop

namespace {

using Words = std::vector<std::string>;

constexpr int kIndex = 2;
constexpr uint16_t kModel = 0x102;
constexpr uint8_t kSlot = 5;
constexpr uint32_t kAddr = 0x7040;

// Byte i is i modulo 256, written down independently of the product's own loop.
Bytes counting_bytes() {
    Bytes bytes;
    while (bytes.size() < 1400) {
        bytes.push_back(static_cast<uint8_t>(bytes.size() & 0xFF));
    }
    return bytes;
}

// The words behind ADDR.
CommandLine command_line(std::vector<std::string> &words, std::vector<char *> &argv) {
    const Words first = {"ruk", "2", "command", "102", "5", "7040"};
    words.insert(words.begin(), first.begin(), first.end());
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    return {.argv = argv, .index = kIndex, .model = kModel, .slot = kSlot, .addr = kAddr};
}

struct WriteCommand {
    Outcome (*run)(const CommandLine &line);
    CardCall (*call)(uint8_t slot, uint32_t addr, const Bytes &bytes);
    bool posts;
    bool is_pipelined;
};
const WriteCommand kWrites[] = {
    {run_write,
     [](uint8_t slot, uint32_t addr, const Bytes &bytes) {
         return plain_write(kIndex, kModel, slot, addr, bytes);
     },
     false, false},
    {run_writea,
     [](uint8_t slot, uint32_t addr, const Bytes &bytes) {
         return acked_write_without_waiting(kIndex, kModel, slot, addr, bytes);
     },
     true, true},
    {run_writeaw,
     [](uint8_t slot, uint32_t addr, const Bytes &bytes) {
         return acked_write(kIndex, kModel, slot, addr, bytes, 6);
     },
     true, false},
};

struct ReadCommand {
    Outcome (*run)(const CommandLine &line);
    CardCall (*call)(uint32_t len);
    bool is_pipelined;
};
const ReadCommand kReads[] = {
    {run_read,
     [](uint32_t len) { return read_without_waiting_of(kIndex, kModel, kSlot, kAddr, len); }, true},
    {run_readw, [](uint32_t len) { return read_of(kIndex, kModel, kSlot, kAddr, len, 6); }, false},
};

class ThroughputTests : public testing::Test {
protected:
    void SetUp() override {
        (void)mem_uinit(); // no blocks are left over from the case before
        handed_out = mem_handed_out();
    }
    void TearDown() override {
        fake_time().active = false;
        EXPECT_EQ(mem_handed_out(), handed_out) << "a frame buffer was not given back";
    }

    // Runs a command on a clock that moves so far from one look to the next.
    static std::string run(Outcome (*command)(const CommandLine &), Words words,
                           int64_t step_us = kSecond, int64_t start_us = 1000 * kSecond,
                           Outcome expected = Outcome::kDone) {
        std::vector<char *> argv;
        const CommandLine line = command_line(words, argv);
        card_reset();
        fake_time() = {
            .active = true, .now_us = start_us, .step_us = step_us, .questions = 0, .waits = {}};
        const std::string log = test::log_of([&] { EXPECT_EQ(command(line), expected); });
        fake_time().active = false;
        return log;
    }

    static const std::string &waits() {
        return fake_time().waits;
    }

    int64_t handed_out = 0;
};

const char *const kAnnounced = "|write fpga 2 , register : 0x00007040 , length : 1400 value :|\n";
const char *const kWriteEnd = "|write register end\n";
const char *const kReadEnd = "|read register end\n";

TEST_F(ThroughputTests, Test1SendsOneFrameOfThePattern) {
    for (const WriteCommand &command : kWrites) {
        EXPECT_EQ(run(command.run, {"test1"}), std::string(kAnnounced) + kWriteEnd);
        EXPECT_EQ(card_calls(),
                  std::vector<CardCall>{command.call(kSlot, kAddr, counting_bytes())});
        EXPECT_EQ(waits(), command.posts ? "1 requests, waited\n" : "");
    }
}

const Words kAddresses = {"8000", "0x9000", "ffffffff", "zz", "1"};
const uint32_t kSixAddresses[] = {0x7040, 0x8000, 0x9000, 0xFFFFFFFF, 0, 1};

Words with_addresses(const char *word) {
    Words words = kAddresses;
    words.emplace_back(word);
    return words;
}

TEST_F(ThroughputTests, Test2AndTest3SendToSixAddresses) {
    for (const WriteCommand &command : kWrites) {
        for (const bool is_test3 : {false, true}) {
            std::vector<CardCall> calls;
            std::string log;
            for (const uint32_t addr : kSixAddresses) {
                calls.push_back(command.call(is_test3 ? 1 : kSlot, addr, counting_bytes()));
                char line[100];
                (void)snprintf(line, sizeof line,
                               "|write fpga 2 , register : 0x%08x , length : 1400 value :|\n",
                               addr);
                log += line;
            }
            EXPECT_EQ(run(command.run, with_addresses(is_test3 ? "test3" : "test2")),
                      log + kWriteEnd);
            EXPECT_EQ(card_calls(), calls);
            EXPECT_EQ(waits(), command.is_pipelined ? "6 requests, slept 5000000 us\n" : "");
        }
    }
}

TEST_F(ThroughputTests, MoreWordsBehindTest2ChangeNothing) {
    Words words = with_addresses("test2");
    words.insert(words.end(), {"test3", "0x1"});
    (void)run(run_write, words);
    EXPECT_EQ(card_calls().size(), 6U);
    EXPECT_EQ(card_calls()[0].slot, kSlot);
}

std::string closing_waits(const WriteCommand &command, const std::string &requests) {
    return (command.is_pipelined ? requests + " requests, slept 5000000 us\n" : "") +
           (command.posts ? requests + " requests, waited\n" : "");
}

TEST_F(ThroughputTests, Test4SendsSingleBytesForTwoSeconds) {
    for (const WriteCommand &command : kWrites) {
        EXPECT_EQ(run(command.run, {"test4"}, 400'001),
                  std::string("|test4 begin\n"
                              "|2000005 us : send write 5 packets 470 bytes\n") +
                      kWriteEnd);
        EXPECT_EQ(card_calls(), std::vector<CardCall>(5, command.call(kSlot, kAddr, {0})));
        EXPECT_EQ(waits(), closing_waits(command, "5"));
    }
}

TEST_F(ThroughputTests, Test6SendsFullFramesForTwelveHours) {
    for (const WriteCommand &command : kWrites) {
        EXPECT_EQ(run(command.run, {"test6"}, 14'400 * kSecond),
                  std::string("|test6 begin\n"
                              "|43200 s : send write 3 packets 4290 bytes\n") +
                      kWriteEnd);
        EXPECT_EQ(card_calls(),
                  std::vector<CardCall>(3, command.call(kSlot, kAddr, counting_bytes())));
        EXPECT_EQ(waits(), closing_waits(command, "3"));
    }
}

TEST_F(ThroughputTests, Test5ReadsSingleBytesForTwoSeconds) {
    for (const ReadCommand &command : kReads) {
        EXPECT_EQ(run(command.run, {"test5"}, 400'001),
                  std::string("|test5 begin\n"
                              "|2000005 us : send read 5 packets 470 bytes\n") +
                      kReadEnd);
        EXPECT_EQ(card_calls(), std::vector<CardCall>(5, command.call(1)));
        EXPECT_EQ(waits(), "5 requests, slept 5000000 us\n5 requests, waited\n");
    }
}

TEST_F(ThroughputTests, Test7ReadsFullFramesForTwelveHoursAndCountsSmallOnes) {
    for (const ReadCommand &command : kReads) {
        EXPECT_EQ(run(command.run, {"test7"}, 14'400 * kSecond),
                  std::string("|test7 begin\n"
                              "|43200 s : send read 3 packets 282 bytes\n") +
                      kReadEnd);
        EXPECT_EQ(card_calls(), std::vector<CardCall>(3, command.call(1400)));
        EXPECT_EQ(waits(), std::string(command.is_pipelined ? "3 requests, slept 3000000 us\n"
                                                            : "3 requests, slept 0 us\n") +
                               "3 requests, waited\n");
    }
}

TEST_F(ThroughputTests, AnAnswerLongerThanTheByteAskedForStaysInTheBuffer) {
    for (const ReadCommand &command : kReads) {
        std::vector<char *> argv;
        Words words = {"test5"};
        const CommandLine line = command_line(words, argv);
        card_reset();
        card_answers_reads(
            [](const CardCall &) { return ReadAnswer{.result = 0, .data = counting_bytes()}; });
        fake_time() = {
            .active = true, .now_us = 0, .step_us = 2 * kSecond, .questions = 0, .waits = {}};
        EXPECT_EQ(test::log_of([&] { EXPECT_EQ(command.run(line), Outcome::kDone); }),
                  std::string("|test5 begin\n"
                              "|2000000 us : send read 1 packets 94 bytes\n") +
                      kReadEnd); // and no dump
    }
}

// --- clocks
// ---------------------------------------------------------------------------------------

TEST_F(ThroughputTests, TheLoopEndsAtTwoSecondsAndNotBefore) {
    EXPECT_EQ(run(run_write, {"test4"}, 2 * kSecond - 1),
              std::string("|test4 begin\n|3999998 us : send write 2 packets 188 bytes\n") +
                  kWriteEnd);
    EXPECT_EQ(run(run_write, {"test4"}, 2 * kSecond),
              std::string("|test4 begin\n|2000000 us : send write 1 packets 94 bytes\n") +
                  kWriteEnd);
}

TEST_F(ThroughputTests, AMicrosecondClockThatWrapsGoesOnCounting) {
    for (const int64_t wrap : {int64_t{INT32_MAX}, int64_t{UINT32_MAX}, 7 * (INT64_C(1) << 32)}) {
        for (const int64_t before : {0 * kSecond, kSecond / 2, 3 * kSecond / 2}) {
            EXPECT_EQ(run(run_write, {"test4"}, kSecond, wrap - before),
                      std::string("|test4 begin\n|2000000 us : send write 2 packets 188 bytes\n") +
                          kWriteEnd)
                << wrap << " " << before;
        }
    }
}

TEST_F(ThroughputTests, ARequestLongerThanTheClockReachesWraps) {
    // 3000 s look like a time before the start, 6000 s like 1705 s.
    EXPECT_EQ(run(run_write, {"test4"}, 3000 * kSecond),
              std::string("|test4 begin\n|1705032704 us : send write 2 packets 188 bytes\n") +
                  kWriteEnd);
}

TEST_F(ThroughputTests, WholeSecondsAreCountedByTheirBeginnings) {
    const int64_t late_in_a_second = 1000 * kSecond + 900'000;
    EXPECT_EQ(run(run_read, {"test7"}, 43'199 * kSecond + 100'000, late_in_a_second),
              std::string("|test7 begin\n|43200 s : send read 1 packets 94 bytes\n") + kReadEnd);
    EXPECT_EQ(run(run_read, {"test7"}, 43'199 * kSecond + 99'999, late_in_a_second),
              std::string("|test7 begin\n|86399 s : send read 2 packets 188 bytes\n") + kReadEnd);
}

TEST_F(ThroughputTests, ASecondClockThatWrapsGoesOnCounting) {
    for (const int64_t wrap : {int64_t{INT32_MAX}, int64_t{UINT32_MAX}}) {
        EXPECT_EQ(run(run_write, {"test6"}, 21'600 * kSecond, (wrap - 100) * kSecond),
                  std::string("|test6 begin\n|43200 s : send write 2 packets 2860 bytes\n") +
                      kWriteEnd);
    }
}

// --- result lines
// ---------------------------------------------------------------------------------

TEST_F(ThroughputTests, TheFiguresOfTwoSecondsWrapAt32Bits) {
    const auto line = [](uint64_t packets) {
        return test::log_of([=] { log_microseconds("write", {2'000'013, packets}, kSmallPacket); });
    };
    EXPECT_EQ(line(5000), "|2000013 us : send write 5000 packets 470000 bytes\n");
    EXPECT_EQ(line(22'845'571), "|2000013 us : send write 22845571 packets -2147483622 bytes\n");
    EXPECT_EQ(line(0x80000000), "|2000013 us : send write -2147483648 packets 0 bytes\n");
    EXPECT_EQ(line(0x100000001), "|2000013 us : send write 1 packets 94 bytes\n");
}

TEST_F(ThroughputTests, TheFiguresOfTwelveHoursHave64Bits) {
    const auto line = [](const char *verb, uint32_t per_packet) {
        return test::log_of([=] { log_seconds(verb, {43'200, 6'000'000'000}, per_packet); });
    };
    EXPECT_EQ(line("write", kFullPacket),
              "|43200 s : send write 6000000000 packets 8580000000000 bytes\n");
    EXPECT_EQ(line("read", kSmallPacket),
              "|43200 s : send read 6000000000 packets 564000000000 bytes\n");
}

// --- failures
// -------------------------------------------------------------------------------------

TEST_F(ThroughputTests, WithoutAFrameBufferATestIsAbandoned) {
    struct Row {
        const char *word;
        std::string log;
    };
    const std::string told = "|RawMsgBuffGet fail\n";
    const Row writes[] = {{"test1", told},
                          {"test2", told},
                          {"test3", told},
                          {"test4", "|test4 begin\n"},
                          {"test6", "|test6 begin\n"}};
    const Row reads[] = {{"test5", "|test5 begin\n" + told}, {"test7", "|test7 begin\n" + told}};
    const HeapLimit no_memory(128);
    for (const WriteCommand &command : kWrites) {
        for (const Row &row : writes) {
            const bool is_last = row.word[4] == '2' || row.word[4] == '3';
            EXPECT_EQ(run(command.run, is_last ? with_addresses(row.word) : Words{row.word},
                          kSecond, 0, Outcome::kAbandoned),
                      row.log);
            EXPECT_TRUE(card_calls().empty());
            EXPECT_EQ(waits(), "");
        }
    }
    for (const ReadCommand &command : kReads) {
        for (const Row &row : reads) {
            EXPECT_EQ(run(command.run, {row.word}, kSecond, 0, Outcome::kAbandoned), row.log);
            EXPECT_TRUE(card_calls().empty());
            EXPECT_EQ(waits(), "");
        }
    }
}

TEST_F(ThroughputTests, PostsBeyondTheHighestCountAreDropped) {
    ASSERT_EQ(sem_init(&sem_test, 0, SEM_VALUE_MAX - 1), 0);
    for (int i = 0; i < 3; i++) {
        post_test(); // twelve hours may hold more answers than a semaphore counts
    }
    int value = 0;
    EXPECT_EQ(sem_getvalue(&sem_test, &value), 0);
    EXPECT_EQ(value, SEM_VALUE_MAX);
}

// --- selection
// ------------------------------------------------------------------------------------

// What a command line runs, told by its log.
struct Selected {
    Words words;
    const char *log;
    size_t requests;
};

TEST_F(ThroughputTests, TheFirstTestWordThatFitsIsRun) {
    const Selected rows[] = {
        {{"test1", "2", "3", "4", "5", "test2"}, kAnnounced, 1},
        {{"test4", "2", "3", "4", "5", "test2"}, kAnnounced, 6},
        {{"test6", "2", "3", "4", "5", "test3"}, kAnnounced, 6},
        {{"0x11", "2", "3", "4", "5", "test2"}, kAnnounced, 6},
        {{"a", "2", "3", "4", "5", "test4"}, "|not found file a\n", 0},
        {{"test4", "0x1"}, "|test4 begin\n", 2},
        {{"test6", "more"}, "|test6 begin\n", 43'200},
    };
    for (const Selected &row : rows) {
        const Outcome expected = row.requests == 0 ? Outcome::kAbandoned : Outcome::kDone;
        const std::string log = run(run_write, row.words, kSecond, 0, expected);
        EXPECT_TRUE(log.starts_with(row.log)) << row.words[0] << ": " << log;
        EXPECT_EQ(card_calls().size(), row.requests) << row.words[0];
    }
}

TEST_F(ThroughputTests, OtherWordsAreValuesOrFiles) {
    for (const char *word : {"test2", "test3", "test5", "test7", "test0", "test", "Test1", "test11",
                             " test1", "test1 "}) {
        EXPECT_TRUE(run(run_writea, {word}, kSecond, 0, Outcome::kAbandoned)
                        .starts_with("|not found file " + std::string(word) + "\nusage: \n"));
        EXPECT_TRUE(card_calls().empty());
    }
    // One word short of test2, and one word behind its place.
    EXPECT_EQ(run(run_write, {"0x1", "2", "3", "4", "test2"}),
              std::string("|write fpga 2 , register : 0x00007040 , length : 5 value :"
                          "01 02 03 04 00 \n") +
                  kWriteEnd);
    EXPECT_EQ(card_calls(),
              std::vector<CardCall>{plain_write(kIndex, kModel, kSlot, kAddr, {1, 2, 3, 4, 0})});
    (void)run(run_write, {"0x1", "2", "3", "4", "5", "6", "test2"});
    EXPECT_EQ(card_calls(), std::vector<CardCall>{
                                plain_write(kIndex, kModel, kSlot, kAddr, {1, 2, 3, 4, 5, 6, 0})});
    test::TempDirectory directory;
    const std::string file = test::write_file(directory.path("test1"), {0xCA, 0xFE});
    (void)run(run_write, {file});
    EXPECT_EQ(card_calls(),
              std::vector<CardCall>{plain_write(kIndex, kModel, kSlot, kAddr, {0xCA, 0xFE})});
}

TEST_F(ThroughputTests, OtherWordsOfAReadAreLengths) {
    struct Row {
        Words words;
        uint32_t len;
    };
    const Row rows[] = {{{}, 1},        {{"test4"}, 0},      {{"test6"}, 0},     {{"test1"}, 0},
                        {{"Test5"}, 0}, {{"test5", "x"}, 1}, {{"7", "test5"}, 1}};
    for (const Row &row : rows) {
        const std::string log = run(run_readw, row.words);
        EXPECT_EQ(card_calls(),
                  std::vector<CardCall>{read_of(kIndex, kModel, kSlot, kAddr, row.len, 6)});
        EXPECT_TRUE(log.starts_with("\n00007040: ")) << log; // the dump
        EXPECT_EQ(waits(), "1 requests, waited\n");
    }
}

} // namespace
