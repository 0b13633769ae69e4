#include "ap_msg/ap_msg.h"
#include "helpers/log_lines.h"
#include "helpers/temp_files.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"
#include "stand_ins/short_read.h"

#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/stat.h>

namespace {

constexpr uint32_t kPort = 0x40000;
constexpr uint32_t kControl = 0x7040;

class PictureWrite : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        descriptors = test::open_descriptors();
    }
    void TearDown() override {
        EXPECT_EQ(test::open_descriptors(), descriptors) << "a file stayed open";
    }

    // Interface 2, slot 3, model 0x1234.
    std::string write(const std::string &name, int hor, int ver, int expected_result) {
        return test::without_times(test::log_of([&] {
            EXPECT_EQ(write_file_handler(2, 3, 0x1234, 0xABCD, hor, ver, name.c_str()),
                      expected_result);
        }));
    }

    test::TempDirectory directory;
    int descriptors = 0;
};

std::vector<CardCall> port_calls(int index, uint16_t model, uint8_t slot, const Bytes &record,
                                 const Bytes &pixels) {
    std::vector<CardCall> calls = {acked_write(index, model, slot, kControl, record, 3),
                                   acked_write(index, model, slot, kControl, {1}, 3)};
    for (size_t at = 0; at < pixels.size(); at += 1400) {
        const auto begin = pixels.begin() + static_cast<ptrdiff_t>(at);
        const auto end = pixels.size() - at > 1400 ? begin + 1400 : pixels.end();
        calls.push_back(plain_write(index, model, slot, kPort, Bytes(begin, end)));
    }
    calls.push_back(acked_write(index, model, slot, kControl, {0}, 3));
    return calls;
}

std::string begun(const std::string &name, int hor, int ver, size_t size) {
    return "|found file " + name + "\n| hor=" + std::to_string(hor) +
           ", ver=" + std::to_string(ver) + ", filesize=" + std::to_string(size) + "\n";
}

std::string written(int hor, int ver) {
    return "|DDR2Write begin: ver=" + std::to_string(ver) + " hor=" + std::to_string(hor) +
           " addr=0xabcd\n";
}

std::string size_error(int hor, int ver, size_t size) {
    return "|\nfile size error, hor=" + std::to_string(hor) + ", ver=" + std::to_string(ver) +
           ", filesize=" + std::to_string(size) + "\n";
}

const char *const kTimed = "|total time:# sec\n";

TEST_F(PictureWrite, SendsABmpsPixelsBetweenStartAndStop) {
    const Bytes pixels = test::pattern(size_t{40} * 30 * 3); // 2 blocks of 1400 and 800 bytes
    const std::string name = test::write_file(directory.path("a.bmp"), test::bmp_file(54, pixels));
    EXPECT_EQ(write(name, 40, 30, 0),
              begun(name, 40, 30, 3654) + "|offset = 54\n" + written(40, 30) + kTimed);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 40, 0, 30, 0, 0}, pixels));
}

TEST_F(PictureWrite, SendsNoEmptyBlockBehindAFullOne) {
    const Bytes pixels = test::pattern(4200); // 3 blocks of 1400: 1400 pixels
    const std::string name = test::write_file(directory.path("a.txt"), pixels);
    EXPECT_EQ(write(name, 700, 2, 0), begun(name, 700, 2, 4200) + written(700, 2) + kTimed);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 0xBC, 0x02, 2, 0, 0}, pixels));
}

TEST_F(PictureWrite, SendsOnePixelInABlockOfThreeBytes) {
    const std::string name =
        test::write_file(directory.path("a.bmp"), test::bmp_file(54, {7, 8, 9}));
    (void)write(name, 1, 1, 0);
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{
                                acked_write(2, 0x1234, 3, 0x7040, {0, 1, 0, 1, 0, 0}, 3),
                                acked_write(2, 0x1234, 3, 0x7040, {1}, 3),
                                plain_write(2, 0x1234, 3, 0x40000, {7, 8, 9}),
                                acked_write(2, 0x1234, 3, 0x7040, {0}, 3),
                            }));
}

