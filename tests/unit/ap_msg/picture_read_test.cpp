#include "ap_msg/ap_msg.h"
#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

struct SystemCall {
    std::string command;
    size_t card_calls; // made before it
    int inherited;     // open descriptors that its shell gets, too
};
std::vector<SystemCall> g_system_calls;
std::function<void()> g_at_system_call;

int inheritable_descriptors() {
    constexpr int kMany = 1024;
    int count = 0;
    for (int fd = 0; fd < kMany; fd++) {
        const int flags = fcntl(fd, F_GETFD);
        count += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return count;
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __wrap_my_system(const char *command);

int __wrap_my_system(const char *command) {
    g_system_calls.push_back({command, card_calls().size(), inheritable_descriptors()});
    if (g_at_system_call) {
        g_at_system_call();
    }
    return 1; // files are of use without it
}
}
#pragma GCC visibility pop

namespace {

void put(Bytes &to, uint32_t value, int width) {
    for (int i = 0; i < width; i++) {
        to.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

struct Registers {
    uint32_t command;
    uint32_t start;
    uint32_t status;
    uint32_t data;
};
constexpr Registers kFirst{0xA0008, 0xA00FF, 0xA0FFD, 0xB0000};
constexpr Registers kSecond{0xE0008, 0xE00FF, 0xE0FFD, 0xF0000};

// The four calls of one block. The slot goes where others have the model.
void add_block(std::vector<CardCall> &calls, const Registers &r, int index, uint16_t slot,
               uint8_t model, uint32_t addr, uint8_t bursts, uint32_t length) {
    Bytes record;
    put(record, addr, 4);
    put(record, bursts, 2);
    put(record, 0, 1);
    calls.push_back(plain_write(index, slot, model, r.command, record));
    calls.push_back(plain_write(index, slot, model, r.start, {1}));
    calls.push_back(read_of(index, slot, model, r.status, 1, 3));
    calls.push_back(read_of(index, slot, model, r.data, length, 3));
}

bool is_data_read(const CardCall &call) {
    return call.addr == kFirst.data || call.addr == kSecond.data;
}

// A card whose data register gives its memory out piece by piece.
void play_memory(const Bytes &memory) {
    card_answers_reads([memory, at = std::make_shared<size_t>(0)](const CardCall &call) {
        if (!is_data_read(call)) {
            return ReadAnswer{0, {0x77}};
        }
        const auto begin = memory.begin() + static_cast<ptrdiff_t>(*at);
        *at += call.len;
        return ReadAnswer{0, Bytes(begin, begin + static_cast<ptrdiff_t>(call.len))};
    });
}

class Ddr2Read : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
    }
};

TEST_F(Ddr2Read, ReadsABlockThroughTheFirstRegistersOnInterfaces0And1) {
    for (const int index : {0, 1}) {
        card_reset();
        play_memory(test::pattern(100));
        Bytes block(100);
        EXPECT_EQ(DDR2ReadProcess(index, 0x85, 0x12B4, 0xA1B2C3D4, 100, block.data()), 0);
        std::vector<CardCall> expected;
        add_block(expected, kFirst, index, 0x85, 0xB4, 0xA1B2C3D4, 2, 100);
        EXPECT_EQ(card_calls(), expected);
        EXPECT_EQ(block, test::pattern(100));
    }
}

TEST_F(Ddr2Read, ReadsABlockThroughTheSecondRegistersOnInterface2) {
    play_memory(test::pattern(1400));
    Bytes block(1400);
    EXPECT_EQ(DDR2ReadProcess(2, 1, 0xFF00, 8, 1400, block.data()), 0);
    std::vector<CardCall> expected;
    add_block(expected, kSecond, 2, 1, 0, 8, 22, 1400);
    EXPECT_EQ(card_calls(), expected);
    EXPECT_EQ(block, test::pattern(1400));
}

TEST_F(Ddr2Read, CountsTheStartedBurstsOfABlock) {
    struct Row {
        uint16_t length;
        uint8_t bursts;
    };
    for (const Row &row : {Row{1, 1}, Row{64, 1}, Row{65, 2}, Row{128, 2}, Row{1344, 21},
                           Row{1345, 22}, Row{1400, 22}}) {
        card_reset();
        Bytes block(1400);
        EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, row.length, block.data()), 0);
        std::vector<CardCall> expected;
        add_block(expected, kFirst, 0, 2, 3, 0, row.bursts, row.length);
        EXPECT_EQ(card_calls(), expected) << row.length;
    }
}

