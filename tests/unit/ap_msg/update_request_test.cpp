// Requests to update firmware: what is run, what is sent, what is answered.
#include "ap_msg/ap_msg.h"
#include "helpers/log_lines.h"
#include "helpers/service_message.h"
#include "helpers/temp_files.h"
#include "stand_ins/fake_board.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"
#include "stand_ins/fake_home.h"

#include <gtest/gtest.h>

namespace {

Bytes update_data(uint32_t kind, const std::string &name) {
    Bytes data;
    for (unsigned i = 0; i < 4; i++) {
        data.push_back(static_cast<uint8_t>(kind >> (8 * i)));
    }
    data.insert(data.end(), name.begin(), name.end());
    return data;
}

MessageFields update_fields(uint32_t kind, const std::string &name) {
    MessageFields fields;
    fields.code = 0xEF;
    fields.slot = 6;
    fields.model = 0x0304;
    fields.data = update_data(kind, name);
    return fields;
}

Bytes data_of(const SentMessage &message) {
    return {message.bytes.begin() + 38, message.bytes.end()};
}

class UpdateRequest : public testing::Test {
protected:
    UpdateRequest() {
        card_reset();
        board_reset();
    }
    // Returns what was logged and printed.
    std::string handle(const Bytes &message) {
        Bytes head(message);
        Bytes request(message.begin() + 24, message.end());
        return test::log_of([&] { result_ = update_file_handle(head.data(), request.data()); });
    }
    std::string handle(uint32_t kind, const std::string &name) {
        return handle(message_with(update_fields(kind, name + '\0')));
    }
    std::string file(const std::string &name) {
        return test::write_file(directory_.path(name), {1, 2, 3});
    }
    static std::string update_line(const char *kind, const std::string &name) {
        return "|found file " + name + "\n|update slot:6 model:0x304 type:" + kind +
               " file:" + name + "\n";
    }

