#include "ap_msg/ap_msg.h"
#include "board/board.h"
#include "helpers/output.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "raw_msg/raw_msg.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

struct Message {
    int aptid;
    std::vector<uint8_t> bytes;
};
std::vector<Message> g_messages;

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {
int __wrap_apipc_send(int aptid, void *msg, unsigned length);
int __wrap_apcard_bit_self(void);

int __wrap_apipc_send(int aptid, void *msg, unsigned length) {
    const auto *bytes = static_cast<const uint8_t *>(msg);
    g_messages.push_back({aptid, {bytes, bytes + length}});
    return 17;
}
int __wrap_apcard_bit_self(void) {
    return 0x85; // a slot whose address has its highest bit set
}
}

#pragma GCC visibility pop

namespace {

class Report : public testing::Test {
protected:
    void SetUp() override {
        g_messages.clear();
    }
    RawMsgQueueNode record{};
};

std::string hex_of(const std::vector<uint8_t> &bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; i++) {
        char two[8];
        snprintf(two, sizeof two, "%02x ", bytes[i]);
        text += two;
    }
    return text;
}

TEST_F(Report, TellsAWritersRequesterTheResult) {
    record.requester = 0x020A3C00;
    record.addr = 0x11223344;
    record.index = 1;
    const std::string text = test::output_of([&] { WriteAckResultReport(&record, -1); });
    ASSERT_EQ(g_messages.size(), 1U);
    EXPECT_EQ(g_messages[0].aptid, 0x020A3C00);
    const std::vector<uint8_t> expected = {
        0x00, 0x3B, 0x0A, 0x85,             // own address
        0,    0,    0,    0,                // reserved
        40,   0,    0,    0,                // data_len
        0xFF, 0xFF, 0xFF, 0xFF,             // result
        0,    0,    28,   0,                // kind, class
        14,   0,    0,    0,                // message id
        0,    0xFE, 2,    0,    0, 0, 0, 0, // src, id, code, slot, model, seq
        0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0, // addr, len, two data bytes
    };
    EXPECT_EQ(g_messages[0].bytes, expected);
    EXPECT_EQ(text, "WriteAckResultReport result:-1\n" + hex_of(expected, 40) + "\n end \n");
}

TEST_F(Report, SendsAReadersRequesterTheDataAroundItsBuffer) {
    record.read_buf = ApMsgBuffGet(1400);
    record.requester = 0x020A3C00;
    record.addr = 0x0A0B0C0D;
    record.recv_len = 5;
    memcpy(record.read_buf, "\x01\x02\x03\x04\x05", 5);
    const std::string text = test::output_of([&] { ReadResultReport(&record, 0); });
    ASSERT_EQ(g_messages.size(), 1U);
    const auto &bytes = g_messages[0].bytes;
    ASSERT_EQ(bytes.size(), 45U);
    EXPECT_EQ(bytes[8], 45); // data_len: the data and the header
    EXPECT_EQ(bytes[12], 0); // result
    EXPECT_EQ(bytes[3], 0x85);
    EXPECT_EQ(bytes[25], 0xFE);
    EXPECT_EQ(bytes[26], 0);
    EXPECT_EQ(bytes[32], 0x0D);
    EXPECT_EQ(bytes[36], 5);
    EXPECT_EQ(memcmp(bytes.data() + 38, "\x01\x02\x03\x04\x05", 5), 0);
    EXPECT_EQ(text, hex_of(bytes, 40) + "\n end ");
    ApMsgBuffFree(record.read_buf);
}

TEST_F(Report, SendsOnlyTheHeaderOfAFailedRead) {
    record.read_buf = ApMsgBuffGet(1400);
    record.recv_len = 5;
    (void)test::output_of([&] { ReadResultReport(&record, -1); });
    ASSERT_EQ(g_messages.size(), 1U);
    EXPECT_EQ(g_messages[0].bytes.size(), 40U);
    EXPECT_EQ(g_messages[0].bytes[12], 0xFF);
    ApMsgBuffFree(record.read_buf);
}

TEST_F(Report, SendsAFullReadBufferButNothingOfALongerReplyWhichIsNotCopied) {
    record.read_buf = ApMsgBuffGet(1400);
    for (const uint32_t len : {1400U, 1401U, 60000U}) {
        record.recv_len = len;
        (void)test::output_of([&] { ReadResultReport(&record, 0); });
        EXPECT_EQ(g_messages.back().bytes.size(), len == 1400 ? 1440U : 40U) << len;
    }
    EXPECT_EQ(g_messages.size(), 3U);
    ApMsgBuffFree(record.read_buf);
}

// Two threads may report: the receive and the check thread.
TEST_F(Report, IsPrintedTogether) {
    const std::string alone = test::output_of([this] { WriteAckResultReport(&record, 3); });
    record.read_buf = ApMsgBuffGet(1400);
    const std::string read_alone = test::output_of([this] { ReadResultReport(&record, 3); });
    const std::string text = test::output_among_others([this] {
        for (int i = 0; i < 200; i++) {
            WriteAckResultReport(&record, 3);
            ReadResultReport(&record, 3);
        }
    });
    EXPECT_EQ(test::occurrences(text, alone), 200);
    EXPECT_EQ(test::occurrences(text, read_alone), 200);
    ApMsgBuffFree(record.read_buf);
}

