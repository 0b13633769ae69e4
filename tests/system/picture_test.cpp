// Pictures through the real programs: into a card's memory and back, pixel for pixel, and through
// the picture port.
#include "tests/system/bed/service.h"

#include <filesystem>
#include <thread>

namespace bed {

namespace {

struct Size {
    uint32_t hor;
    uint32_t ver;
};

Bytes header(Size size, uint16_t bits, uint32_t image) {
    Bytes bytes = {'B', 'M'};
    const auto put = [&bytes](size_t width, uint32_t value) {
        for (size_t i = 0; i < width; i++) {
            bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
        }
    };
    put(4, image + 54);
    put(4, 0);
    put(4, 54);
    put(4, 40);
    put(4, size.hor);
    put(4, size.ver);
    put(2, 1);
    put(2, bits);
    put(4, 0);
    put(4, image);
    bytes.resize(54); // resolution and palette: 0
    return bytes;
}

// Every pixel differs from its neighbours.
Bytes pixels_of(Size size) {
    return pattern(size_t{size.hor} * size.ver * 3);
}

Bytes bmp_file(Size size) {
    Bytes file = header(size, 24, size.hor * size.ver * 3);
    const Bytes pixels = pixels_of(size);
    file.insert(file.end(), pixels.begin(), pixels.end());
    return file;
}

// The same picture as the service writes it: 32 bits a pixel, the fourth byte 0x55.
Bytes expected_bmp(Size size) {
    Bytes file = header(size, 32, size.hor * size.ver * 4);
    const Bytes pixels = pixels_of(size);
    file.resize(54 + pixels.size() / 3 * 4, 0x55);
    for (size_t i = 0; i < pixels.size(); i++) {
        file[54 + i / 3 * 4 + i % 3] = pixels[i];
    }
    return file;
}

// As in the memory: 0x55, red, green, blue, the top row first.
Bytes expected_plain(Size size) {
    const Bytes pixels = pixels_of(size);
    Bytes plain(pixels.size() / 3 * 4, 0x55);
    for (size_t i = 0; i < pixels.size(); i++) {
        const size_t pixel = i / 3;
        const size_t row = size.ver - 1 - pixel / size.hor;
        plain[(row * size.hor + pixel % size.hor) * 4 + 3 - i % 3] = pixels[i];
    }
    return plain;
}

constexpr char kBlockLost[] = "timeout or ack error"; // the service's log line of a read

class Picture : public SystemTest {
protected:
    // The service does not tell when a file is complete.
    static void await_size(const std::string &name, size_t wanted) {
        std::error_code not_there_yet;
        for (int i = 0; i < 6000; i++) {
            if (std::filesystem::file_size(name, not_there_yet) == wanted) {
                return;
            }
            std::this_thread::sleep_for(10ms);
        }
        ADD_FAILURE() << name << " does not get its " << wanted << " bytes";
    }

    /**
     * The name of the files to which the service read the picture. The largest takes seconds; when
     * the machine takes the card's processor away meanwhile for as long as the service waits, it
     * says so and leaves a block out, and the picture is read once more.
     */
    std::string get_picture(const Service &service, Size size) const {
        std::string out;
        for (int attempt = 1; attempt <= 3; attempt++) {
            const int lost_before = count(service.log(), kBlockLost);
            out = directory.path("out" + std::to_string(attempt));
            const Finished get =
                run({.argv = {"ruk-ipc", "get-picture", "0", std::to_string(size.hor),
                              std::to_string(size.ver), out},
                     .program = RUK_IPC_PROGRAM,
                     .in_child = rukd_command(sockets).in_child});
            EXPECT_EQ(get.status, 0) << get.out << get.err;
            await_size(out, expected_plain(size).size());
            await_size(out + ".bmp", expected_bmp(size).size());
            if (count(service.log(), kBlockLost) == lost_before) {
                break;
            }
        }
        return out;
    }