TEST_F(Ddr2Read, ReadsTheDataWhateverTheStatusSays) {
    card_answers_plain_writes(-1);
    card_answers_reads([](const CardCall &call) {
        return is_data_read(call) ? ReadAnswer{0, {5, 6}} : ReadAnswer{-1, {}};
    });
    Bytes block(2);
    EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, 2, block.data()), 0);
    EXPECT_EQ(block, (Bytes{5, 6}));
}

TEST_F(Ddr2Read, LeavesABlockThatDoesNotComeAsItWas) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{-1, Bytes(1400, 0xEE)}; });
    Bytes block(100, 0x11);
    EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, 100, block.data()), -1);
    EXPECT_EQ(block, Bytes(100, 0x11));
}

TEST_F(Ddr2Read, CopiesNoMoreOfALongReplyThanWasAskedFor) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, Bytes(1400, 0xEE)}; });
    for (const uint16_t length : {uint16_t{1}, uint16_t{100}, uint16_t{1399}}) {
        Bytes block(1400, 0x11);
        EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, length, block.data()), 0);
        Bytes expected(1400, 0x11);
        std::fill_n(expected.begin(), length, uint8_t{0xEE});
        EXPECT_EQ(block, expected) << length;
    }
}

TEST_F(Ddr2Read, CopiesAShortReplyAndLeavesTheRest) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, Bytes(7, 0xEE)}; });
    Bytes block(100, 0x11);
    EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, 100, block.data()), 0);
    Bytes expected(100, 0x11);
    std::fill_n(expected.begin(), 7, uint8_t{0xEE});
    EXPECT_EQ(block, expected);
}

TEST_F(Ddr2Read, AsksForNoBlockLongerThanAFrame) {
    Bytes block(1, 0x11);
    EXPECT_EQ(test::log_of([&] {
                  EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, 1401, block.data()), -1);
                  EXPECT_EQ(DDR2ReadProcess(0, 2, 3, 0, 65535, block.data()), -1);
              }),
              "|ap_msg: read block of 1401 bytes: more than one frame's 1400\n"
              "|ap_msg: read block of 65535 bytes: more than one frame's 1400\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

// Lines of 10 pixels, 40 bytes, lie 64 bytes apart: 30 of them are 1920 bytes, 1400 and 520.
TEST_F(Ddr2Read, TakesTheLinesOutOfTheirStrides) {
    const Bytes memory = test::pattern(1920);
    play_memory(memory);
    Bytes out(size_t{30} * 40);
    DDR2Read(1, 0xAB12, 7, 0xFFFFFFF0, 10, 30, out.data());
    std::vector<CardCall> expected;
    add_block(expected, kFirst, 1, 7, 0x12, 0xFFFFFFF0, 22, 1400);
    add_block(expected, kFirst, 1, 7, 0x12, 0xA0, 9, 520); // 176 further, wrapped round
    EXPECT_EQ(card_calls(), expected);
    Bytes packed;
    for (size_t line = 0; line < 30; line++) {
        const auto begin = memory.begin() + static_cast<ptrdiff_t>(line * 64);
        packed.insert(packed.end(), begin, begin + 40);
    }
    EXPECT_EQ(out, packed);
}

