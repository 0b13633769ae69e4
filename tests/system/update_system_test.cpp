// Firmware through the real programs: byte for byte to the card, and every way to stop on the way.
#include "tests/system/bed/service.h"

#include <filesystem>
#include <regex>

namespace bed {

namespace {

constexpr char kBegin[] = " file is *.bin! we will add 256B Head .\n "
                          "temp file is deal over! begin open file! \r\n "
                          " file open success\xEF\xBC\x81";
constexpr char kEnd[] = "\nfile is close!";
constexpr char kNoAck[] = "err! ack = 0XFF\r\n ";
constexpr size_t kFields = 7;
constexpr size_t kHead = 256;
constexpr size_t kBlock = 1024;
constexpr size_t kLargeFirmware = 4 * 1024 * 1024;
constexpr size_t kLargeImage = kLargeFirmware + kHead;

Bytes le(uint32_t value, size_t width) {
    Bytes bytes;
    for (size_t i = 0; i < width; i++) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return bytes;
}

uint32_t checksum_of(const Bytes &firmware) {
    uint32_t sum = 0x5555;
    for (const uint8_t byte : firmware) {
        sum += byte;
    }
    return sum & 0xFFFF;
}

Bytes image_of(const Bytes &firmware) {
    Bytes image = le(static_cast<uint32_t>(firmware.size()), 4);
    image.resize(130);
    const Bytes checksum = le(checksum_of(firmware), 2);
    image.insert(image.end(), checksum.begin(), checksum.end());
    image.resize(kHead);
    image.insert(image.end(), firmware.begin(), firmware.end());
    return image;
}

// Every frame of a transfer to slot 3 with device type 0102.
std::vector<Bytes> frames_of(const Bytes &image) {
    std::vector<Bytes> frames;
    uint16_t seq = 0;
    const auto add = [&](uint32_t addr, const Bytes &data) {
        frames.push_back(request_frame({.model = 0,
                                        .slot = 3,
                                        .seq = seq++,
                                        .code = kWriteAck,
                                        .addr = addr,
                                        .len = static_cast<uint16_t>(data.size())},
                                       data));
    };
    const Bytes size = le(static_cast<uint32_t>(image.size()), 4);
    add(0x11F00000, size);
    add(0x11F00004, le(0, 4));
    add(0x11F00008, le(1, 4));
    add(0x11F0000C, size);
    add(0x11F00010, {0});
    add(0x18200000, {1, 2});
    add(0x18200002, {0, 0, 3});
    for (size_t at = 0; at < image.size(); at += kBlock) {
        add(0x18000000, part(image, at, std::min(kBlock, image.size() - at)));
    }
    return frames;
}

std::string card_line(const Bytes &firmware) {
    char text[160];
    (void)snprintf(text, sizeof text,
                   "firmware: %zu bytes for slot 3, device type 0x0102, checksum %04X: intact",
                   firmware.size(), checksum_of(firmware));
    return text;
}

// What the update told, without the log lines between.
std::string told(const std::string &output) {
    static const std::regex log_line(R"(\[\d{4}/[^\n]*\n)");
    return std::regex_replace(output, log_line, "");
}

// The last percentage that was shown before some text.
int shown_before(const std::string &output, const std::string &text) {
    const size_t end = output.find(text);
    if (end == std::string::npos || end < 4 || output[end - 1] != '%') {
        ADD_FAILURE() << "no progress before '" << text << "'";
        return -1;
    }
    return std::stoi(output.substr(end - 4, 3).substr(output[end - 4] == '\b' ? 1 : 0));
}

class Update : public SystemTest {
protected:
    Finished update(const std::string &name) {
        return ruk({"0", "update", "102", "3", name});
    }
    Card card_that_saves(const Words &options = {}) {
        std::filesystem::create_directories(directory.path("got"));
        Words words = {"--firmware-dir", directory.path("got")};
        words.insert(words.end(), options.begin(), options.end());
        return Card(words);
    }
    // What the card saved: the number-th one.
    Bytes saved(int number = 1) {
        char name[32];
        (void)snprintf(name, sizeof name, "got/firmware-%03d.bin", number);
        return content_of(directory.path(name));
    }