TEST_F(Report, OfAReadSaysSoWhateverTheBufferHeld) {
    record.read_buf = ApMsgBuffGet(1400);
    memset(ApMsgBuffHeadGet(record.read_buf), 0xA5, 38);
    (void)test::output_of([this] { ReadResultReport(&record, 0); });
    ASSERT_EQ(g_messages.size(), 1U);
    EXPECT_EQ(g_messages[0].bytes.at(26), 0); // the code of a read
    ApMsgBuffFree(record.read_buf);
}

TEST(MessageBuffer, LiesBehindTheHeadsOfItsMessage) {
    const int64_t out = mem_handed_out();
    uint8_t *data = ApMsgBuffGet(0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(ApMsgBuffHeadGet(data), data - 38);
    for (int i = -38; i < 2; i++) {
        EXPECT_EQ(data[i], 0);
    }
    ApMsgBuffFree(data);
    ApMsgBuffFree(nullptr);
    EXPECT_EQ(mem_handed_out(), out);
    ASSERT_NE(data = ApMsgBuffGet(8152), nullptr);
    ApMsgBuffFree(data);
    EXPECT_EQ(ApMsgBuffGet(8153), nullptr);
    EXPECT_EQ(ApMsgBuffGet(UINT32_MAX), nullptr);
}

// A message is as long as its data and 40 bytes, two of which stand behind the data.
TEST(MessageBuffer, HoldsTheWholeMessageZeroed) {
    for (const uint32_t data_len : {24U, 25U, 26U, 88U, 89U}) {
        uint8_t *data = ApMsgBuffGet(data_len);
        ASSERT_NE(data, nullptr);
        uint8_t *head = ApMsgBuffHeadGet(data);
        mem_block block{};
        memcpy(&block, head - sizeof block, sizeof block);
        EXPECT_EQ(block.size, data_len == 24 ? 64U : data_len == 89 ? 256U : 128U) << data_len;
        memset(head, 0xA5, block.size);
        ApMsgBuffFree(data);
        std::vector<uint8_t *> taken; // until it is the same block's turn again
        do {
            data = ApMsgBuffGet(data_len);
            taken.push_back(data);
        } while (data != head + 38);
        EXPECT_EQ(std::count(head, head + data_len + 40, 0), data_len + 40) << data_len;
        std::for_each(taken.begin(), taken.end(), ApMsgBuffFree);
    }
}

// Most messages are sent with bytes that nobody has written.
TEST(MessageBuffer, HoldsNothingOfTheMessageBefore) {
    for (const uint32_t size : {0U, 1U, 100U, 1400U, 8152U}) {
        uint8_t *data = ApMsgBuffGet(size);
        ASSERT_NE(data, nullptr);
        std::fill_n(ApMsgBuffHeadGet(data), size + 40, uint8_t{0xEE});
        ApMsgBuffFree(data);
        data = ApMsgBuffGet(size);
        const uint8_t *head = ApMsgBuffHeadGet(data);
        EXPECT_EQ(std::count(head, head + size + 40, 0), size + 40) << size;
        ApMsgBuffFree(data);
    }
}

TEST(MessageSend, SendsTheHeaderAndSoManyBytesMore) {
    g_messages.clear();
    uint8_t message[50] = {1};
    EXPECT_EQ(ApipcDataSend(5, message, 10), 17);
    EXPECT_EQ(ApipcDataSend(5, message, 0), 17);
    EXPECT_EQ(ApipcDataSendAck(5, message), 17);
    EXPECT_EQ(g_messages.at(0).bytes.size(), 50U);
    EXPECT_EQ(g_messages.at(1).bytes, g_messages.at(2).bytes);
    EXPECT_EQ(g_messages.at(2).bytes.size(), 40U);
}

TEST(Targets, AllLieBehindInterfaceZero) {
    for (const int id : {0x3C, 0xF0, 0xFD, 0xFE, 0xFF, 0, -1}) {
        EXPECT_EQ(GetIndexById(id), 0) << id;
    }
    EXPECT_EQ(GetIdByIndex(5), 0xFE);
    EXPECT_EQ(GetIdByIndex(0), 0xFE);
}

TEST(PrintBuf, BreaksTheLineBeforeEverySixteenthByte) {
    std::vector<uint8_t> bytes(17, 0xAB);
    std::string sixteen;
    for (int i = 0; i < 16; i++) {
        sixteen += "ab ";
    }
    EXPECT_EQ(test::output_of([&] { print_buf(bytes.data(), 17); }), "\n" + sixteen + "\nab \n");
}

TEST(PrintBuf, KeepsADumpTogether) {
    const std::vector<uint8_t> bytes(4096, 0xAB);
    const std::string dump = test::output_of([&] { print_buf(bytes.data(), 4096); });
    const std::string text = test::output_among_others([&] {
        for (int i = 0; i < 20; i++) {
            print_buf(bytes.data(), 4096);
        }
    });
    EXPECT_EQ(test::occurrences(text, dump), 20);
}

} // namespace
