#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "raw_msg/raw_msg.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"

#include <ctime>
#include <gtest/gtest.h>
#include <sys/prctl.h>

namespace {

int g_sleeps = 0;
int64_t g_called_at_ns = 0; // of the latest sleep, on its clock
int64_t g_until_ns = 0;
int g_slack_ns = 0; // how much later the kernel may wake the thread

int64_t nanoseconds(const timespec &time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

int64_t now_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);

int __wrap_clock_nanosleep(clockid_t /*clock*/, int /*flags*/, const timespec *until,
                           timespec * /*rest*/) {
    g_sleeps += 1;
    g_called_at_ns = now_ns();
    g_until_ns = nanoseconds(*until);
    g_slack_ns = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    return 0;
}
}
#pragma GCC visibility pop

namespace {

constexpr uint32_t kAddr = 0x01020304;

class Ddr2Write : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        g_sleeps = 0;
    }
};

TEST_F(Ddr2Write, PutsAPictureOfOneLineIntoTheFirstMemory) {
    const Bytes pixels = test::pattern(64);
    const std::string log =
        test::log_of([&] { DDR2Write('e', 1, kAddr, 16, 1, pixels.data(), 0); });
    EXPECT_EQ(log, "|ts_sel=101,fpga_sel=1,ddr_sel=0,addr=0x1020304,hor=16,ver=1\n");
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{
                                plain_write(1, 0, 0, 0xB0000, pixels),
                                plain_write(1, 0, 0, 0xA0001, {0x04, 0x03, 0x02, 0x01, 1, 0, 1}),
                            }));
}

TEST_F(Ddr2Write, PutsAPictureOfOneLineIntoTheSecondMemory) {
    const Bytes pixels = test::pattern(64);
    const std::string log =
        test::log_of([&] { DDR2Write('e', 0, kAddr, 16, 1, pixels.data(), 1); });
    EXPECT_EQ(log, "|ts_sel=101,fpga_sel=0,ddr_sel=1,addr=0x1020304,hor=16,ver=1\n"
                   "|addr = 0x1020304\n");
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{
                                plain_write(2, 0, 0, 0xF0000, pixels),
                                plain_write(2, 0, 0, 0xE0001, {0x04, 0x03, 0x02, 0x01, 1, 0, 1}),
                            }));
}

struct Selection {
    uint8_t ts_sel;
    uint8_t fpga_sel;
    uint8_t ddr_sel;
    int index; // -1: nothing is sent
    uint32_t data;
    uint32_t control;
};
constexpr Selection kSelections[] = {
    {'e', 1, 0, 1, 0xB0000, 0xA0001},
    {'e', 0, 0, 2, 0xB0000, 0xA0001},
    {'e', 1, 1, 1, 0xF0000, 0xE0001},
    {'e', 0, 1, 2, 0xF0000, 0xE0001},
    {'E', 1, 0, -1, 0, 0},
    {'d', 1, 1, -1, 0, 0},
    {0, 0, 0, -1, 0, 0},
    {0xE5, 1, 0, -1, 0, 0},
    {'e', 2, 0, -1, 0, 0},
    {'e', 3, 1, -1, 0, 0},
    {'e', 0xFF, 0, -1, 0, 0},
    {'e', 0xFF, 1, -1, 0, 0},
    {'e', 1, 2, -1, 0, 0},
    {'e', 0, 0xFF, -1, 0, 0},
};

TEST_F(Ddr2Write, SendsWhereItsSelectorsSay) {
    const Bytes pixels = test::pattern(64);
    for (const Selection &s : kSelections) {
        card_reset();
        DDR2Write(s.ts_sel, s.fpga_sel, 8, 16, 1, pixels.data(), s.ddr_sel);
        std::vector<CardCall> expected;
        if (s.index >= 0) {
            expected = {plain_write(s.index, 0, 0, s.data, pixels),
                        plain_write(s.index, 0, 0, s.control, {8, 0, 0, 0, 1, 0, 1})};
        }
        EXPECT_EQ(card_calls(), expected)
            << int{s.ts_sel} << ' ' << int{s.fpga_sel} << ' ' << int{s.ddr_sel};
    }
}