TEST_F(PictureWrite, SendsNoBlockOfAnEmptyPicture) {
    const std::string name = test::write_file(directory.path("a.txt"), {});
    EXPECT_EQ(write(name, 0, 0, 0), begun(name, 0, 0, 0) + written(0, 0) + kTimed);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 0, 0, 0, 0, 0}, {}));
}

TEST_F(PictureWrite, PutsTheSizeIntoTheRecordInLittleEndian) {
    const Bytes pixels = test::pattern(size_t{0x0201} * 0x0403 * 3);
    const std::string name = test::write_file(directory.path("a.txt"), pixels);
    (void)write(name, 0x0201, 0x0403, 0);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 0x01, 0x02, 0x03, 0x04, 0}, pixels));
}

TEST_F(PictureWrite, SendsOnlyWhatThePictureNeeds) {
    const Bytes pixels = test::pattern(100);
    const std::string name = test::write_file(directory.path("a.bmp"), test::bmp_file(60, pixels));
    EXPECT_EQ(write(name, 3, 2, 0),
              begun(name, 3, 2, 160) + "|offset = 60\n" + written(3, 2) + kTimed);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 3, 0, 2, 0, 0},
                                       Bytes(pixels.begin(), pixels.begin() + 18)));
}

TEST_F(PictureWrite, SendsOtherFilesFromTheirFirstByteAndThenComplains) {
    for (const char *ending : {"p.BMP", "p.TXT", "raw", "p.bmp2"}) {
        card_reset();
        const Bytes bytes = test::bmp_file(54, test::pattern(6)); // 60 bytes: 20 pixels
        const std::string name = test::write_file(directory.path(ending), bytes);
        EXPECT_EQ(write(name, 5, 4, 0),
                  begun(name, 5, 4, 60) + written(5, 4) + "|file no format\n" + kTimed);
        EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 5, 0, 4, 0, 0}, bytes)) << ending;
    }
}

TEST_F(PictureWrite, WantsEveryByteOfThePicture) {
    for (const char *ending : {"a.bmp", "a.txt", "a.raw"}) {
        const bool is_bmp = std::string_view(ending) == "a.bmp";
        const Bytes pixels = test::pattern(size_t{7} * 5 * 3);
        const Bytes whole = is_bmp ? test::bmp_file(54, pixels) : pixels;
        const std::string name = test::write_file(directory.path(ending), whole);
        card_reset();
        (void)write(name, 7, 5, 0);
        EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 7, 0, 5, 0, 0}, pixels)) << ending;
        card_reset();
        test::write_file(name, Bytes(whole.begin(), whole.end() - 1));
        EXPECT_EQ(write(name, 7, 5, -1), begun(name, 7, 5, whole.size() - 1) +
                                             (is_bmp ? "|offset = 54\n" : "") +
                                             size_error(7, 5, whole.size() - 1));
        EXPECT_EQ(card_calls().size(), 0U) << ending;
    }
}

TEST_F(PictureWrite, RefusesNegativeAndHugeSizes) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(48));
    struct Size {
        int hor;
        int ver;
    };
    // In 32 bits some of these products are small, zero or negative.
    for (const Size &size :
         {Size{-1, 1}, Size{1, -1}, Size{-1, -1}, Size{-4, -4}, Size{-1, 0}, Size{0, -1},
          Size{0x10000, 0x10000}, Size{INT32_MAX, INT32_MAX}, Size{INT32_MIN, INT32_MIN},
          Size{INT32_MIN, 2}, Size{0x40000000, 4}, Size{0x2AAAAAAB, 2}}) {
        EXPECT_EQ(write(name, size.hor, size.ver, -1),
                  begun(name, size.hor, size.ver, 48) + size_error(size.hor, size.ver, 48));
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, RefusesAnOffsetBehindTheEnd) {
    Bytes bytes = test::bmp_file(54, {1, 2, 3});
    struct Row {
        uint32_t offset;
        const char *text;
    };
    for (const Row &row :
         {Row{55, "55"}, Row{58, "58"}, Row{0x80000000, "-2147483648"}, Row{0xFFFFFFFF, "-1"}}) {
        for (size_t i = 0; i < 4; i++) {
            bytes[10 + i] = static_cast<uint8_t>(row.offset >> (8 * i));
        }
        const std::string name = test::write_file(directory.path("a.bmp"), bytes);
        EXPECT_EQ(write(name, 1, 1, -1),
                  begun(name, 1, 1, 57) + "|offset = " + row.text + "\n" + size_error(1, 1, 57));
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, RefusesABmpWithoutRoomForTheOffset) {
    const std::string name = test::write_file(directory.path("a.bmp"), Bytes(13, 0));
    EXPECT_EQ(write(name, 0, 0, -1), begun(name, 0, 0, 13) + size_error(0, 0, 13));
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, SendsThePartOfAWidePictureThatTheCardCanBeTold) {
    const Bytes pixels = test::pattern(size_t{65537} * 3);
    const std::string name = test::write_file(directory.path("a.txt"), pixels);
    EXPECT_EQ(write(name, 65537, 1, 0),
              begun(name, 65537, 1, pixels.size()) + written(1, 1) + kTimed);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 1, 0, 1, 0, 0},
                                       Bytes(pixels.begin(), pixels.begin() + 3)));
}

