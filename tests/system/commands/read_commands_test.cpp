// "read" and "readw" against a card that does everything right.
#include "tests/system/bed/bed.h"

namespace bed {

namespace {

class ReadCommands : public SystemTest {};

const Words kBoth = {"read", "readw"};

TEST_F(ReadCommands, AFrameHoldsExactlyTheWorkedExamplesBytes) {
    for (const std::string &word : kBoth) {
        const Card card;
        Capture capture;
        EXPECT_EQ(ruk({"0", word, "2", "1", "000A0000", "1400"}).status, 0);
        ASSERT_EQ(capture.sent().size(), 1U);
        const Bytes &frame = capture.sent()[0];
        ASSERT_EQ(frame.size(), 94U); // not 1430: a request carries no data
        EXPECT_EQ(hex(part(frame, 0, 16)), "eb90eb90eb90444444444444070055aa");
        EXPECT_EQ(hex(part(frame, 16, 12)), "020001000000"
                                            "00000a007805");
        EXPECT_EQ(part(frame, 28, 64), Bytes(64));
        EXPECT_EQ(hex(part(frame, 92, 2)), "df55");
    }
}

// The data shown once, whichever thread shows them, for every shape of the last line.
TEST_F(ReadCommands, TheDataAreShownOnceInTheSameForm) {
    const Directory directory;
    const Bytes memory = pattern(0x2000);
    const std::string image = directory.file("image", memory);
    struct Row {
        uint32_t addr;
        size_t len;
    };
    for (const Row &row : {Row{0x1000, 6},
                           {0, 20},
                           {0x10, 1},
                           {0x11, 2},
                           {0x12, 3},
                           {0x100, 4},
                           {0x101, 16},
                           {0x200, 17},
                           {0x300, 1400}}) {
        for (const std::string &word : kBoth) {
            const Card card({"--memory-load", image});
            char addr[16];
            (void)snprintf(addr, sizeof addr, "%x", row.addr);
            const Finished result = ruk({"0", word, "1", "3", addr, std::to_string(row.len)});
            EXPECT_EQ(result.status, 0);
            const std::string expected = dump(row.addr, part(memory, row.addr, row.len));
            EXPECT_EQ(count(result.out, "\n" + expected), 1) << expected << result.out;
            char address[16];
            (void)snprintf(address, sizeof address, "\n%08x: ", row.addr);
            EXPECT_EQ(count(result.out, address), 1) << result.out;
            EXPECT_EQ(logged(result, "read register end"), 1);
        }
    }
}

TEST_F(ReadCommands, SixBytesAndTwentyBytesLookAsAPersonExpects) {
    const Directory directory;
    const std::string image =
        directory.file("image", from_hex("0102030405060708090a0b0c0d0e0f1011121314"));
    for (const std::string &word : kBoth) {
        const Card card({"--memory-load", image + "@1000", "--memory-load", image + "@0"});
        EXPECT_EQ(
            count(ruk({"0", word, "1", "3", "0x1000", "6"}).out, "\n\n00001000: 01020304 0506\n"),
            1);
        EXPECT_EQ(count(ruk({"0", word, "1", "3", "0", "20"}).out,
                        "\n\n00000000: 01020304 05060708 090a0b0c 0d0e0f10 \n"
                        "00000010: 11121314 \n"),
                  1);
    }
}

TEST_F(ReadCommands, WithoutALengthOneByteIsRead) {
    const Directory directory;
    for (const std::string &word : kBoth) {
        Card card({"--memory-load", directory.file("image", {0xA5}) + "@3"});
        Capture capture;
        const Finished result = ruk({"0", word, "1", "2", "3"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count(result.out, "\n\n00000003: a5\n"), 1) << result.out;
        ASSERT_EQ(capture.sent().size(), 1U);
        EXPECT_EQ(capture.sent()[0],
                  request_frame({.model = 1, .slot = 2, .code = kRead, .addr = 3, .len = 1}));
        EXPECT_EQ(card.stop()["bytes_read"], 1);
    }
}

// With more words than a length, none of them is one.
TEST_F(ReadCommands, WithTwoMoreWordsOneByteIsRead) {
    const Card card;
    Capture capture;
    EXPECT_EQ(ruk({"0", "read", "1", "2", "3", "4", "5"}).status, 0);
    ASSERT_EQ(capture.sent().size(), 1U);
    EXPECT_EQ(capture.sent()[0],
              request_frame({.model = 1, .slot = 2, .code = kRead, .addr = 3, .len = 1}));
}

TEST_F(ReadCommands, ALengthThatNoFrameHoldsIsNotSent) {
    const Card card;
    struct Row {
        const char *word;
        const char *operation;
    };
    for (const Row &row :
         {Row{"read", "RawSockSendMsgWithRead"}, Row{"readw", "RawSockSendMsgWithReadWait"}}) {
        for (const char *len : {"0", "1401", "65537", "4294967295", "x"}) {
            Capture capture;
            const Finished result = ruk({"0", row.word, "1", "3", "7040", len});
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(logged(result, std::string(row.operation) + " : send fail"), 1) << len;
            EXPECT_TRUE(capture.sent().empty());
        }
    }
}

TEST_F(ReadCommands, NothingReceivedShowsTheAddressAlone) {
    Card card({"--lie-length", "0@any"});
    const Finished result = ruk({"0", "readw", "1", "3", "0x7040", "4"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.out, "\n\n00007040: \n"), 1) << result.out;
    EXPECT_EQ(card.stop()["lie_length"], 1);
}

} // namespace

} // namespace bed