TEST_F(Ddr2Write, LogsNoChunkOfATargetThatItDoesNotServe) {
    const Bytes pixels = test::pattern(64);
    EXPECT_EQ(test::log_of([&] { DDR2Write('x', 1, 8, 16, 1, pixels.data(), 1); }),
              "|ts_sel=120,fpga_sel=1,ddr_sel=1,addr=0x8,hor=16,ver=1\n");
    // An unknown FPGA is found out only when the chunk's writer sends.
    EXPECT_EQ(test::log_of([&] { DDR2Write('e', 9, 8, 16, 1, pixels.data(), 1); }),
              "|ts_sel=101,fpga_sel=9,ddr_sel=1,addr=0x8,hor=16,ver=1\n|addr = 0x8\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

// A picture without gaps: every byte of the source appears in order.
void expect_full_hd(const std::vector<CardCall> &calls, const Bytes &pixels, uint32_t data,
                    uint32_t control) {
    constexpr size_t kChunks = 540;
    ASSERT_EQ(calls.size(), 2 * kChunks);
    for (size_t i = 0; i < kChunks; i++) {
        const auto begin = pixels.begin() + static_cast<ptrdiff_t>(i * 15360);
        ASSERT_EQ(calls[2 * i], plain_write(1, 0, 0, data, Bytes(begin, begin + 15360))) << i;
        const auto addr = static_cast<uint32_t>(0x10000 + i * 1920);
        const Bytes record = {static_cast<uint8_t>(addr),
                              static_cast<uint8_t>(addr >> 8),
                              static_cast<uint8_t>(addr >> 16),
                              static_cast<uint8_t>(addr >> 24),
                              240,
                              0,
                              1};
        ASSERT_EQ(calls[2 * i + 1], plain_write(1, 0, 0, control, record)) << i;
    }
}

TEST_F(Ddr2Write, CutsAFullHdPictureInto540Chunks) {
    const Bytes pixels = test::pattern(size_t{1920} * 1080 * 4);
    DDR2Write('e', 1, 0x10000, 1920, 1080, pixels.data(), 0);
    expect_full_hd(card_calls(), pixels, 0xB0000, 0xA0001);
}

TEST_F(Ddr2Write, LogsOneLinePerChunkOfTheSecondMemory) {
    const Bytes pixels = test::pattern(size_t{1920} * 1080 * 4);
    const std::string log =
        test::log_of([&] { DDR2Write('e', 1, 0x10000, 1920, 1080, pixels.data(), 1); });
    expect_full_hd(card_calls(), pixels, 0xF0000, 0xE0001);
    std::string expected = "|ts_sel=101,fpga_sel=1,ddr_sel=1,addr=0x10000,hor=1920,ver=1080\n";
    for (unsigned i = 0; i < 540; i++) {
        char line[40];
        snprintf(line, sizeof line, "|addr = 0x%x\n", 0x10000 + i * 1920);
        expected += line;
    }
    EXPECT_EQ(log, expected);
}

TEST_F(Ddr2Write, BeginsEveryLineAtABurst) {
    const Bytes pixels = test::pattern(size_t{10} * 4 * 3);
    DDR2Write('e', 1, 0, 10, 3, pixels.data(), 0);
    Bytes aligned(size_t{3} * 64, 0);
    for (size_t line = 0; line < 3; line++) {
        for (size_t i = 0; i < 40; i++) {
            aligned[line * 64 + i] = pixels[line * 40 + i];
        }
    }
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{
                                plain_write(1, 0, 0, 0xB0000, aligned),
                                plain_write(1, 0, 0, 0xA0001, {0, 0, 0, 0, 3, 0, 1}),
                            }));
}

// 64-byte lines: 240 of them fill a chunk, the 241st makes a chunk of one burst.
TEST_F(Ddr2Write, SendsTheRestAsAShorterChunk) {
    const Bytes pixels = test::pattern(size_t{241} * 64);
    DDR2Write('e', 0, 0xFFFFFF00, 16, 241, pixels.data(), 0);
    const auto rest = pixels.begin() + 15360;
    EXPECT_EQ(card_calls(),
              (std::vector<CardCall>{
                  plain_write(2, 0, 0, 0xB0000, Bytes(pixels.begin(), rest)),
                  plain_write(2, 0, 0, 0xA0001, {0x00, 0xFF, 0xFF, 0xFF, 240, 0, 1}),
                  plain_write(2, 0, 0, 0xB0000, Bytes(rest, pixels.end())),
                  plain_write(2, 0, 0, 0xA0001, {0x80, 0x06, 0, 0, 1, 0, 1}), // wrapped round
              }));
}