TEST_F(PictureWrite, GoesOnWhateverTheCardAnswers) {
    card_answers_acked_writes(-1, 255);
    card_answers_plain_writes(-1);
    const Bytes pixels = test::pattern(3000);
    const std::string name = test::write_file(directory.path("a.txt"), pixels);
    (void)write(name, 100, 10, 0);
    EXPECT_EQ(card_calls(), port_calls(2, 0x1234, 3, {0, 100, 0, 10, 0, 0}, pixels));
}

TEST_F(PictureWrite, ReportsAMissingFile) {
    const std::string name = directory.path("none.bmp");
    EXPECT_EQ(write(name, 1, 1, -1), "|not found file " + name + "\n");
}

TEST_F(PictureWrite, ReportsAFileThatCannotBeOpened) {
    const std::string pipe = directory.path("pipe.bmp");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string dir = directory.path("dir.bmp");
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    for (const std::string &name : {pipe, dir}) {
        const std::string log = write(name, 1, 1, -2);
        EXPECT_TRUE(log.starts_with("|found file " + name + "\n")) << log;
        EXPECT_TRUE(log.ends_with("|open file " + name + " failed\n")) << log;
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, ReportsAFileThatDoesNotFitIntoMemory) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(10000));
    const HeapLimit limit(10000);
    EXPECT_EQ(write(name, 1, 1, -3), begun(name, 1, 1, 10000) + "|\nmalloc p failed\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, ReportsAFileThatShrinksWhileItIsRead) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(100));
    const ShortRead shorter;
    EXPECT_EQ(write(name, 1, 1, -4), begun(name, 1, 1, 100) + "|\nfread failed\n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, TakesTheLowBitsOfSlotAndModel) {
    const std::string name = test::write_file(directory.path("a.txt"), {7, 8, 9});
    EXPECT_EQ(write_file_handle_test(1, 0x4285, 0x7FFF8001, 0, 1, 1, name.c_str()), 0);
    EXPECT_EQ(write_file_handle_test(1, -1, -1, 0, 1, 1, name.c_str()), 0);
    std::vector<CardCall> expected = port_calls(1, 0x8001, 0x85, {0, 1, 0, 1, 0, 0}, {7, 8, 9});
    const auto second = port_calls(1, 0xFFFF, 0xFF, {0, 1, 0, 1, 0, 0}, {7, 8, 9});
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(card_calls(), expected);
}

// A request as the file thread gives it: exactly the request head and its data, nothing behind.
struct Request {
    Bytes bytes;

    [[nodiscard]] int run() const {
        uint8_t head[40] = {};
        const auto exact = std::make_unique<uint8_t[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), exact.get());
        return write_file_handle(head, exact.get());
    }
};

Request request_with(const Bytes &data) {
    Bytes head = {0x11, 0xFE, 0xEE, 0x85, 0x34, 0x12, 7, 0, 0xCD, 0xAB, 0, 0};
    head.push_back(static_cast<uint8_t>(data.size()));
    head.push_back(static_cast<uint8_t>(data.size() >> 8));
    head.insert(head.end(), data.begin(), data.end());
    return {head};
}