TEST_F(Ddr2Read, AdvancesByStartedBursts) {
    const Bytes memory = test::pattern(4200 + 152);
    play_memory(memory);
    Bytes out(size_t{16} * 4 * 68); // 68 lines of one burst: 4352 bytes
    DDR2Read(2, 1, 2, 1000, 16, 68, out.data());
    std::vector<CardCall> expected;
    add_block(expected, kSecond, 2, 2, 1, 1000, 22, 1400);
    add_block(expected, kSecond, 2, 2, 1, 1176, 22, 1400);
    add_block(expected, kSecond, 2, 2, 1, 1352, 22, 1400);
    add_block(expected, kSecond, 2, 2, 1, 1528, 3, 152);
    EXPECT_EQ(card_calls(), expected);
    EXPECT_EQ(out, memory);
}

TEST_F(Ddr2Read, LeavesAFailedBlockBlack) {
    card_answers_reads([n = std::make_shared<int>(0)](const CardCall &call) {
        *n += is_data_read(call) ? 1 : 0;
        const bool fails = is_data_read(call) && *n == 2;
        return ReadAnswer{fails ? -1 : 0, Bytes(1400, 0xEE)};
    });
    Bytes out(size_t{16} * 4 * 66, 0x11); // 4224 bytes: 1400, 1400, 1400, 24
    DDR2Read(0, 1, 2, 0, 16, 66, out.data());
    Bytes expected(out.size(), 0xEE);
    std::fill_n(expected.begin() + 1400, 1400, uint8_t{0});
    EXPECT_EQ(out, expected);
}

TEST_F(Ddr2Read, StaysWithinThePictureWhateverTheCardSends) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, Bytes(1400, 0xEE)}; });
    constexpr size_t kGuard = 2000;
    Bytes guarded(kGuard + 40 + kGuard, 0x11);
    DDR2Read(0, 1, 2, 0, 10, 1, guarded.data() + kGuard);
    Bytes expected(guarded.size(), 0x11);
    std::fill_n(expected.begin() + kGuard, 40, uint8_t{0xEE});
    EXPECT_EQ(guarded, expected);
}

TEST_F(Ddr2Read, ReadsNothingOfAnEmptyPicture) {
    uint8_t out = 0x11;
    DDR2Read(0, 1, 2, 0, 0, 5, &out);
    DDR2Read(0, 1, 2, 0, 5, 0, &out);
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_EQ(out, 0x11);
}