TEST_F(Ddr2Write, SendsNothingOfAnEmptyPicture) {
    const uint8_t nothing = 0;
    DDR2Write('e', 1, 0, 0, 100, &nothing, 0);
    DDR2Write('e', 1, 0, 100, 0, &nothing, 1);
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(Ddr2Write, GoesOnAfterAChunkThatCannotBeSent) {
    card_answers_plain_writes(-1);
    const Bytes pixels = test::pattern(size_t{241} * 64);
    DDR2Write('e', 1, 0, 16, 241, pixels.data(), 0);
    EXPECT_EQ(card_calls().size(), 4U);
}

TEST_F(Ddr2Write, SendsNothingWithoutMemory) {
    const Bytes pixels = test::pattern(64);
    const HeapLimit limit(64);
    for (const uint8_t ddr_sel : {uint8_t{0}, uint8_t{1}}) {
        const std::string log =
            test::log_of([&] { DDR2Write('e', 1, 8, 16, 1, pixels.data(), ddr_sel); });
        EXPECT_EQ(log, "|ts_sel=101,fpga_sel=1,ddr_sel=" + std::to_string(ddr_sel) +
                           ",addr=0x8,hor=16,ver=1\n"
                           "|raw_msg: write picture to DDR2: no memory for 64 bytes\n");
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

// 4294967295 pixels are 17179869180 bytes, 17179869184 with the padding, 65535 times.
TEST_F(Ddr2Write, CountsTheBytesOfAHugePictureIn64Bits) {
    const uint8_t pixel[4] = {};
    const HeapLimit limit(1U << 30U);
    const std::string log =
        test::log_of([&] { DDR2Write('e', 1, 0, 0xFFFFFFFF, 0xFFFF, pixel, 0); });
    EXPECT_EQ(log, "|ts_sel=101,fpga_sel=1,ddr_sel=0,addr=0x0,hor=-1,ver=65535\n"
                   "|raw_msg: write picture to DDR2: no memory for 1125882726973440 bytes\n");
    // 2^30 pixels would be no bytes at all in 32 bits.
    const std::string log2 = test::log_of([&] { DDR2Write('e', 1, 0, 1U << 30U, 1, pixel, 0); });
    EXPECT_NE(log2.find("no memory for 4294967296 bytes\n"), std::string::npos) << log2;
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(Ddr2Write, CountsTheStartedBurstsOfAChunk) {
    const Bytes bytes = test::pattern(15361);
    struct Row {
        uint16_t length;
        uint8_t bursts;
    };
    for (const Row &row : {Row{100, 2}, Row{1, 1}, Row{64, 1}, Row{65, 2}, Row{15360, 240},
                           Row{15361, 241}, Row{0, 0}}) {
        card_reset();
        const Bytes chunk(bytes.begin(), bytes.begin() + row.length);
        const Bytes record = {0x78, 0x56, 0x34, 0x12, row.bursts, 0, 1};
        DDR2WriteProcess('e', 1, 0x12345678, row.length, 0, chunk.data());
        DDR2WriteProcess2('e', 0, 0x12345678, row.length, 0xFFFFFFFF, chunk.data());
        EXPECT_EQ(card_calls(), (std::vector<CardCall>{
                                    plain_write(1, 0, 0, 0xB0000, chunk),
                                    plain_write(1, 0, 0, 0xA0001, record),
                                    plain_write(2, 0, 0, 0xF0000, chunk),
                                    plain_write(2, 0, 0, 0xE0001, record),
                                }))
            << row.length;
    }
}

TEST_F(Ddr2Write, StoresTheLongestChunkWithTwoBytesOfBursts) {
    const Bytes chunk = test::pattern(65535);
    DDR2WriteProcess('e', 1, 0, 65535, 0, chunk.data());
    EXPECT_EQ(card_calls().at(1), plain_write(1, 0, 0, 0xA0001, {0, 0, 0, 0, 0x00, 0x04, 1}));
}

TEST_F(Ddr2Write, PausesOnlyBehindTheFirstMemorysChunks) {
    const Bytes chunk = test::pattern(64);
    DDR2WriteProcess2('e', 1, 0, 64, 0, chunk.data());
    DDR2WriteProcess('x', 1, 0, 64, 0, chunk.data());
    EXPECT_EQ(g_sleeps, 0);
    const int64_t before = now_ns();
    DDR2WriteProcess('e', 1, 0, 64, 0, chunk.data());
    EXPECT_EQ(g_sleeps, 1);
    EXPECT_GE(g_until_ns, before + 2000);
    EXPECT_LE(g_until_ns, g_called_at_ns + 2000);
}

TEST_F(Ddr2Write, KeepsThePausesOfAPictureShort) {
    ASSERT_EQ(prctl(PR_SET_TIMERSLACK, 50000UL, 0, 0, 0), 0);
    const Bytes pixels = test::pattern(64);
    (void)test::log_of([&] { DDR2Write('e', 1, kAddr, 16, 1, pixels.data(), 0); });
    EXPECT_EQ(g_slack_ns, 1);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), 50000);
}

TEST_F(Ddr2Write, LogsAChunkBetweenItsBytesAndItsRecord) {
    const Bytes chunk = test::pattern(64);
    EXPECT_EQ(test::log_of([&] { DDR2WriteProcess2('e', 1, 0xABCDEF01, 64, 0, chunk.data()); }),
              "|addr = 0xabcdef01\n");
    EXPECT_EQ(test::log_of([&] { DDR2WriteProcess('e', 1, 0xABCDEF01, 64, 0, chunk.data()); }), "");
    EXPECT_EQ(test::log_of([&] { DDR2WriteProcess2('f', 1, 0, 64, 0, chunk.data()); }), "");
}

TEST(ConvertIndex, KnowsThreeNamesOfEachHalf) {
    for (int character = 0; character < 256; character++) {
        int expected = -1;
        if (character == '0' || character == 'B' || character == 'b') {
            expected = 0;
        } else if (character == '1' || character == 'A' || character == 'a') {
            expected = 1;
        }
        EXPECT_EQ(convert_index(character), expected) << character;
        EXPECT_EQ(convert_index(character + 0x7FFFFF00), expected) << character;
        EXPECT_EQ(convert_index(character - 0x100), expected) << character;
    }
}

} // namespace
