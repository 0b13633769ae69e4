// Answers that are doubled, out of order, spoilt, refusing or lying.
#include "tests/system/bed/bed.h"

namespace bed {

namespace {

class WrongAnswers : public SystemTest {};

const Bytes kRegister = {0xCA, 0xFE, 0xBA, 0xBE};
constexpr char kShown[] = "\n\n00007040: cafebabe \n";
constexpr char kReadFailed[] = "#######error read index:0 slot:3 model:1 addr:0x7040 length:4 "
                               "failed:*length=0, timeout or ack error";

Words command(const std::string &word) {
    const bool is_read = word.starts_with("read");
    return {"0", word, "1", "3", "7040", is_read ? "4" : "0x12"};
}

Words with_memory(const Directory &directory, Words options) {
    options.insert(options.end(),
                   {"--memory-load", directory.file("register", kRegister) + "@7040"});
    return options;
}

// Oddities that a request gets through at the first attempt.
TEST_F(WrongAnswers, HarmlessOnesAreNotNoticed) {
    const Directory directory;
    struct Row {
        Words options;
        const char *fault;
        int least; // committed at least so often
    };
    for (const Row &row :
         {Row{{"--duplicate", "100"}, "duplicate", 1}, Row{{"--noise", "100"}, "noise", 1},
          Row{{"--type", "88b5"}, "type", 1}, Row{{"--reorder", "100"}, "reorder", 1}}) {
        for (const std::string word : {"read", "readw", "writea", "writeaw"}) {
            Card card(with_memory(directory, row.options));
            Capture capture;
            const Finished result = ruk(command(word));
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(capture.sent().size(), 1U) << row.fault << " " << word;
            EXPECT_EQ(count(result.out, kShown), word.starts_with("read") ? 1 : 0) << result.out;
            EXPECT_EQ(count(result.out, "wrong"), 0);
            EXPECT_EQ(count(result.out, "error"), 0);
            EXPECT_GE(card.stop()[row.fault], row.least) << word;
        }
    }
}

TEST_F(WrongAnswers, BothAcknowledgementCodesEndAWrite) {
    for (const char *word : {"writea", "writeaw"}) {
        Card card({"--ack-code", "10"});
        Capture capture;
        const Finished result = ruk(command(word));
        EXPECT_EQ(capture.sent().size(), 1U);
        EXPECT_EQ(count(result.out, "no ack"), 0);
        EXPECT_EQ(card.stop()["ack_code"], 1);
        ASSERT_EQ(capture.received().size(), 1U);
        EXPECT_EQ(capture.received()[0][22], 0x10);
    }
}

TEST_F(WrongAnswers, AFileArrivesWholeThroughAllOfThem) {
    const Directory directory;
    const Bytes content = pattern(30'000);
    const std::string name = directory.file("data", content);
    Card card({"--duplicate", "30", "--reorder", "30", "--noise", "50", "--delay", "0:5ms", "--nth",
               "corrupt:3", "--memory-save", directory.path("after") + "@a0000:30000"});
    EXPECT_EQ(ruk({"0", "writea", "1", "3", "a0000", name}).status, 0);
    const Counters counters = card.stop();
    for (const char *fault : {"duplicate", "reorder", "noise", "delay", "corrupt"}) {
        EXPECT_GE(counters[fault], 1) << fault;
    }
    EXPECT_EQ(counters["unanswered_requests"], 0);
    EXPECT_TRUE(content_of(directory.path("after")) == content);
}

TEST_F(WrongAnswers, ASpoiltOneIsALostOne) {
    const Directory directory;
    for (const std::string word : {"read", "writea"}) {
        Card card(with_memory(directory, {"--nth", "corrupt:1"}));
        Capture capture;
        const Finished result = ruk(command(word));
        EXPECT_EQ(count(result.out, "]:: recv packet crc error:0x"), 1) << result.out;
        EXPECT_EQ(logged(result, "no ack msg (0xff), send msg again (2)!"), 1);
        ASSERT_EQ(capture.sent().size(), 2U);
        EXPECT_EQ(capture.sent()[0], capture.sent()[1]);
        EXPECT_EQ(count(result.out, kShown), word == "read" ? 1 : 0);
        EXPECT_EQ(card.stop()["corrupt"], 1);
    }
    for (const std::string word : {"readw", "writeaw"}) {
        Card card(with_memory(directory, {"--corrupt", "100"}));
        Capture capture;
        const Finished result = ruk(command(word));
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count(result.out, "]:: recv packet crc error:0x"), 1) << result.out;
        EXPECT_EQ(capture.sent().size(), 1U);
        EXPECT_EQ(logged(result, word == "readw" ? kReadFailed : "ack failed, no ack"), 1);
        EXPECT_EQ(card.stop()["corrupt"], 1);
    }
}

TEST_F(WrongAnswers, ARefusalIsAnsweredByAResendAtOnce) {
    const Directory directory;
    for (const char *option : {"--error", "--error-with-data"}) {
        for (const std::string word : {"read", "writea"}) {
            Card card(with_memory(directory, {option, "02@7040x3"}));
            Capture capture;
            const Finished result = ruk(command(word));
            EXPECT_EQ(result.status, 0);
            ASSERT_EQ(capture.sent().size(), 4U) << word;
            EXPECT_EQ(capture.sent(), std::vector<Bytes>(4, capture.sent()[0]));
            EXPECT_EQ(logged(result, "wrong ack (0x2), send msg again (1)!"), 3) << result.out;
            EXPECT_EQ(count(result.out, kShown), word == "read" ? 1 : 0) << result.out;
            EXPECT_EQ(count(result.out, "\n00007040: "), word == "read" ? 1 : 0);
            EXPECT_EQ(card.stop()["error"], 3);
        }
    }
}

TEST_F(WrongAnswers, AWaitingFormReportsTheRefusal) {
    const Directory directory;
    for (const char *option : {"--error", "--error-with-data"}) {
        Card card(with_memory(directory, {option, "05@any"}));
        Capture capture;
        const Finished write = ruk(command("writeaw"));
        EXPECT_EQ(write.status, 0);
        EXPECT_EQ(logged(write, "wrong ack (0x5)!"), 1);
        EXPECT_EQ(logged(write, "write ack wait error: ack wrong index:0 model:1 slot:3 "
                                "addr:0x7040 len:1 ack:0x5"),
                  1)
            << write.out;
        EXPECT_EQ(count(write.out, "ack failed"), 0);
        const Finished read = ruk(command("readw"));
        EXPECT_EQ(read.status, 0);
        EXPECT_EQ(logged(read, "wrong ack (0x5)!"), 1);
        EXPECT_EQ(logged(read, kReadFailed), 1) << read.out;
        EXPECT_EQ(count(read.out, "\n\n00007040: \n"), 1);
        EXPECT_EQ(capture.sent().size(), 2U);
        EXPECT_EQ(card.stop()["error"], 2);
    }
}

TEST_F(WrongAnswers, ALengthOfZeroIsNoData) {
    const Directory directory;
    Card card(with_memory(directory, {"--lie-length", "0@any"}));
    Capture capture;
    const Finished wait = ruk(command("readw"));
    EXPECT_EQ(logged(wait, "wrong msg and  recv_len, Read error!"), 1) << wait.out;
    EXPECT_EQ(logged(wait, kReadFailed), 1);
    EXPECT_EQ(capture.sent().size(), 1U);
    const Finished read = ruk(command("read"));
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(capture.sent().size(), 1U + 3U); // the time-outs end it
    EXPECT_EQ(count(read.out, "\n00007040: "), 0);
    EXPECT_EQ(card.stop()["lie_length"], 4);
}

TEST_F(WrongAnswers, MoreThanAskedIsShownWhole) {
    const Directory directory;
    for (const std::string word : {"read", "readw"}) {
        Card card(with_memory(directory, {"--lie-length", "10@any"}));
        const Finished result = ruk(command(word));
        EXPECT_EQ(count(result.out, "\n\n00007040: cafebabe 00000000 0000\n"), 1) << result.out;
        EXPECT_EQ(card.stop()["lie_length"], 1);
    }
}

TEST_F(WrongAnswers, ALengthBeyondTheFrameIsASpoiltAnswer) {
    for (const char *option : {"--lie-length", "--lie-field"}) {
        Card card({option, "2000@any"});
        const Finished wait = ruk(command("readw"));
        EXPECT_EQ(wait.status, 0);
        EXPECT_EQ(count(wait.out, "]:: recv packet crc error:0x"), 1) << wait.out;
        EXPECT_EQ(logged(wait, kReadFailed), 1) << wait.out;
        EXPECT_EQ(count(wait.out, "\n\n00007040: \n"), 1);
        const Finished read = ruk(command("read"));
        EXPECT_EQ(read.status, 0);
        EXPECT_EQ(count(read.out, "]:: recv packet crc error:0x"), 3);
        EXPECT_EQ(count(read.out, "\n00007040: "), 0);
        EXPECT_EQ(card.stop()["lie_length"], 4) << option;
    }
}

// The answer to a request, intact and with these data.
Bytes answer(const Bytes &request, const Bytes &data) {
    Bytes frame = from_hex("444444444444eb90eb90eb900700aa55"
                           "00");                                          // carried out
    frame.insert(frame.end(), request.begin() + 16, request.begin() + 26); // up to the address
    frame.push_back(static_cast<uint8_t>(data.size()));
    frame.push_back(static_cast<uint8_t>(data.size() >> 8));
    frame.insert(frame.end(), data.begin(), data.end());
    unsigned sum = 0x5555;
    for (size_t i = 16; i < frame.size(); i++) {
        sum += frame[i];
    }
    frame.push_back(static_cast<uint8_t>(sum));
    frame.push_back(static_cast<uint8_t>(sum >> 8));
    return frame;
}

// No read buffer holds it, so nothing of it is copied: zeros would be shown that no card sent.
TEST_F(WrongAnswers, NothingIsShownOfAnIntactAnswerThatIsTooLong) {
    struct Row {
        const char *word;
        size_t size;
        int lines; // with the address
    };
    for (const Row &row : {Row{"read", 1400, 1}, Row{"read", 1401, 0}, Row{"read", 1419, 0},
                           Row{"readw", 1400, 1}, Row{"readw", 1401, 1}, Row{"readw", 1419, 1}}) {
        const CardEnd end;
        Capture capture;
        Process tool({.argv = ruk_command(command(row.word))});
        ASSERT_TRUE(capture.await_sent(1));
        const Bytes data(row.size, 0x5A);
        end.send(answer(capture.sent()[0], data));
        EXPECT_EQ(tool.wait(), 0);
        const std::string out = tool.out();
        EXPECT_EQ(capture.sent().size(), 1U) << "the answer did not end the request";
        EXPECT_EQ(count(out, "\n00007040: "), row.lines) << row.word << row.size << out;
        const bool is_alone = row.size > 1400 && row.lines == 1;
        EXPECT_EQ(count(out, "\n00007040: \n"), is_alone ? 1 : 0) << out;
        EXPECT_EQ(count(out, "5a5a5a5a "), row.size == 1400 ? 350 : 0);
        EXPECT_EQ(count(out, "00000000 "), 0) << out;
    }
}

TEST_F(WrongAnswers, AnUnknownCodeIsDropped) {
    Card card({"--read-code", "05"});
    Capture capture;
    const Finished wait = ruk(command("readw"));
    EXPECT_EQ(logged(wait, kReadFailed), 1) << wait.out;
    const Finished read = ruk(command("read"));
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(count(read.out, "\n00007040: "), 0);
    EXPECT_EQ(capture.sent().size(), 1U + 3U);
    EXPECT_EQ(card.stop()["read_code"], 4);
}

} // namespace

} // namespace bed
