// "write", "writea" and "writeaw", with values and with files, against a card that does everything
// right.
#include "tests/system/bed/bed.h"

#include <sys/stat.h>

namespace bed {

namespace {

class WriteCommands : public SystemTest {};

struct Form {
    const char *word;
    uint8_t code;
    bool is_numbered; // plain writes all carry the number 0
};
constexpr Form kForms[] = {
    {"write", kWrite, false}, {"writea", kWriteAck, true}, {"writeaw", kWriteAck, true}};

uint16_t number(const Form &form, int frame) {
    return static_cast<uint16_t>(form.is_numbered ? frame : 0);
}

TEST_F(WriteCommands, AFrameHoldsExactlyTheWorkedExamplesBytes) {
    for (const char *word : {"writea", "writeaw"}) {
        const Card card;
        Capture capture;
        EXPECT_EQ(ruk({"0", word, "1", "3", "7040", "0x01"}).status, 0);
        ASSERT_EQ(capture.sent().size(), 1U);
        const Bytes &frame = capture.sent()[0];
        ASSERT_EQ(frame.size(), 94U);
        EXPECT_EQ(hex(part(frame, 0, 16)), "eb90eb90eb90444444444444070055aa");
        EXPECT_EQ(hex(part(frame, 16, 12)), "010003000011407000000100");
        EXPECT_EQ(frame[28], 0x01);
        EXPECT_EQ(part(frame, 29, 63), Bytes(63));
        EXPECT_EQ(hex(part(frame, 92, 2)), "1c56");
    }
}

TEST_F(WriteCommands, ValuesAreShownAndSentAsTheirLowEightBits) {
    for (const Form &form : kForms) {
        const Directory directory;
        Card card({"--memory-save", directory.path("after") + "@7040:4"});
        Capture capture;
        const Finished result = ruk({"0", form.word, "1", "3", "7040", "0x1", "0x22", "0x333"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count(result.err, "ruk:"), 0) << result.err;
        EXPECT_EQ(
            logged(result, "write fpga 0 , register : 0x00007040 , length : 3 value :01 22 33 "), 1)
            << result.out;
        EXPECT_EQ(logged(result, "write register end"), 1);
        ASSERT_EQ(capture.sent().size(), 1U);
        EXPECT_EQ(capture.sent()[0], write_frame(form.code, 0, 0x7040, {0x01, 0x22, 0x33}));
        EXPECT_EQ(card.stop()["bytes_written"], 3);
        EXPECT_EQ(content_of(directory.path("after")), Bytes({0x01, 0x22, 0x33, 0x00}));
    }
}

TEST_F(WriteCommands, OnlyTheFirstValueNeedsItsPrefixAndTextIsZero) {
    const Card card;
    Capture capture;
    EXPECT_EQ(ruk({"0", "writea", "1", "3", "7040", "0xff", "1ff", "zz", "-1"}).status, 0);
    ASSERT_EQ(capture.sent().size(), 1U);
    EXPECT_EQ(capture.sent()[0], write_frame(kWriteAck, 0, 0x7040, {0xFF, 0xFF, 0x00, 0xFF}));
}

TEST_F(WriteCommands, ThePaddingEndsAtSixtyFourBytes) {
    for (const size_t size : {63U, 64U, 65U}) {
        const Card card;
        Words words = {"0", "writea", "1", "3", "7040"};
        words.insert(words.end(), size, "0x5a");
        Capture capture;
        EXPECT_EQ(ruk(words).status, 0);
        ASSERT_EQ(capture.sent().size(), 1U);
        EXPECT_EQ(capture.sent()[0].size(), size <= 64 ? 94 : 95);
        EXPECT_EQ(capture.sent()[0], write_frame(kWriteAck, 0, 0x7040, Bytes(size, 0x5A)));
    }
}

void expect_file_in_pieces(const Form &form, const Bytes &content) {
    const Directory directory;
    Card card({"--memory-save",
               directory.path("after") + "@a0000:" + std::to_string(content.size() + 1)});
    Capture capture;
    const std::string name = directory.file("data", content);
    const Finished result = ruk({"0", form.word, "1", "3", "a0000", name});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(logged(result, "found file " + name), 1);
    EXPECT_EQ(logged(result, "file size " + std::to_string(content.size())), 1);
    EXPECT_EQ(logged(result, "write register end"), 1);
    std::vector<Bytes> expected;
    for (size_t at = 0; at < content.size(); at += 1400) {
        expected.push_back(
            write_frame(form.code, number(form, static_cast<int>(expected.size())),
                        0xa0000 + static_cast<uint32_t>(at),
                        part(content, at, std::min<size_t>(1400, content.size() - at))));
    }
    EXPECT_TRUE(capture.sent() == expected) << form.word << ": " << capture.sent().size()
                                            << " frames for " << content.size() << " bytes";
    (void)card.stop();
    Bytes after = content;
    after.push_back(0);
    EXPECT_TRUE(content_of(directory.path("after")) == after) << form.word;
}

TEST_F(WriteCommands, AFileGoesOutInPiecesOf1400) {
    for (const Form &form : kForms) {
        for (const size_t size : {1U, 1400U, 1401U, 2800U, 3000U}) {
            expect_file_in_pieces(form, pattern(size));
        }
    }
}

TEST_F(WriteCommands, PiecesOf3000BytesStandAtTheirAddresses) {
    for (const Form &form : kForms) {
        const Card card;
        const Directory directory;
        Capture capture;
        EXPECT_EQ(
            ruk({"0", form.word, "1", "3", "1000", directory.file("d", pattern(3000))}).status, 0);
        ASSERT_EQ(capture.sent().size(), 3U);
        EXPECT_EQ(hex(part(capture.sent()[0], 22, 6)), "001000007805");
        EXPECT_EQ(hex(part(capture.sent()[1], 22, 6)), "781500007805");
        EXPECT_EQ(hex(part(capture.sent()[2], 22, 6)), "f01a0000c800");
        EXPECT_EQ(capture.sent()[2].size(), 230U);
    }
}

TEST_F(WriteCommands, AFileOf100KilobytesArrivesWholeAndReadsBack) {
    const Bytes content = pattern(100'000);
    for (const Form &form : kForms) {
        expect_file_in_pieces(form, content);
    }
    const Directory directory;
    const std::string name = directory.file("data", content);
    const Card card;
    EXPECT_EQ(ruk({"0", "writea", "1", "3", "a0000", name}).status, 0);
    for (const size_t at : {0U, 50'000U, 98'600U}) {
        char addr[16];
        (void)snprintf(addr, sizeof addr, "%zx", 0xa0000 + at);
        const Finished result = ruk({"0", "readw", "1", "3", addr, "1400"});
        EXPECT_EQ(
            count(result.out, dump(static_cast<uint32_t>(0xa0000 + at), part(content, at, 1400))),
            1);
    }
}

TEST_F(WriteCommands, AnEmptyFileEndsWithoutAFrame) {
    const Directory directory;
    const std::string name = directory.file("empty", {});
    for (const Form &form : kForms) {
        Capture capture;
        const Finished result = ruk({"0", form.word, "1", "3", "7040", name});
        EXPECT_EQ(result.status, 0) << form.word;
        EXPECT_EQ(logged(result, "file size 0"), 1);
        EXPECT_EQ(logged(result, "write register end"), 1);
        EXPECT_TRUE(capture.sent().empty());
    }
}

TEST_F(WriteCommands, AMissingFileIsNamedAndTheUsageShown) {
    const Directory directory;
    const std::string name = directory.path("none");
    for (const Form &form : kForms) {
        Capture capture;
        const Finished result = ruk({"0", form.word, "1", "3", "7040", name});
        EXPECT_EQ(result.status, 255);
        EXPECT_EQ(count(result.out, "]:: not found file " + name + "\nusage: \n"), 1) << result.out;
        EXPECT_TRUE(capture.sent().empty());
    }
}

TEST_F(WriteCommands, WhatCannotBeReadEndsWith255WithoutHanging) {
    const Directory directory;
    const std::string unreadable = directory.file("unreadable", pattern(10));
    ASSERT_EQ(chmod(unreadable.c_str(), 0), 0);
    const std::string pipe = directory.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    // Root reads everything unless it is told not to.
    const Words without_override = {"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                    "--inh-caps=-dac_override,-dac_read_search"};
    for (const Form &form : kForms) {
        for (const std::string &name : {unreadable, directory.path("."), pipe}) {
            Capture capture;
            const Finished result = ruk({"0", form.word, "1", "3", "7040", name}, without_override);
            EXPECT_EQ(result.status, 255) << form.word << " " << name;
            EXPECT_EQ(logged(result, "found file " + name), 1);
            EXPECT_TRUE(capture.sent().empty());
        }
    }
}

} // namespace

} // namespace bed
