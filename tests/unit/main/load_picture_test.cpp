#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "main/main.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"
#include "stand_ins/short_read.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

// Times that the product is told, then the real ones again. The log asks for the time, too.
struct FakeTime {
    bool active = false;
    uint32_t step_us = 0; // from each question to the next
    uint64_t now_us = 0;
};
FakeTime g_time;

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_gettimeofday(timeval *now, void *zone);
int __wrap_gettimeofday(timeval *now, void *zone);

int __wrap_gettimeofday(timeval *now, void *zone) {
    if (!g_time.active) {
        return __real_gettimeofday(now, zone);
    }
    now->tv_sec = static_cast<time_t>(g_time.now_us / 1000000);
    now->tv_usec = static_cast<suseconds_t>(g_time.now_us % 1000000);
    g_time.now_us += g_time.step_us;
    return 0;
}
}
#pragma GCC visibility pop

namespace {

const char *const kTo = "xe";   // the target
const char *const kSel = "x1A"; // FPGA 1, second memory

class LoadPictureFile : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        descriptors = test::open_descriptors();
    }
    void TearDown() override {
        EXPECT_EQ(test::open_descriptors(), descriptors) << "a file stayed open";
        g_time = {};
    }

    std::string load(const std::string &name, uint32_t hor, uint32_t ver, int expected_result,
                     const char *sel = kSel, const char *ts = kTo) {
        return test::without_times(test::log_of([&] {
            EXPECT_EQ(LoadPicture(0x100, hor, ver, name.c_str(), ts, sel), expected_result);
        }));
    }

    test::TempDirectory directory;
    int descriptors = 0;
};

std::string begun(const std::string &name) {
    return "|found file " + name + "\n";
}

std::string written(int hor, int ver) {
    return "|ts_sel=101,fpga_sel=1,ddr_sel=1,addr=0x100,hor=" + std::to_string(hor) +
           ",ver=" + std::to_string(ver) + "\n|addr = 0x100\n";
}

const char *const kTimed = "|\ntotal time:# sec|\n";

std::string size_error(const std::string &hor, const std::string &ver, size_t size) {
    return "|\nfile size error, hor=" + hor + ", ver=" + ver +
           ", filesize=" + std::to_string(size) + "\n";
}

// One burst holds 16 pixels; the rest is zeros.
std::vector<CardCall> one_burst_lines(const std::vector<Bytes> &lines) {
    Bytes aligned;
    for (const Bytes &line : lines) {
        aligned.insert(aligned.end(), line.begin(), line.end());
        aligned.resize((aligned.size() + 63) / 64 * 64);
    }
    return {plain_write(1, 0, 0, 0xF0000, aligned),
            plain_write(1, 0, 0, 0xE0001,
                        {0x00, 0x01, 0, 0, static_cast<uint8_t>(lines.size()), 0, 1})};
}