    Directory directory;
    std::string sockets = directory.path("m");
};

class RoundTrip : public Picture, public testing::WithParamInterface<Size> {};

TEST_P(RoundTrip, ComesBackFromTheCardsMemory) {
    const Size size = GetParam();
    const Words size_words = {std::to_string(size.hor), std::to_string(size.ver)};
    Card card({"card1", "card2"});
    Service service(sockets);
    const std::string name = directory.file("in.bmp", bmp_file(size));
    const Finished load = run({.argv = {"load_picture", size_words[0], size_words[1], name},
                               .program = LOAD_PICTURE_PROGRAM});
    ASSERT_EQ(load.status, 0) << load.out << load.err;

    const std::string out = get_picture(service, size);
    EXPECT_EQ(content_of(out + ".bmp"), expected_bmp(size));
    EXPECT_EQ(content_of(out), expected_plain(size));
    service.stop();
    const Counters counters = card.stop();
    EXPECT_EQ(counters["ddr2_short_chunks"], 0);
    EXPECT_EQ(counters["ddr2_fifo_short_reads"], 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RoundTrip,
                         testing::Values(Size{10, 3}, Size{1, 1}, Size{641, 33}, Size{1920, 1080}),
                         [](const auto &test) {
                             return std::to_string(test.param.hor) + "x" +
                                    std::to_string(test.param.ver);
                         });

// The frames of one block: command, start, status, data.
TEST_F(Picture, IsReadBackByTheseFrames) {
    Card card;
    Service service(sockets);
    Capture capture;
    const Client client(sockets, 0x50);
    const std::string name = directory.path("out");
    Bytes data = {10, 0, 0, 0, 1, 0, 0, 0};
    data.insert(data.end(), name.begin(), name.end());
    ASSERT_TRUE(client.send({.code = 0xDD,
                             .slot = 3,
                             .model = 0x0102,
                             .addr = 0x01020304,
                             .len = static_cast<uint16_t>(data.size()),
                             .data = data}));
    ASSERT_TRUE(capture.await_sent(4));
    const std::vector<Bytes> &sent = capture.sent();
    ASSERT_EQ(sent.size(), 4U);
    const auto to = [](uint8_t code, uint32_t addr, uint16_t len, uint16_t seq = 0) {
        return Request{
            .model = 3, .slot = 0x02, .seq = seq, .code = code, .addr = addr, .len = len};
    };
    EXPECT_EQ(hex(sent[0]), hex(request_frame(to(kWrite, 0xA0008, 7), {4, 3, 2, 1, 1, 0, 0})));
    EXPECT_EQ(hex(sent[1]), hex(request_frame(to(kWrite, 0xA00FF, 1), {1})));
    EXPECT_EQ(hex(sent[2]), hex(request_frame(to(kRead, 0xA0FFD, 1, 0))));
    EXPECT_EQ(hex(sent[3]), hex(request_frame(to(kRead, 0xB0000, 64, 1))));
    service.stop();
    (void)card.stop();
}

TEST_F(Picture, GoesThroughThePicturePort) {
    const Size size{20, 25}; // 1500 bytes: one full block and a short one
    Card card;
    Capture capture;
    const std::string name = directory.file("in.bmp", bmp_file(size));
    const Finished tool = ruk({"0", "writepic", "102", "3", "1234", "20", "25", name});
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(logged(tool, "DDR2Write begin: ver=25 hor=20 addr=0x1234"), 1);
    ASSERT_TRUE(capture.await_sent(5));
    const std::vector<Bytes> &sent = capture.sent();
    ASSERT_EQ(sent.size(), 5U);
    const auto to = [](uint8_t code, uint32_t addr, uint16_t len, uint16_t seq = 0) {
        return Request{
            .model = 0x0102, .slot = 3, .seq = seq, .code = code, .addr = addr, .len = len};
    };
    const Bytes pixels = pixels_of(size);
    EXPECT_EQ(hex(sent[0]), hex(request_frame(to(kWriteAck, 0x7040, 6), {0, 20, 0, 25, 0, 0})));
    EXPECT_EQ(hex(sent[1]), hex(request_frame(to(kWriteAck, 0x7040, 1, 1), {1})));
    EXPECT_EQ(hex(sent[2]), hex(request_frame(to(kWrite, 0x40000, 1400), part(pixels, 0, 1400))));
    EXPECT_EQ(hex(sent[3]), hex(request_frame(to(kWrite, 0x40000, 100), part(pixels, 1400, 100))));
    EXPECT_EQ(hex(sent[4]), hex(request_frame(to(kWriteAck, 0x7040, 1, 2), {0})));
    const Counters counters = card.stop();
    EXPECT_EQ(counters["port_complete"], 1);
}

// With any other number of words nothing is sent, and a missing file is only logged.
TEST_F(Picture, IsNotSentByWrongCommands) {
    Card card;
    Capture capture;
    for (const Words &words : {Words{"0", "writepic", "1", "2", "3", "1", "1"},
                               Words{"0", "writepic", "1", "2", "3", "1", "1", "f", "g"}}) {
        const Finished tool = ruk(words);
        EXPECT_EQ(tool.status, 0);
        EXPECT_EQ(count(tool.out, " file "), 0);
    }
    const std::string missing = directory.path("missing");
    const Finished tool = ruk({"0", "writepic", "1", "2", "3", "1", "1", missing});
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(logged(tool, "not found file " + missing), 1);
    EXPECT_EQ(count(tool.out, "usage"), 0);
    EXPECT_EQ(capture.sent().size(), 0U);
    (void)card.stop();
}

} // namespace

} // namespace bed