    FakeHome home_;
    test::TempDirectory directory_;
    int result_ = 1;
};

TEST_F(UpdateRequest, RunsTheProgrammingToolForThreeKinds) {
    struct Case {
        uint32_t kind;
        const char *shown;
        const char *before;
        const char *after;
    };
    const std::string name = file("fw.hex");
    std::vector<std::string> commands;
    for (const Case &c :
         {Case{0x16, "0x16", "/usr/telva/bin/mcu_isp -B input  -C 0x31 -b ", " "},
          Case{0x17, "0x17", "/usr/telva/bin/mcu_isp -B output  -C 0x31 -b ", " "},
          Case{0x18, "0x18", "/usr/telva/bin/mcu_isp -B vpu     -C 0x31 -b ", " -r 0x00 "}}) {
        const std::string command = c.before + name + c.after;
        EXPECT_EQ(handle(c.kind, name), update_line(c.shown, name) + "|    cmdstr=" + command +
                                            " \n\n|write file response ok\n");
        EXPECT_EQ(result_, 0);
        commands.push_back(command);
    }
    EXPECT_EQ(shell_commands(), commands);
    EXPECT_TRUE(card_calls().empty());
}

TEST_F(UpdateRequest, QuotesNamesForTheShell) {
    const std::string name = file("a b;c.hex");
    (void)handle(0x16, name);
    EXPECT_EQ(
        shell_commands(),
        (std::vector<std::string>{"/usr/telva/bin/mcu_isp -B input  -C 0x31 -b '" + name + "' "}));
}

TEST_F(UpdateRequest, FailsWithoutMemoryForTheLineOfTheTool) {
    constexpr uint64_t kMoreThanTheReply = 48;
    const std::string name = file("fw.hex");
    const HeapLimit no_more(kMoreThanTheReply);
    EXPECT_EQ(handle(0x16, name), update_line("0x16", "(no memory to show it)") +
                                      "|ap_msg: run a shell command: no memory for its line\n"
                                      "|write file response not ok\n");
    EXPECT_EQ(result_, -1);
    EXPECT_TRUE(shell_commands().empty());
}

TEST_F(UpdateRequest, AnswersWithTheExitStatusOfTheTool) {
    const std::string name = file("fw.hex");
    for (const int status : {1, 127, 255, -1}) {
        board_reset();
        shell_answers(status);
        EXPECT_TRUE(handle(0x17, name).ends_with("|write file response not ok\n"));
        EXPECT_EQ(result_, status);
        ASSERT_EQ(board_messages().size(), 1U);
        const Bytes reply = board_messages()[0].bytes;
        for (unsigned i = 0; i < 4; i++) {
            EXPECT_EQ(reply[12 + i],
                      static_cast<uint8_t>(static_cast<uint32_t>(status) >> (8 * i)));
        }
    }
}

TEST_F(UpdateRequest, SendsTheFileItselfForSixKinds) {
    const std::string name = file("fw.bin");
    for (const uint32_t kind : {0x19U, 0x1AU, 0x1BU, 0x1CU, 0x1DU, 0x1EU}) {
        card_reset();
        const std::string output = handle(kind, name);
        EXPECT_TRUE(output.ends_with("\nfile is close!|write file response ok\n")) << output;
        EXPECT_EQ(result_, 0);
        ASSERT_EQ(card_calls().size(), 8U);
        EXPECT_EQ(card_calls()[5], acked_write(0, 0, 6, 0x18200000, {0x03, 0x04}, 30));
        EXPECT_EQ(card_calls()[6], acked_write(0, 0, 6, 0x18200002, {0, 0, 6}, 30));
        EXPECT_EQ(card_calls()[7].len, 259U);
    }
}

TEST_F(UpdateRequest, AnswersWithTheFailureOfTheTransfer) {
    card_answers_acked_writes(-1, 0xFF);
    const std::string output = handle(0x19, file("fw.bin"));
    EXPECT_TRUE(
        output.ends_with("send file_info.total_files_size err!|write file response not ok\n"))
        << output;
    EXPECT_EQ(result_, -1);
}

TEST_F(UpdateRequest, DoesNothingForOtherKindsWithSuccess) {
    const std::string name = file("fw.bin");
    struct Case {
        uint32_t kind;
        const char *shown;
    };
    for (const Case &c :
         {Case{0x20, "0x20"}, Case{0x1F, "0x1f"}, Case{0x15, "0x15"}, Case{0, "0x0"},
          Case{0x11900, "0x11900"}, Case{0xFFFFFFFF, "0xffffffff"}}) {
        EXPECT_EQ(handle(c.kind, name), update_line(c.shown, name) +
                                            "|    no file need to update in round 1... \n" +
                                            "|write file response ok\n");
        EXPECT_EQ(result_, 0);
    }
    EXPECT_TRUE(card_calls().empty());
    EXPECT_TRUE(shell_commands().empty());
    EXPECT_EQ(board_messages().size(), 6U);
}

TEST_F(UpdateRequest, RunsNothingForAMissingFile) {
    const std::string name = directory_.path("none.bin");
    for (const uint32_t kind : {0x16U, 0x19U, 0x20U}) {
        EXPECT_EQ(handle(kind, name),
                  "|not found file " + name + "\n|write file response not ok\n");
        EXPECT_EQ(result_, -1);
    }
    EXPECT_TRUE(card_calls().empty());
    EXPECT_TRUE(shell_commands().empty());
    EXPECT_EQ(board_messages().size(), 3U);
}

TEST_F(UpdateRequest, IsAnsweredWith44Bytes) {
    (void)handle(0x20, file("fw.bin"));
    const SentMessage expected{0x040A5500,
                               {
                                   0x00, 0x3B, 0x0A, 0x02, // the service, slot 2
                                   0xE4, 0xE3, 0xE2, 0xE1, // reserved: as it came
                                   0x00, 0x00, 0x00, 0x00, // data_len
                                   0x00, 0x00, 0x00, 0x00, // result
                                   0x00, 0x00, 0x1C, 0x00, // kind, class
                                   0xB4, 0xB3, 0xB2, 0xB1, // id
                                   0x3B,                   // source
                                   0xFE, 0xEF, 0x06,       // target, code, slot
                                   0x04, 0x03,             // model
                                   0x42, 0x41,             // seq
                                   0xEF, 0xCD, 0xAB, 0x00, // addr
                                   0x00, 0x00,             // len, set below
                                   0x20, 0x00, 0x00, 0x00, // the kind of update
                                   0x00, 0x00,             // spare
                               }};
    ASSERT_EQ(board_messages().size(), 1U);
    SentMessage sent = board_messages()[0];
    ASSERT_EQ(sent.bytes.size(), 44U);
    const size_t len = directory_.path("fw.bin").size() + 5;
    EXPECT_EQ(sent.bytes[36] | sent.bytes[37] << 8, static_cast<int>(len)); // as it came
    sent.bytes[36] = 0;
    sent.bytes[37] = 0;
    EXPECT_EQ(sent, expected);
}

TEST_F(UpdateRequest, WithoutMemoryIsNotAnswered) {
    Bytes head = message_with(update_fields(0x20, "x"));
    Bytes kind(4);
    const HeapLimit limit(44);
    EXPECT_EQ(update_file_resp(head.data(), kind.data(), 0), -1);
    EXPECT_TRUE(board_messages().empty());
}

TEST_F(UpdateRequest, ReplyReturnsWhatTheLibraryReturns) {
    Bytes head = message_with(update_fields(0x20, "x"));
    Bytes kind{0x44, 0x33, 0x22, 0x11};
    int result = 0;
    EXPECT_EQ(test::log_of([&] { result = update_file_resp(head.data(), kind.data(), -7); }),
              "|write file response not ok\n");
    EXPECT_EQ(result, kSendResult);
    ASSERT_EQ(board_messages().size(), 1U);
    EXPECT_EQ(board_messages()[0].bytes[12], 0xF9);
    EXPECT_EQ(data_of(board_messages()[0]), (Bytes{0x44, 0x33, 0x22, 0x11, 0, 0}));
}

// --- requests that are wrong ------------------------------------------------------------------

TEST_F(UpdateRequest, WithoutAKindFails) {
    for (size_t len = 0; len < 4; len++) {
        MessageFields fields = update_fields(0x16161616, "");
        fields.data.resize(len);
        Bytes message = message_with(fields);
        message.resize(40); // what the service keeps of it is never shorter
        EXPECT_EQ(handle(message), "|ap_msg: update request: " + std::to_string(len) +
                                       " bytes of data, 4 are needed for the kind\n" +
                                       "|write file response not ok\n");
        EXPECT_EQ(result_, -1);
        EXPECT_EQ(data_of(board_messages().at(len)), Bytes(6));
    }
}

TEST_F(UpdateRequest, WithoutANameFindsNoFile) {
    for (const std::string &name : {std::string(), std::string(1, '\0')}) {
        EXPECT_EQ(handle(message_with(update_fields(0x16, name))),
                  "|not found file \n|write file response not ok\n");
        EXPECT_EQ(result_, -1);
    }
}

TEST_F(UpdateRequest, NeedsNoNulBehindTheName) {
    const std::string name = file("fw.bin");
    EXPECT_EQ(handle(message_with(update_fields(0x20, name))),
              update_line("0x20", name) + "|    no file need to update in round 1... \n" +
                  "|write file response ok\n");
}

TEST_F(UpdateRequest, NeverCutsALongName) {
    (void)test::write_file(directory_.path("fw.bin"), {1});
    const std::string longest = directory_.long_path("fw.bin", 1023);
    EXPECT_TRUE(handle(0x20, longest).starts_with("|found file " + longest));
    EXPECT_EQ(result_, 0);
    const std::string too_long = directory_.long_path("fw.bin", 1024);
    EXPECT_EQ(handle(0x20, too_long), "|ap_msg: file name '" + too_long +
                                          "': longer than 1023 characters\n" +
                                          "|write file response not ok\n");
    EXPECT_EQ(result_, -1);
}

} // namespace