TEST_F(Ddr2Read, ReadsNothingWithoutMemory) {
    uint8_t out = 0x11;
    const HeapLimit limit(1 << 20);
    EXPECT_EQ(test::log_of([&] { DDR2Read(0, 1, 2, 0, 65535, 65535, &out); }),
              "|ap_msg: read picture from DDR2: no memory for 17179607040 bytes\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

class PictureRead : public Ddr2Read {
protected:
    void SetUp() override {
        Ddr2Read::SetUp();
        g_system_calls.clear();
        g_at_system_call = nullptr;
        descriptors = test::open_descriptors();
    }
    void TearDown() override {
        EXPECT_EQ(test::open_descriptors(), descriptors) << "a file stayed open";
    }

    // A request for slot 0x85, model 0x1234, address 0x01020304, with exactly its data behind it.
    static Bytes request_for(uint32_t hor, uint32_t ver, const std::string &name) {
        Bytes request = {0x11, 0xFE, 0xDD, 0x85, 0x34, 0x12, 7, 0, 4, 3, 2, 1};
        put(request, static_cast<uint32_t>(8 + name.size()), 2);
        put(request, hor, 4);
        put(request, ver, 4);
        request.insert(request.end(), name.begin(), name.end());
        return request;
    }
    std::string run(uint32_t hor, uint32_t ver, const std::string &name, int expected_result) {
        return run(request_for(hor, ver, name), expected_result);
    }
    std::string run(const Bytes &request, int expected_result) {
        uint8_t head[40] = {};
        const auto exact = std::make_unique<uint8_t[]>(request.size());
        std::copy(request.begin(), request.end(), exact.get());
        const std::string log =
            test::log_of([&] { EXPECT_EQ(read_file_handle(head, exact.get()), expected_result); });
        return microseconds_hidden(log);
    }
    static std::string microseconds_hidden(const std::string &log) {
        std::string text = test::without_times(log); // leaves " sec,123 usec"
        const size_t begin = text.find(" sec,");
        const size_t end = text.find(" usec");
        if (begin == std::string::npos || end == std::string::npos) {
            return text;
        }
        const std::string digits = text.substr(begin + 5, end - begin - 5);
        EXPECT_FALSE(digits.empty());
        EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << digits;
        EXPECT_LT(digits.size(), 7U) << digits;
        return text.substr(0, begin + 5) + "#" + text.substr(end);
    }

    test::TempDirectory directory;
    int descriptors = 0;
};

std::string begun(const std::string &name) {
    return "|\n0 ddr to filename:" + name + "\n";
}
const char *const kRead = "|\ntotal time:# sec,# usec|\nwait for bmp file generatiiiiing....";
const char *const kNotOpened = "|\nfile open failed\n";

Bytes bmp_header(uint32_t hor, uint32_t ver, uint32_t image) {
    Bytes header = {'B', 'M'};
    put(header, image + 54, 4);
    put(header, 0, 4);
    put(header, 54, 4);
    put(header, 40, 4);
    put(header, hor, 4);
    put(header, ver, 4);
    put(header, 1, 2);
    put(header, 32, 2);
    put(header, 0, 4);
    put(header, image, 4);
    header.resize(54);
    return header;
}

TEST_F(PictureRead, WritesThePixelsAsTheyCameAndABmpUpsideDown) {
    Bytes memory(size_t{3} * 64);
    for (size_t i = 0; i < memory.size(); i++) {
        memory[i] = static_cast<uint8_t>(i);
    }
    play_memory(memory);
    const std::string name = directory.path("picture");
    EXPECT_EQ(run(2, 3, name + '\0', 0), begun(name) + kRead);
    std::vector<CardCall> expected;
    add_block(expected, kFirst, 0, 0x85, 0x34, 0x01020304, 3, 192);
    EXPECT_EQ(card_calls(), expected);
    EXPECT_EQ(test::read_file(name), (Bytes{0,   1,   2,   3,   4,   5,   6,   7,  //
                                            64,  65,  66,  67,  68,  69,  70,  71, //
                                            128, 129, 130, 131, 132, 133, 134, 135}));
    const Bytes bmp = {
        'B', 'M', 78, 0,  0,  0,  0,  0,  0,   0,   54,  0,   0,   0, // file header
        40,  0,   0,  0,  2,  0,  0,  0,  3,   0,   0,   0,   1,   0,   32,  0,
        0,   0,   0,  0,  24, 0,  0,  0,  0,   0,   0,   0,   0,   0,   0,   0,
        0,   0,   0,  0,  0,  0,  0,  0,  131, 130, 129, 128, 135, 134, 133, 132, // the third row
        67,  66,  65, 64, 71, 70, 69, 68,                                         //
        3,   2,   1,  0,  7,  6,  5,  4};
    EXPECT_EQ(test::read_file(name + ".bmp"), bmp);
}

TEST_F(PictureRead, TellsTheTimeInSecondsAndMicroseconds) {
    card_answers_reads([](const CardCall &call) {
        std::this_thread::sleep_for(is_data_read(call) ? 1s : 0s);
        return ReadAnswer{-1, {}};
    });
    uint8_t head[40] = {};
    const std::string name = directory.path("picture");
    Bytes request = request_for(1, 1, name);
    const std::string log =
        test::log_of([&] { EXPECT_EQ(read_file_handle(head, request.data()), 0); });
    unsigned seconds = 0;
    unsigned microseconds = 0;
    const size_t at = log.find("total time:");
    ASSERT_NE(at, std::string::npos) << log;
    ASSERT_EQ(sscanf(log.c_str() + at, "total time:%u sec,%u usec", &seconds, &microseconds), 2);
    EXPECT_GE(seconds, 1U);
    EXPECT_LT(microseconds, 1000000U);
}

TEST_F(PictureRead, RunsSyncOnceWhenThePixelsAreThere) {
    const std::string name = directory.path("picture");
    (void)run(1, 1, name, 0);
    ASSERT_EQ(g_system_calls.size(), 1U);
    EXPECT_EQ(g_system_calls[0].command, "sync");
    EXPECT_EQ(g_system_calls[0].card_calls, 4U);
}

// It waits for older files; those of this picture are written meanwhile.
TEST_F(PictureRead, RunsSyncBetweenReadingAndWriting) {
    const std::string name = directory.path("picture");
    std::uintmax_t sizes[] = {1, 1};
    g_at_system_call = [&] {
        sizes[0] = std::filesystem::file_size(name);
        sizes[1] = std::filesystem::file_size(name + ".bmp");
        printf("<sync>");
    };
    const std::string log = run(600, 10, name, 0); // more than a stream keeps back
    EXPECT_NE(log.find(" usec<sync>|\nwait for bmp file"), std::string::npos) << log;
    EXPECT_EQ(sizes[0], 0U);
    EXPECT_EQ(sizes[1], 54U); // its header
}

TEST_F(PictureRead, KeepsItsFilesFromTheShell) {
    int before = 0;
    (void)test::output_of([&] { before = inheritable_descriptors(); }); // output is a file's there
    (void)run(1, 1, directory.path("picture"), 0);
    ASSERT_EQ(g_system_calls.size(), 1U);
    EXPECT_EQ(g_system_calls[0].inherited, before);
}

TEST_F(PictureRead, CreatesItsFilesAsTheUmaskSays) {
    const mode_t mask = umask(002);
    const std::string name = directory.path("picture");
    (void)run(1, 1, name, 0);
    (void)umask(mask);
    for (const std::string &file : {name, name + ".bmp"}) {
        struct stat found {};
        ASSERT_EQ(stat(file.c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 07777, 0664U) << file;
    }
}

TEST_F(PictureRead, ReadsLinesOf10PixelsWithAStrideOf64Bytes) {
    const Bytes memory = test::pattern(1920);
    play_memory(memory);
    const std::string name = directory.path("picture");
    (void)run(10, 30, name, 0);
    std::vector<CardCall> expected;
    add_block(expected, kFirst, 0, 0x85, 0x34, 0x01020304, 22, 1400);
    add_block(expected, kFirst, 0, 0x85, 0x34, 0x010203B4, 9, 520);
    EXPECT_EQ(card_calls(), expected);
    Bytes plain;
    Bytes bmp = bmp_header(10, 30, 1200);
    for (size_t line = 0; line < 30; line++) {
        for (size_t i = 0; i < 40; i++) {
            plain.push_back(memory[line * 64 + i]);
            bmp.push_back(memory[(29 - line) * 64 + i / 4 * 4 + 3 - i % 4]);
        }
    }
    EXPECT_EQ(test::read_file(name), plain);
    EXPECT_EQ(test::read_file(name + ".bmp"), bmp);
}

TEST_F(PictureRead, ReplacesOlderFilesAsAWhole) {
    const std::string name = test::write_file(directory.path("picture"), test::pattern(5000));
    test::write_file(name + ".bmp", test::pattern(5000));
    (void)run(1, 1, name, 0);
    EXPECT_EQ(test::read_file(name), Bytes(4, 0));
    EXPECT_EQ(test::read_file(name + ".bmp").size(), 58U);
}

TEST_F(PictureRead, WritesABlackPictureWhenTheCardIsSilent) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{-1, Bytes(1400, 0xEE)}; });
    const std::string name = directory.path("picture");
    EXPECT_EQ(run(20, 20, name, 0), begun(name) + kRead);
    EXPECT_EQ(test::read_file(name), Bytes(1600, 0));
    Bytes bmp = bmp_header(20, 20, 1600);
    bmp.resize(1654);
    EXPECT_EQ(test::read_file(name + ".bmp"), bmp);
}