Bytes sized_name(uint32_t hor, uint32_t ver, const std::string &name) {
    Bytes data;
    for (const uint32_t value : {hor, ver}) {
        for (unsigned i = 0; i < 4; i++) {
            data.push_back(static_cast<uint8_t>(value >> (8 * i)));
        }
    }
    data.insert(data.end(), name.begin(), name.end());
    return data;
}

TEST_F(PictureWrite, CarriesOutARequest) {
    const std::string name =
        test::write_file(directory.path("a.bmp"), test::bmp_file(54, {1, 2, 3, 4, 5, 6}));
    const Request request = request_with(sized_name(2, 1, name + '\0'));
    const std::string log = test::without_times(test::log_of([&] { EXPECT_EQ(request.run(), 0); }));
    EXPECT_EQ(log, begun(name, 2, 1, 60) + "|offset = 54\n" + written(2, 1) + kTimed);
    EXPECT_EQ(card_calls(), port_calls(0, 0x1234, 0x85, {0, 2, 0, 1, 0, 0}, {1, 2, 3, 4, 5, 6}));
}

TEST_F(PictureWrite, EndsANameAtTheEndOfTheData) {
    const std::string name = test::write_file(directory.path("a.txt"), {1, 2, 3});
    EXPECT_EQ(request_with(sized_name(1, 1, name)).run(), 0);
    EXPECT_EQ(request_with(sized_name(1, 1, name + '\0' + "tail")).run(), 0);
    EXPECT_EQ(card_calls().size(), 8U);
}

TEST_F(PictureWrite, TakesANameOf255CharactersAndNone256) {
    test::write_file(directory.path("a.txt"), {1, 2, 3});
    const std::string longest = directory.long_path("a.txt", 255);
    ASSERT_EQ(longest.size(), 255U);
    EXPECT_EQ(request_with(sized_name(1, 1, longest + '\0')).run(), 0);
    EXPECT_EQ(request_with(sized_name(1, 1, longest)).run(), 0);
    EXPECT_EQ(card_calls().size(), 8U);

    const std::string too_long = directory.long_path("a.txt", 256);
    for (const std::string &name : {too_long, too_long + '\0', std::string(1002, 'x')}) {
        card_reset();
        const std::string text(name.c_str());
        EXPECT_EQ(test::log_of([&] { EXPECT_EQ(request_with(sized_name(1, 1, name)).run(), -1); }),
                  "|ap_msg: file name '" + text + "': longer than 255 characters\n");
        EXPECT_EQ(card_calls().size(), 0U);
    }
}

TEST_F(PictureWrite, RefusesARequestWithoutAPictureSize) {
    for (size_t size = 0; size < 8; size++) {
        const Request request = request_with(Bytes(size, 1));
        EXPECT_EQ(test::log_of([&] { EXPECT_EQ(request.run(), -1); }),
                  "|ap_msg: picture request: " + std::to_string(size) +
                      " bytes of data, 8 are needed for the size\n");
    }
    // With the size alone the name is empty.
    EXPECT_EQ(test::log_of([&] { EXPECT_EQ(request_with(sized_name(1, 1, "")).run(), -1); }),
              "|not found file \n");
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(PictureWrite, TakesTheSizesOfARequestAsSigned) {
    const std::string name = test::write_file(directory.path("a.txt"), test::pattern(48));
    EXPECT_EQ(test::log_of([&] {
                  EXPECT_EQ(request_with(sized_name(0xFFFFFFFF, 0x80000000, name)).run(), -1);
              }),
              begun(name, -1, INT32_MIN, 48) + size_error(-1, INT32_MIN, 48));
}

TEST_F(PictureWrite, SurvivesRandomRequests) {
    std::mt19937 random(20260101); // the same ones in every run
    for (int i = 0; i < 2000; i++) {
        Bytes data(random() % 1011);
        for (uint8_t &byte : data) {
            byte = static_cast<uint8_t>(random());
        }
        EXPECT_EQ(request_with(data).run(), -1);
    }
    EXPECT_EQ(card_calls().size(), 0U);
}

} // namespace