    Directory directory;
    std::string sockets = directory.path("m");
};

TEST_F(Update, BringsTheFileToTheCard) {
    int number = 0;
    Card card = card_that_saves();
    std::vector<Bytes> sent;
    for (const size_t size : {0U, 1U, 767U, 768U, 769U, 1025U, 100000U}) {
        const Bytes firmware = pattern(size);
        const Finished tool = update(directory.file("fw.bin", firmware));
        EXPECT_EQ(tool.status, 0);
        EXPECT_EQ(count(tool.out, std::string("100%") + kEnd), 1) << tool.out;
        sent.push_back(firmware);
    }
    const Counters counters = card.stop();
    EXPECT_EQ(counters["firmware_intact"], 7);
    EXPECT_EQ(counters["firmware_bad_fields"] + counters["firmware_stray_blocks"] +
                  counters["firmware_repeats"],
              0);
    for (const Bytes &firmware : sent) {
        number += 1;
        EXPECT_EQ(saved(number), firmware) << number;
        EXPECT_EQ(count(counters.json, card_line(firmware)), 1) << counters.json;
    }
}

TEST_F(Update, SendsTheseFramesAndSaysSo) {
    Card card;
    Capture capture;
    const Bytes firmware = pattern(1025);
    const std::string name = directory.file("fw.bin", firmware);
    const Finished tool = update(name);
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(capture.sent(), frames_of(image_of(firmware)));
    EXPECT_EQ(count(tool.out, std::string("\nsrcfile size is 1025 Bytes! \r\n") + kBegin +
                                  "now sended 79%\b\b\b100%" + kEnd + "["),
              1)
        << tool.out;
    EXPECT_EQ(count(tool.out, "]:: update slot:3 type:0x102 file:" + name + " cost: 0."), 1);
    EXPECT_EQ(card.stop()["firmware_blocks"], 2);
}

TEST_F(Update, SendsNothingForOtherCommandLinesAndFiles) {
    Capture capture;
    const std::string firmware = directory.file("fw.bin", {1});
    EXPECT_EQ(ruk({"0", "update", "102", "3", firmware, "more"}).status, 0);
    const Finished missing = update(directory.path("none.bin"));
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(count(missing.out, "\nfirmware date in \"path_firm\" is not exist! \r\n "), 1);
    const Finished encrypted = update(directory.file("fw.dat", {1}));
    EXPECT_EQ(encrypted.status, 0);
    EXPECT_EQ(count(encrypted.out, "\n file is *.dat! we cann't decrypt it. stoped!\n "), 1);
    const Finished other = update(directory.file("fw.hex", {1}));
    EXPECT_EQ(other.status, 0);
    EXPECT_EQ(count(other.out, "\n stop! file is not *.dat or *.bin !\n "), 1);
    EXPECT_TRUE(capture.sent().empty());
}

TEST_F(Update, StopsWithoutACard) {
    Capture capture;
    const Finished tool = update(directory.file("fw.bin", {1}));
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(count(tool.out, "send file_info.total_files_size err!"), 1) << tool.out;
    EXPECT_EQ(capture.sent().size(), 1U);
}

TEST_F(Update, StopsAtWhatTheCardRefuses) {
    const Bytes firmware = pattern(4000);
    const std::string name = directory.file("fw.bin", firmware);
    const std::vector<Bytes> frames = frames_of(image_of(firmware));
    struct Case {
        Words option;
        std::string text;
        size_t frames;
    };
    for (const Case &c :
         {Case{{"--refuse-field", "total_files_size"}, "send file_info.total_files_size err!", 1},
          Case{{"--refuse-field", "card_modelid:7F"}, "send file_info.card_modelid err!", 7},
          Case{{"--refuse-block", "1"},
               "\xEF\xBC\x81"
               "err! ack = 0X01\r\n \nfile is close!",
               8},
          Case{{"--refuse-block", "3:07"}, "48%err! ack = 0X07\r\n \nfile is close!", 10}}) {
        Card card(c.option);
        Capture capture;
        const Finished tool = update(name);
        EXPECT_EQ(tool.status, 0);
        EXPECT_EQ(count(told(tool.out), c.text), 1) << tool.out;
        EXPECT_EQ(
            capture.sent(),
            std::vector<Bytes>(frames.begin(), frames.begin() + static_cast<ptrdiff_t>(c.frames)));
        const Counters counters = card.stop();
        EXPECT_EQ(counters["firmware_transfer_fields"] + counters["firmware_transfer_blocks"],
                  static_cast<int64_t>(c.frames - 1));
    }
}

// --- a lossy link -------------------------------------------------------------------------------

// A loss that strikes behind the fields; --seed makes it strike at the same place each time.
struct Loss {
    const char *name;
    Words option;
    int64_t more; // blocks that the card has and the board does not know of
};

class Lossy : public Update, public testing::WithParamInterface<Loss> {
protected:
    // The card and the one who sent agree on where it ended.
    static void expect_agreement(const std::string &output, const Counters &counters) {
        const int64_t blocks = counters["firmware_transfer_blocks"] - GetParam().more;
        ASSERT_GT(blocks, 0) << counters.json; // not in the fields
        ASSERT_LT(blocks, static_cast<int64_t>(kLargeImage / kBlock));
        EXPECT_EQ(shown_before(told(output), "err! ack"),
                  100 * blocks * static_cast<int64_t>(kBlock) / static_cast<int64_t>(kLargeImage));
        EXPECT_EQ(count(told(output), std::string(kNoAck) + kEnd), 1);
        char stopped[128];
        (void)snprintf(
            stopped, sizeof stopped, "firmware: stopped after %lld of %zu bytes (%lld blocks)",
            static_cast<long long>((blocks + GetParam().more) * static_cast<int64_t>(kBlock)),
            kLargeImage, static_cast<long long>(blocks + GetParam().more));
        EXPECT_EQ(count(counters.json, stopped), 1) << counters.json;
        EXPECT_EQ(counters["firmware_incomplete"], 1);
        EXPECT_EQ(counters["firmware_intact"], 0);
    }
};

TEST_P(Lossy, StopsTheToolAndASecondRunOverACleanLinkSucceeds) {
    const Bytes firmware = pattern(kLargeFirmware);
    const std::string name = directory.file("fw.bin", firmware);
    {
        Card card = card_that_saves(GetParam().option);
        const Finished tool = update(name);
        EXPECT_EQ(tool.status, 0);
        expect_agreement(tool.out, card.stop());
    }
    Card card = card_that_saves();
    const Finished tool = update(name);
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(count(tool.out, std::string("\b\b\b100%") + kEnd), 1);
    EXPECT_EQ(count(card.stop().json, card_line(firmware)), 1);
    EXPECT_EQ(saved(), firmware);
}

TEST_P(Lossy, StopsTheServiceAndASecondRunOverACleanLinkSucceeds) {
    const Bytes firmware = pattern(kLargeFirmware);
    const Words client = {"ruk-ipc", "--slot", "3",  "--model",
                          "102",     "update", "19", directory.file("fw.bin", firmware)};
    const Launch ask{
        .argv = client, .program = RUK_IPC_PROGRAM, .in_child = rukd_command(sockets).in_child};
    Service service(sockets);
    {
        Card card = card_that_saves(GetParam().option);
        const Finished refused = run(ask);
        EXPECT_EQ(refused.status, 1) << refused.err;
        EXPECT_EQ(count(refused.err, "result -1"), 1) << refused.err;
        expect_agreement(service.log(), card.stop());
        EXPECT_EQ(count(service.log(), "write file response not ok\n"), 1);
    }
    Card card = card_that_saves();
    const Finished done = run(ask);
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(count(service.log(), std::string("\b\b\b100%") + kEnd), 1);
    EXPECT_EQ(count(service.log(), "write file response ok\n"), 1);
    EXPECT_EQ(count(card.stop().json, card_line(firmware)), 1);
    EXPECT_EQ(saved(), firmware);
    service.stop();
}

INSTANTIATE_TEST_SUITE_P(
    OnePercent, Lossy,
    testing::Values(Loss{"Requests", {"--drop-requests", "1", "--seed", "4"}, 0},
                    Loss{"Replies", {"--drop", "1", "--seed", "4"}, 1}),
    [](const auto &test) { return test.param.name; });

// --- the service --------------------------------------------------------------------------------

TEST_F(Update, OfTheServiceIsAnsweredWith44Bytes) {
    const std::string name = directory.file("fw.bin", pattern(300));
    Card card = card_that_saves();
    Service service(sockets);
    const Client client(sockets, 0x55);
    struct Case {
        uint32_t kind;
        std::string name;
        uint32_t result;
    };
    for (const Case &c : {Case{0x1E, name, 0}, Case{0x20, name, 0}, Case{0x16, name, 127},
                          Case{0x16, directory.path("none"), 0xFFFFFFFF},
                          Case{0x19, directory.path("none"), 0xFFFFFFFF}}) {
        Message request{.code = 0xEF, .slot = 3, .model = 0x0102, .seq = 0x0605, .data = {}};
        request.data = le(c.kind, 4);
        request.data.insert(request.data.end(), c.name.begin(), c.name.end());
        request.data.push_back(0);
        request.len = static_cast<uint16_t>(request.data.size());
        ASSERT_TRUE(client.send(request));
        const Bytes bytes = client.receive();
        ASSERT_EQ(bytes.size(), 44U) << c.kind;
        const Message reply = from_bytes(bytes);
        EXPECT_EQ(reply.aptid, kServiceAddress);
        EXPECT_EQ(reply.src, 0x3B);
        EXPECT_EQ(reply.data_len, 0U);
        EXPECT_EQ(reply.result, c.result) << c.kind; // 127: there is no such tool here
        EXPECT_EQ(reply.code, 0xEF);
        EXPECT_EQ(reply.seq, 0x0605);
        EXPECT_EQ(reply.data, (Bytes{static_cast<uint8_t>(c.kind), 0, 0, 0, 0, 0}));
    }
    service.stop("sh: 1: /usr/telva/bin/mcu_isp: not found\n");
    EXPECT_EQ(count(service.log(), "]::     cmdstr=/usr/telva/bin/mcu_isp -B input  -C 0x31 -b " +
                                       name + "  \n\n"),
              1);
    EXPECT_EQ(count(service.log(), "]::     no file need to update in round 1... \n"), 1);
    EXPECT_EQ(card.stop()["firmware_intact"], 1);
    EXPECT_EQ(saved(), pattern(300));
}

} // namespace

} // namespace bed