TEST_F(PictureRead, WritesTheHeaderOfAnEmptyPicture) {
    const std::string name = directory.path("picture");
    EXPECT_EQ(run(0, 5, name, 0), begun(name) + kRead);
    EXPECT_EQ(test::read_file(name), Bytes());
    EXPECT_EQ(test::read_file(name + ".bmp"), bmp_header(0, 5, 0));
    EXPECT_EQ(card_calls().size(), 0U);
}

// Lines without pixels must not keep the file thread busy: other requests wait for it.
TEST_F(PictureRead, IsQuickWithManyEmptyLines) {
    const std::string name = directory.path("picture");
    EXPECT_EXIT(
        {
            alarm(10);
            (void)run(0, 0xFFFFFFFF, name, 0);
            _exit(HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(PictureRead, ReadsThePartOfAWidePictureThatTheMemoryIsToldOf) {
    play_memory(test::pattern(64));
    const std::string name = directory.path("picture");
    (void)run(65537, 1, name, 0);
    std::vector<CardCall> expected;
    add_block(expected, kFirst, 0, 0x85, 0x34, 0x01020304, 1, 64);
    EXPECT_EQ(card_calls(), expected);
    Bytes plain(size_t{65537} * 4, 0);
    const Bytes pixel = test::pattern(4);
    std::copy(pixel.begin(), pixel.end(), plain.begin());
    EXPECT_EQ(test::read_file(name), plain);
    Bytes bmp = bmp_header(65537, 1, 65537 * 4);
    bmp.insert(bmp.end(), pixel.rbegin(), pixel.rend());
    bmp.resize(54 + plain.size());
    EXPECT_EQ(test::read_file(name + ".bmp"), bmp);
}

TEST_F(PictureRead, TakesABmpNameOf100CharactersAndNone101) {
    const std::string longest = directory.long_path("p", 96);
    ASSERT_EQ(longest.size(), 96U);
    EXPECT_EQ(run(1, 1, longest, 0), begun(longest) + kRead);
    EXPECT_TRUE(test::exists(directory.path("p.bmp")));

    card_reset();
    for (const size_t length : {97U, 255U}) {
        const std::string too_long = directory.long_path("q", length);
        EXPECT_EQ(run(1, 1, too_long + '\0', -1), begun(too_long) + "|ap_msg: file name '" +
                                                      too_long +
                                                      ".bmp': longer than 100 characters\n");
    }
    EXPECT_FALSE(test::exists(directory.path("q")));
    EXPECT_FALSE(test::exists(directory.path("q.bmp")));
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureRead, RefusesANameOf256Characters) {
    const std::string name = directory.long_path("p", 256);
    EXPECT_EQ(run(1, 1, name, -1),
              "|ap_msg: file name '" + name + "': longer than 255 characters\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureRead, RefusesARequestWithoutAPictureSize) {
    for (uint8_t size = 0; size < 8; size++) {
        Bytes request = {0x11, 0xFE, 0xDD, 0, 0, 0, 0, 0, 0, 0, 0, 0, size, 0};
        request.resize(request.size() + size, 'x');
        EXPECT_EQ(run(request, -1), "|ap_msg: picture request: " + std::to_string(size) +
                                        " bytes of data, 8 are needed for the size\n");
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureRead, ReadsNothingWhenTheBmpCannotBeCreated) {
    const std::string name = directory.path("picture");
    ASSERT_EQ(mkdir((name + ".bmp").c_str(), 0700), 0);
    EXPECT_EQ(run(1, 1, name, -1), begun(name) + kNotOpened);
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_EQ(g_system_calls.size(), 0U);
    EXPECT_EQ(run(1, 1, directory.path("none/picture"), -1),
              begun(directory.path("none/picture")) + kNotOpened);
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureRead, ReadsNothingWhenThePlainFileCannotBeCreated) {
    const std::string name = directory.path("picture");
    ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
    EXPECT_EQ(run(1, 1, name, -1), begun(name) + kNotOpened);
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_EQ(g_system_calls.size(), 0U);
}

// The BMP's header goes out before the plain file is opened.
TEST_F(PictureRead, LeavesTheHeaderOfABmpWhosePlainFileCannotBeCreated) {
    const std::string name = directory.path("picture");
    ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
    (void)run(3, 2, name, -1);
    EXPECT_EQ(test::read_file(name + ".bmp"), bmp_header(3, 2, 24));
}

TEST_F(PictureRead, DoesNotWaitForAPipe) {
    const std::string name = directory.path("picture");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    const std::string log = run(1, 1, name, -1);
    EXPECT_TRUE(log.starts_with(begun(name))) << log;
    EXPECT_TRUE(log.ends_with(kNotOpened)) << log;
    ASSERT_EQ(unlink((name + ".bmp").c_str()), 0);
    ASSERT_EQ(unlink(name.c_str()), 0);
    ASSERT_EQ(mkfifo((name + ".bmp").c_str(), 0600), 0);
    EXPECT_TRUE(run(1, 1, name, -1).ends_with(kNotOpened));
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureRead, ReadsNothingWithoutMemory) {
    const std::string name = directory.path("picture");
    const HeapLimit limit(40000);
    EXPECT_EQ(run(100, 100, name, -1),
              begun(name) + "|ap_msg: read picture: no memory for 100 x 100 pixels\n");
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_FALSE(test::exists(name));
}

// The lines in memory are longer than those of the file.
TEST_F(PictureRead, LivesOnWhenOnlyTheReadHasNoMemory) {
    const std::string name = directory.path("picture");
    const HeapLimit limit(64000);
    EXPECT_EQ(run(1, 1000, name, 0),
              begun(name) + "|ap_msg: read picture from DDR2: no memory for 64000 bytes\n" + kRead);
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_EQ(test::read_file(name), Bytes(4000, 0));
}

TEST_F(PictureRead, RefusesAPictureWhoseBmpWouldPass4GiB) {
    const std::string name = directory.path("picture");
    const HeapLimit limit(1 << 20);
    struct Row {
        uint32_t hor;
        uint32_t ver;
        const char *text;
    };
    // The first is one pixel too many; the others' products wrap.
    for (const Row &row : {Row{1073741811, 1, "1073741811 x 1"}, Row{32768, 32768, "32768 x 32768"},
                           Row{65536, 65536, "65536 x 65536"},
                           Row{0xFFFFFFFF, 0xFFFFFFFF, "4294967295 x 4294967295"}}) {
        EXPECT_EQ(run(row.hor, row.ver, name, -1),
                  begun(name) + "|ap_msg: read picture: " + row.text +
                      " pixels are more than a BMP file can hold\n");
    }
    EXPECT_EQ(run(1073741810, 1, name, -1), // fits the size fields
              begun(name) + "|ap_msg: read picture: no memory for 1073741810 x 1 pixels\n");
    EXPECT_EQ(card_calls().size(), 0U);
    EXPECT_FALSE(test::exists(name));
    EXPECT_FALSE(test::exists(name + ".bmp"));
}

// A small picture shows the full disk when its file is closed, a large one while it is written.
TEST_F(PictureRead, ReportsAFullDisk) {
    for (const uint32_t size : {1U, 100U}) {
        const std::string name = directory.path("plain" + std::to_string(size));
        ASSERT_EQ(symlink("/dev/full", name.c_str()), 0);
        EXPECT_EQ(run(size, size, name, -1),
                  begun(name) + kRead + "|ap_msg: write '" + name + "': No space left on device\n");
        EXPECT_EQ(test::read_file(name + ".bmp").size(), 54 + size * size * 4);

        const std::string other = directory.path("bmp" + std::to_string(size));
        ASSERT_EQ(symlink("/dev/full", (other + ".bmp").c_str()), 0);
        EXPECT_EQ(run(size, size, other, -1), begun(other) + kRead + "|ap_msg: write '" + other +
                                                  ".bmp': No space left on device\n");
        EXPECT_EQ(test::read_file(other), Bytes(size_t{size} * size * 4, 0));
    }
}

} // namespace