TEST_F(LoadPictureFile, TurnsABmpUprightAndMakesItsPixels32Bits) {
    const std::string name = test::write_file(
        directory.path("two.bmp"), test::bmp_file(54, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(load(name, 2, 2, 0), begun(name) + "|offset = 54\n" + written(2, 2) + kTimed);
    EXPECT_EQ(card_calls(),
              one_burst_lines({{0x55, 9, 8, 7, 0x55, 12, 11, 10}, {0x55, 3, 2, 1, 0x55, 6, 5, 4}}));
}

TEST_F(LoadPictureFile, TakesThePixelsFromWhereTheHeaderSays) {
    const std::string name =
        test::write_file(directory.path("far.bmp"), test::bmp_file(1000, {1, 2, 3}));
    EXPECT_EQ(load(name, 1, 1, 0), begun(name) + "|offset = 1000\n" + written(1, 1) + kTimed);
    EXPECT_EQ(card_calls(), one_burst_lines({{0x55, 3, 2, 1}}));
}

TEST_F(LoadPictureFile, TakesRowPaddingForPixels) {
    // Rows of 3 bytes and one of padding; the second row read begins with that padding.
    const std::string name =
        test::write_file(directory.path("drift.bmp"), test::bmp_file(54, {1, 2, 3, 0, 4, 5, 6, 0}));
    (void)load(name, 1, 2, 0);
    EXPECT_EQ(card_calls(), one_burst_lines({{0x55, 5, 4, 0}, {0x55, 3, 2, 1}}));
}

TEST_F(LoadPictureFile, PassesATextFileOnAsItIs) {
    const Bytes pixels = test::pattern(8);
    const std::string name = test::write_file(directory.path("two.txt"), pixels);
    EXPECT_EQ(load(name, 1, 2, 0), begun(name) + written(1, 2) + kTimed);
    EXPECT_EQ(card_calls(), one_burst_lines({Bytes(pixels.begin(), pixels.begin() + 4),
                                             Bytes(pixels.begin() + 4, pixels.end())}));
}

TEST_F(LoadPictureFile, PassesAnyOtherFileOnAndThenComplains) {
    for (const char *ending : {"raw", "p.BMP", "p.TXT", "p.Bmp", "p.bmpx", "bmp", "pbmp", "ptxt"}) {
        card_reset();
        const Bytes pixels = test::pattern(4);
        const std::string name = test::write_file(directory.path(ending), pixels);
        EXPECT_EQ(load(name, 1, 1, 0),
                  begun(name) + written(1, 1) + "|\nfile format error\n" + kTimed);
        EXPECT_EQ(card_calls(), one_burst_lines({pixels})) << ending;
    }
}

TEST_F(LoadPictureFile, SendsTheHeaderOfAnUpperCaseBmpToo) {
    const Bytes bytes = test::bmp_file(54, test::pattern(10)); // 64 bytes
    const std::string name = test::write_file(directory.path("p.BMP"), bytes);
    (void)load(name, 16, 1, 0);
    EXPECT_EQ(card_calls(), one_burst_lines({bytes}));
}

TEST_F(LoadPictureFile, KnowsABmpByTheLastFourCharactersOnly) {
    const std::string name =
        test::write_file(directory.path(".bmp"), test::bmp_file(54, {1, 2, 3}));
    (void)load(name, 1, 1, 0);
    EXPECT_EQ(card_calls(), one_burst_lines({{0x55, 3, 2, 1}}));
    // A name of less than four characters has no ending.
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(std::filesystem::path(name).parent_path());
    test::write_file("bmp", test::pattern(4));
    EXPECT_EQ(load("bmp", 1, 1, 0),
              begun("bmp") + written(1, 1) + "|\nfile format error\n" + kTimed);
    std::filesystem::current_path(before);
}

struct Selectors {
    const char *ts;
    const char *sel;
    const char *log; // the three numbers
    int index;       // -1: nothing is sent
    uint32_t data;
};
const Selectors kSelectors[] = {
    {"xe", "x1A", "ts_sel=101,fpga_sel=1,ddr_sel=1", 1, 0xF0000},
    {"xe", "x0B", "ts_sel=101,fpga_sel=0,ddr_sel=0", 2, 0xB0000},
    {"xe", "xa0", "ts_sel=101,fpga_sel=1,ddr_sel=0", 1, 0xB0000},
    {"ee", "?b1more", "ts_sel=101,fpga_sel=0,ddr_sel=1", 2, 0xF0000},
    {"xe", "x2b", "ts_sel=101,fpga_sel=255,ddr_sel=0", -1, 0},
    {"xe", "x12", "ts_sel=101,fpga_sel=1,ddr_sel=255", -1, 0},
    {"ex", "x1A", "ts_sel=120,fpga_sel=1,ddr_sel=1", -1, 0},
    {"xE", "x1A", "ts_sel=69,fpga_sel=1,ddr_sel=1", -1, 0},
    // Too short: no selection.
    {"e", "x1A", "ts_sel=0,fpga_sel=1,ddr_sel=1", -1, 0},
    {"", "x1A", "ts_sel=0,fpga_sel=1,ddr_sel=1", -1, 0},
    {"xe", "x1", "ts_sel=101,fpga_sel=1,ddr_sel=255", -1, 0},
    {"xe", "x", "ts_sel=101,fpga_sel=255,ddr_sel=255", -1, 0},
    {"xe", "", "ts_sel=101,fpga_sel=255,ddr_sel=255", -1, 0},
};

TEST_F(LoadPictureFile, SendsWhereItsSelectorsSay) {
    const std::string name = test::write_file(directory.path("p.txt"), test::pattern(4));
    for (const Selectors &s : kSelectors) {
        card_reset();
        // On the heap, so that reading behind the string's end is seen.
        const std::unique_ptr<char, decltype(&free)> ts(strdup(s.ts), free);
        const std::unique_ptr<char, decltype(&free)> sel(strdup(s.sel), free);
        const std::string log = load(name, 1, 1, 0, sel.get(), ts.get());
        EXPECT_NE(log.find(std::string("|") + s.log + ",addr=0x100,hor=1,ver=1\n"),
                  std::string::npos)
            << log;
        const auto calls = card_calls();
        ASSERT_EQ(calls.size(), s.index < 0 ? 0U : 2U) << s.ts << ' ' << s.sel;
        if (s.index >= 0) {
            EXPECT_EQ(calls[0].index, s.index);
            EXPECT_EQ(calls[0].addr, s.data);
        }
    }
}

TEST_F(LoadPictureFile, TruncatesSizesTo16BitsWhereTheyReachTheCard) {
    // 65537 x 2 pixels in the file; the memory gets 1 x 2 of them, from the start of the
    // conversion.
    const Bytes pixels = test::pattern(size_t{65537} * 2 * 3);
    const std::string name =
        test::write_file(directory.path("wide.bmp"), test::bmp_file(54, pixels));
    EXPECT_EQ(load(name, 65537, 2, 0), begun(name) + "|offset = 54\n" + written(1, 2) + kTimed);
    const size_t top = size_t{65537} * 3; // the top row is the file's second
    EXPECT_EQ(card_calls(),
              one_burst_lines({{0x55, pixels[top + 2], pixels[top + 1], pixels[top]},
                               {0x55, pixels[top + 5], pixels[top + 4], pixels[top + 3]}}));
}

TEST_F(LoadPictureFile, WantsOnlyTheTruncatedSizeOfAFileSentAsItIs) {
    const Bytes pixels = test::pattern(8);
    const std::string name = test::write_file(directory.path("p.txt"), pixels);
    EXPECT_EQ(load(name, 65538, 65537, 0), begun(name) + written(2, 1) + kTimed);
    EXPECT_EQ(card_calls(), one_burst_lines({pixels}));
    card_reset();
    EXPECT_EQ(load(name, 65539, 65537, -1), begun(name) + size_error("65539", "65537", 8));
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, RefusesAFileThatLacksOneByte) {
    for (const char *ending : {"a.bmp", "a.txt", "a.raw"}) {
        const bool is_bmp = std::string_view(ending) == "a.bmp";
        const size_t pixels = size_t{5} * 3 * (is_bmp ? 3 : 4);
        const Bytes whole =
            is_bmp ? test::bmp_file(54, test::pattern(pixels)) : test::pattern(pixels);
        const std::string name = test::write_file(directory.path(ending), whole);
        (void)load(name, 5, 3, 0);
        EXPECT_EQ(card_calls().size(), 2U) << ending;
        card_reset();
        test::write_file(name, Bytes(whole.begin(), whole.end() - 1));
        EXPECT_EQ(load(name, 5, 3, -1), begun(name) + (is_bmp ? "|offset = 54\n" : "") +
                                            size_error("5", "3", whole.size() - 1));
        EXPECT_EQ(card_calls().size(), 0U) << ending;
    }
}

TEST_F(LoadPictureFile, SendsNothingOfAnEmptyPicture) {
    for (const char *ending : {"a.bmp", "a.txt"}) {
        const std::string name = test::write_file(directory.path(ending), test::bmp_file(54, {}));
        (void)load(name, 0, 0, 0);
        (void)load(name, 5, 0, 0);
        (void)load(name, 0, 5, 0);
    }
    const std::string empty = test::write_file(directory.path("empty.txt"), {});
    EXPECT_EQ(load(empty, 0, 0, 0),
              begun(empty) + "|ts_sel=101,fpga_sel=1,ddr_sel=1,addr=0x100,hor=0,ver=0\n" + kTimed);
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, RefusesSizesThatNoFileHas) {
    const std::string bmp =
        test::write_file(directory.path("a.bmp"), test::bmp_file(54, {1, 2, 3}));
    const std::string text = test::write_file(directory.path("a.txt"), test::pattern(4));
    struct Size {
        uint32_t hor;
        uint32_t ver;
        const char *hor_text;
        const char *ver_text;
    };
    // Products that wrap in 32 bits: the second, 3 x 2^32 bytes, to 0.
    for (const Size &size :
         {Size{0xFFFFFFFF, 0xFFFFFFFF, "-1", "-1"}, Size{0x10000, 0x10000, "65536", "65536"},
          Size{0x80000000, 2, "-2147483648", "2"}, Size{0xFFFFFFFF, 1, "-1", "1"}}) {
        EXPECT_EQ(load(bmp, size.hor, size.ver, -1),
                  begun(bmp) + "|offset = 54\n" + size_error(size.hor_text, size.ver_text, 57));
    }
    EXPECT_EQ(load(text, 0xFFFFFFFF, 0xFFFFFFFF, -1), begun(text) + size_error("-1", "-1", 4));
    EXPECT_EQ(card_calls().size(), 0U);
}

// Lines without pixels: nothing to do, however many there are.
TEST_F(LoadPictureFile, IsQuickWithManyEmptyLines) {
    const std::string name = test::write_file(directory.path("a.bmp"), test::bmp_file(54, {}));
    EXPECT_EXIT(
        {
            alarm(10);
            _exit(LoadPicture(0, 0, 0xFFFFFFFF, name.c_str(), kTo, kSel) == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LoadPictureFile, RefusesAnOffsetBehindTheEnd) {
    Bytes bytes = test::bmp_file(54, {1, 2, 3});
    struct Row {
        uint32_t offset;
        const char *text;
    };
    for (const Row &row :
         {Row{55, "55"}, Row{57, "57"}, Row{58, "58"}, Row{0x7FFFFFFF, "2147483647"},
          Row{0xFFFFFFFF, "-1"}, Row{0xFFFFFFFD, "-3"}}) {
        for (size_t i = 0; i < 4; i++) {
            bytes[10 + i] = static_cast<uint8_t>(row.offset >> (8 * i));
        }
        const std::string name = test::write_file(directory.path("a.bmp"), bytes);
        EXPECT_EQ(load(name, 1, 1, -1),
                  begun(name) + "|offset = " + row.text + "\n" + size_error("1", "1", 57));
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, RefusesABmpWithoutRoomForTheOffset) {
    for (size_t size = 0; size < 14; size++) {
        const std::string name = test::write_file(directory.path("a.bmp"), Bytes(size, 0));
        EXPECT_EQ(load(name, 0, 0, -1), begun(name) + size_error("0", "0", size));
    }
    const std::string name = test::write_file(directory.path("a.bmp"), Bytes(14, 0));
    EXPECT_EQ(load(name, 4, 1, 0), begun(name) + "|offset = 0\n" + written(4, 1) + kTimed);
}

TEST_F(LoadPictureFile, ReportsAMissingFile) {
    const std::string name = directory.path("none.bmp");
    EXPECT_EQ(load(name, 1, 1, -1), "|not found file " + name + "\n");
}

TEST_F(LoadPictureFile, DoesNotWaitForAPipe) {
    const std::string name = directory.path("pipe.bmp");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    const std::string log = load(name, 1, 1, -1);
    EXPECT_TRUE(log.starts_with(begun(name))) << log;
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, RefusesADirectory) {
    const std::string name = directory.path("directory.txt");
    ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
    const std::string log = load(name, 0, 0, -1);
    EXPECT_TRUE(log.starts_with(begun(name))) << log;
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, ReportsAFileThatDoesNotFitIntoMemory) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(10000));
    const HeapLimit limit(10000);
    EXPECT_EQ(load(name, 1, 1, -1), begun(name) + "|\nmalloc p failed\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, ReportsAConvertedPictureThatDoesNotFitIntoMemory) {
    const std::string name =
        test::write_file(directory.path("a.bmp"), test::bmp_file(54, test::pattern(3000)));
    const HeapLimit limit(4000); // the file's 3054 bytes fit, the 1000 pixels do not
    EXPECT_EQ(load(name, 1000, 1, -1), begun(name) + "|offset = 54\n|\nmalloc buffer failed\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, ReportsAFileThatShrinksWhileItIsRead) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(4));
    const ShortRead shorter;
    EXPECT_EQ(load(name, 1, 1, -1), begun(name) + "|\nfread failed\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(LoadPictureFile, SucceedsWhateverBecomesOfTheFrames) {
    card_answers_plain_writes(-1);
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(4));
    (void)load(name, 1, 1, 0);
    EXPECT_EQ(card_calls().size(), 2U);
}

TEST_F(LoadPictureFile, TellsTheTimeInSecondsWithSixDigits) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(4));
    const auto timed = [&](uint64_t start_us, uint32_t step_us) {
        g_time = {.active = true, .step_us = step_us, .now_us = start_us};
        const std::string log =
            test::log_of([&] { (void)LoadPicture(0x100, 1, 1, name.c_str(), kTo, "x1B"); });
        g_time = {};
        return log.substr(log.find("|\ntotal"));
    };
    // Between the two questions the log asks once, for the line of the DDR2 write.
    EXPECT_EQ(timed(1700000000000000, 250), "|\ntotal time:0.000500 sec|\n");
    EXPECT_EQ(timed(1700000000900000, 750000), "|\ntotal time:1.500000 sec|\n");
    // The microseconds wrap round 32 bits in between.
    EXPECT_EQ(timed(4294967296ULL * 400000 - 1000, 1000), "|\ntotal time:0.002000 sec|\n");
}

TEST_F(LoadPictureFile, PutsAHeaderBeforeTheLastLineFeed) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(4));
    EXPECT_TRUE(load(name, 1, 1, 0).ends_with(kTimed));
}

} // namespace
