#include "ap_msg/ap_msg.h"
#include "ap_msg/reply.h"
#include "helpers/log_lines.h"
#include "helpers/service_message.h"
#include "helpers/temp_files.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "stand_ins/fake_board.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <unistd.h>

namespace {

constexpr uint32_t kOwn = 0x020A3B00; // on slot 2
constexpr uint32_t kPeer = 0x020A3C00;
constexpr uint32_t kFailed = 0xFFFFFFFF;
const Bytes kData = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4};

class Service : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        board_reset();
        handed_out = mem_handed_out();
    }
    void TearDown() override {
        EXPECT_EQ(mem_handed_out(), handed_out) << "a message buffer was not given back";
    }

    static std::string log_of_deal(const Bytes &message, int expected_result = 0) {
        return test::log_of([&] { EXPECT_EQ(deal(message), expected_result); });
    }
    static void expect_silence() {
        EXPECT_EQ(card_calls(), std::vector<CardCall>());
        EXPECT_EQ(board_messages(), std::vector<SentMessage>());
    }

    int64_t handed_out = 0;
};

std::string dump_of(const Bytes &message) {
    std::string text;
    for (const uint8_t byte : message) {
        char two[8];
        (void)snprintf(two, sizeof two, "%02x ", byte);
        text += two;
    }
    return text + "\n";
}

// ---- reads

TEST_F(Service, AnswersAReadByteForByte) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, {0x71, 0x72, 0x73}}; });
    const MessageFields fields{.len = 3};
    const std::string log = log_of_deal(message_with(fields));
    EXPECT_EQ(log, request_line(fields) + "|RawSockSendMsgWithReadWait response ok\n");
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{read_of(0, 0x1234, 5, 0x00ABCDEF, 3, 6)}));
    const Bytes reply = {
        0x00, 0x3B, 0x0A, 0x02,    // own address
        0xE4, 0xE3, 0xE2, 0xE1,    // reserved, as it came
        3,    0,    0,    0,       // data_len
        0,    0,    0,    0,       // result
        0,    0,    28,   0,       // kind, class
        0xB4, 0xB3, 0xB2, 0xB1,    // message id, as it came
        0x3B, 0xFE, 0,    5,       // src, id, code, slot
        0x34, 0x12, 0x42, 0x41,    // model, seq
        0xEF, 0xCD, 0xAB, 0x00,    // addr
        3,    0,                   // len
        0x71, 0x72, 0x73, 0,    0, // the bytes and two spare ones
    };
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, reply}}));
}

TEST_F(Service, AnswersAReadOfOneByteWith41) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, {0x71}}; });
    const Bytes message = message_with({.len = 1, .data = {0xA0, 0xA1, 0xA2}});
    EXPECT_EQ(deal(message), 0);
    // The second data byte is the request's: the header has two of them.
    Bytes reply = reply_to(message, kOwn, 0, 1);
    reply[38] = 0x71;
    reply[39] = 0xA1;
    reply.push_back(0);
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, reply}}));
}

TEST_F(Service, AnswersTheLongestReadWith1440Bytes) {
    const Bytes data = test::pattern(1400);
    card_answers_reads([&](const CardCall &) { return ReadAnswer{0, data}; });
    const Bytes message = message_with({.len = 1400});
    EXPECT_EQ(deal(message), 0);
    Bytes reply = reply_to(message, kOwn, 0, 1400);
    reply.resize(38);
    reply.insert(reply.end(), data.begin(), data.end());
    reply.resize(1440);
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, reply}}));
}

TEST_F(Service, TellsHowManyBytesCameNotHowManyWereAskedFor) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, {1, 2, 3, 4}}; });
    EXPECT_EQ(deal(message_with({.len = 65535})), 0);
    EXPECT_EQ(card_calls().at(0).len, 65535U); // the transaction layer decides
    const Bytes reply = board_messages().at(0).bytes;
    EXPECT_EQ(reply.size(), 44U);
    EXPECT_EQ(reply.at(8), 4);
    EXPECT_EQ(deal(message_with({.len = 0})), 0);
    EXPECT_EQ(card_calls().at(1).len, 0U);
}

TEST_F(Service, AnswersAFailedReadWithTheHeaderOnly) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{-1, {}}; });
    const MessageFields fields{.len = 4, .data = {0xA0, 0xA1, 0xA2, 0xA3}};
    const Bytes message = message_with(fields);
    EXPECT_EQ(log_of_deal(message),
              request_line(fields) + "|RawSockSendMsgWithReadWait response not ok\n");
    EXPECT_EQ(board_messages(),
              (std::vector<SentMessage>{{0x040A5500, reply_to(message, kOwn, kFailed, 0)}}));
    EXPECT_EQ(board_messages()[0].bytes.size(), 40U);
}

TEST_F(Service, TellsNoLengthOfAFailedReadThatBroughtBytes) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{-1, {9, 9, 9}}; });
    EXPECT_EQ(deal(message_with({.len = 3})), 0);
    const Bytes reply = board_messages().at(0).bytes;
    EXPECT_EQ(reply.size(), 40U);
    EXPECT_EQ(reply[8], 0);
    EXPECT_EQ(reply[12], 0xFF);
}

TEST_F(Service, WaitsHalfAsLongForTheNearSlot) {
    for (const int slot : {0, 1, 2, 0x7F, 0x80, 0xFF}) {
        card_reset();
        EXPECT_EQ(deal(message_with({.slot = static_cast<uint8_t>(slot), .len = 2})), 0);
        EXPECT_EQ(card_calls().at(0).ticks, slot == 1 ? 3 : 6) << slot;
        EXPECT_EQ(card_calls().at(0).slot, slot);
    }
}

TEST_F(Service, ReadsThroughInterface0ForEveryTargetId) {
    for (const int id : {0, 1, 2, 15, 0x3C, 0xF0, 0xFD, 0xFE, 0xFF}) {
        card_reset();
        EXPECT_EQ(deal(message_with({.id = static_cast<uint8_t>(id), .len = 2})), 0);
        EXPECT_EQ(card_calls().at(0).index, 0) << id;
    }
}

TEST_F(Service, DropsAReadWithoutABuffer) {
    const MessageFields fields{.len = 3};
    {
        (void)mem_uinit(); // nothing recycled
        const HeapLimit limit(1440);
        EXPECT_EQ(log_of_deal(message_with(fields), -1),
                  request_line(fields) + "|RawMsgBuffGet fail\n");
        expect_silence();
    }
    EXPECT_EQ(deal(message_with(fields)), 0);
    EXPECT_EQ(board_messages().size(), 1U);
}

// ---- the service's own address

TEST_F(Service, AnswersUnderTheAddressOfItsSlot) {
    for (const int slot : {0, 1, 0x7F, 0x80, 0x85, 0xFF}) {
        board_reset();
        board_has_slot(slot); // asked for afresh each time
        EXPECT_EQ(deal(message_with({.len = 1})), 0);
        EXPECT_EQ(deal(message_with({.code = 2, .data = kData})), 0);
        EXPECT_EQ(deal(message_with({.code = 0xF0})), 0);
        const auto messages = board_messages();
        ASSERT_EQ(messages.size(), 3U);
        for (const SentMessage &message : messages) {
            EXPECT_EQ(Bytes(message.bytes.begin(), message.bytes.begin() + 4),
                      (Bytes{0x00, 0x3B, 0x0A, static_cast<uint8_t>(slot)}));
        }
    }
}

// As a module that is built with the header walks through them.
TEST_F(Service, ListsFourUnitsOfEachCardFamily) {
    for (const std::span<const message::Unit> list :
         {std::span(message::kFirstFamilyUnits), std::span(message::kSecondFamilyUnits)}) {
        ASSERT_EQ(list.size_bytes(), 80U);
        size_t units = 0;
        for (; list[units][0] != 0xFFFFFFFF; units++) {
            ASSERT_LT(units, 4U);
            EXPECT_EQ(list[units], (message::Unit{3, 8, 0x3A1D0, 0}));
        }
        EXPECT_EQ(units, 4U);
        EXPECT_EQ(list[units], (message::Unit{0xFFFFFFFF, 0, 0, 0}));
    }
}

TEST_F(Service, RegistersUnderTheAddressOfItsSlot) {
    board_has_slot(0x7F);
    EXPECT_EQ(PmdApipcInit(), 0);
    board_has_slot(0xFF);
    board_answers_registration(-5);
    EXPECT_EQ(PmdApipcInit(), -5);
    const auto registrations = board_registrations();
    ASSERT_EQ(registrations.size(), 2U);
    EXPECT_EQ(registrations[0].aptid, 0x7F0A3B00U);
    EXPECT_EQ(registrations[1].aptid, 0xFF0A3B00U);
    EXPECT_EQ(registrations[0].flags, 0);
}

// ---- plain writes

TEST_F(Service, WritesWithoutAReply) {
    const MessageFields fields{.code = 1, .data = kData};
    EXPECT_EQ(log_of_deal(message_with(fields)), request_line(fields));
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{plain_write(0, 0x1234, 5, 0x00ABCDEF, kData)}));
    EXPECT_EQ(board_messages().size(), 0U);
}

TEST_F(Service, LogsAPlainWriteThatFails) {
    card_answers_plain_writes(-1);
    const MessageFields fields{.code = 1, .data = kData};
    EXPECT_EQ(log_of_deal(message_with(fields)),
              request_line(fields) + "|ApipcDataProc RawSockSendMsg fail\n");
    EXPECT_EQ(board_messages().size(), 0U);
}

TEST_F(Service, WritesNoMoreThanLenBytes) {
    EXPECT_EQ(deal(message_with({.code = 1, .len = 2, .data = kData})), 0);
    EXPECT_EQ(deal(message_with({.code = 1, .len = 0, .data = {}})), 0);
    EXPECT_EQ(card_calls(),
              (std::vector<CardCall>{plain_write(0, 0x1234, 5, 0x00ABCDEF, {0xA0, 0xA1}),
                                     plain_write(0, 0x1234, 5, 0x00ABCDEF, {})}));
}

TEST_F(Service, WritesAsManyBytesAsTheFieldCanTell) {
    const Bytes data = test::pattern(65535);
    EXPECT_EQ(deal(message_with({.code = 1, .data = data})), 0);
    EXPECT_EQ(deal(message_with({.code = 2, .data = data})), 0);
    EXPECT_EQ(card_calls(),
              (std::vector<CardCall>{plain_write(0, 0x1234, 5, 0x00ABCDEF, data),
                                     acked_write(0, 0x1234, 5, 0x00ABCDEF, data, 6)}));
}

// ---- acknowledged writes

TEST_F(Service, AnswersAnAcknowledgedWriteByteForByte) {
    const MessageFields fields{.code = 2, .data = kData};
    EXPECT_EQ(log_of_deal(message_with(fields)),
              request_line(fields) + "|RawSockSendMsgWithAckWait response ok\n");
    EXPECT_EQ(card_calls(),
              (std::vector<CardCall>{acked_write(0, 0x1234, 5, 0x00ABCDEF, kData, 6)}));
    const Bytes reply = {
        0x00, 0x3B, 0x0A, 0x02, // own address
        0xE4, 0xE3, 0xE2, 0xE1, // reserved, as it came
        0,    0,    0,    0,    // data_len
        0,    0,    0,    0,    // result
        0,    0,    28,   0,    // kind, class
        0xB4, 0xB3, 0xB2, 0xB1, // message id, as it came
        0x3B, 0xFE, 2,    5,    // src, id, code, slot
        0x34, 0x12, 0x42, 0x41, // model, seq
        0xEF, 0xCD, 0xAB, 0x00, // addr
        5,    0,    0xA0, 0xA1, // len, the request's first two data bytes
    };
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, reply}}));
}

TEST_F(Service, AnswersAWriteThatNobodyAcknowledgesWithAFailure) {
    card_answers_acked_writes(-1, 255);
    for (const uint32_t aptid : {kPeer, 0x040A5500U}) {
        board_reset();
        const MessageFields fields{.aptid = aptid, .code = 2, .data = kData};
        const Bytes message = message_with(fields);
        EXPECT_EQ(log_of_deal(message),
                  request_line(fields) + "|RawSockSendMsgWithAckWait response not ok\n");
        EXPECT_EQ(board_messages(),
                  (std::vector<SentMessage>{{aptid, reply_to(message, kOwn, kFailed, 0)}}));
    }
}

TEST_F(Service, AnswersAWriteThatTheCardRefusesAsDone) {
    card_answers_acked_writes(0, 3);
    const Bytes message = message_with({.code = 2, .data = kData});
    EXPECT_EQ(deal(message), 0);
    EXPECT_EQ(board_messages(),
              (std::vector<SentMessage>{{0x040A5500, reply_to(message, kOwn, 0, 0)}}));
}

TEST_F(Service, AnswersAnEmptyAcknowledgedWrite) {
    const Bytes message = message_with({.code = 2, .data = {}});
    EXPECT_EQ(deal(message), 0);
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{acked_write(0, 0x1234, 5, 0x00ABCDEF, {}, 6)}));
    EXPECT_EQ(board_messages().size(), 1U);
}

// Which acknowledged writes go out as plain ones, without a reply.
struct AckedWrite {
    uint32_t aptid;
    uint32_t addr;
    uint16_t model;
    uint8_t slot;
    bool is_acknowledged;
};
constexpr AckedWrite kAckedWrites[] = {
    {0x040A5500, 0x00000000, 0, 1, false}, {0x040A5500, 0x0FFFFFFF, 0, 1, false},
    {0x040A5500, 0x10000000, 0, 1, true},  {0x040A5500, 0x80000000, 0, 1, true},
    {0x040A5500, 0xF0000000, 0, 1, true},  {0x040A5500, 0x00001000, 0, 0, true},
    {0x040A5500, 0x00001000, 0, 2, true},  {0x040A5500, 0x00001000, 0, 0x81, true},
    {0x040A5500, 0x00001000, 1, 1, true},  {0x040A5500, 0x00001000, 0x100, 1, true},
    {kPeer, 0x00001000, 0, 1, true},       {kPeer, 0x0FFFFFFF, 0, 1, true},
    {kPeer, 0x10000000, 7, 5, true},       {0x030A3C00, 0x00001000, 0, 1, false}, // another slot's
    {0x020A3C01, 0x00001000, 0, 1, false}, {0x020A3A00, 0x00001000, 0, 1, false},
    {kOwn, 0x00001000, 0, 1, false},
};

TEST_F(Service, SendsTheNearCardsLowAddressesAsPlainWrites) {
    for (const AckedWrite &w : kAckedWrites) {
        card_reset();
        board_reset();
        const MessageFields fields{.aptid = w.aptid,
                                   .code = 2,
                                   .slot = w.slot,
                                   .model = w.model,
                                   .addr = w.addr,
                                   .data = kData};
        const Bytes message = message_with(fields);
        const std::string log = log_of_deal(message);
        if (w.is_acknowledged) {
            EXPECT_EQ(log, request_line(fields) + "|RawSockSendMsgWithAckWait response ok\n");
            EXPECT_EQ(card_calls(),
                      (std::vector<CardCall>{acked_write(0, w.model, w.slot, w.addr, kData, 6)}));
            EXPECT_EQ(board_messages(),
                      (std::vector<SentMessage>{{w.aptid, reply_to(message, kOwn, 0, 0)}}));
        } else {
            EXPECT_EQ(log, request_line(fields));
            EXPECT_EQ(card_calls(), (std::vector<CardCall>{plain_write(0, 0, 1, w.addr, kData)}));
            EXPECT_EQ(board_messages().size(), 0U);
        }
    }
}

TEST_F(Service, KnowsTheLocalPeerOnHighSlotsToo) {
    for (const uint32_t slot : {0x7FU, 0x80U, 0xFFU}) {
        card_reset();
        board_has_slot(static_cast<int>(slot));
        const MessageFields fields{.aptid = slot << 24 | 0x0A3C00,
                                   .code = 2,
                                   .slot = 1,
                                   .model = 0,
                                   .addr = 0x10,
                                   .data = kData};
        EXPECT_EQ(deal(message_with(fields)), 0);
        EXPECT_EQ(card_calls(), (std::vector<CardCall>{acked_write(0, 0, 1, 0x10, kData, 6)}));
        EXPECT_EQ(board_messages().back().aptid, slot << 24 | 0x0A3C00);
    }
}

TEST_F(Service, LogsAnUnacknowledgedAcknowledgedWriteThatFails) {
    card_answers_plain_writes(-1);
    const MessageFields fields{.code = 2, .slot = 1, .model = 0, .addr = 16, .data = kData};
    EXPECT_EQ(log_of_deal(message_with(fields)),
              request_line(fields) + "|ApipcDataProc RawSockSendMsgWithAck fail\n");
    EXPECT_EQ(board_messages().size(), 0U);
}

// ---- short requests and their replies

TEST_F(Service, FillsTheHeaderOfAReplyToAShortRequestWithZeros) {
    for (const size_t size : {38U, 39U}) {
        for (const int code : {0, 2}) {
            board_reset();
            card_answers_reads([](const CardCall &) { return ReadAnswer{-1, {}}; });
            const Bytes message = message_with({.code = static_cast<uint8_t>(code),
                                                .len = code == 0 ? 4 : 0,
                                                .data = Bytes(size - 38, 0xA0)});
            ASSERT_EQ(message.size(), size);
            EXPECT_EQ(deal(message), 0);
            const auto messages = board_messages();
            ASSERT_EQ(messages.size(), 1U);
            EXPECT_EQ(messages[0].bytes, reply_to(message, kOwn, code == 0 ? kFailed : 0, 0));
            EXPECT_EQ(messages[0].bytes[38], size == 39 ? 0xA0 : 0);
            EXPECT_EQ(messages[0].bytes[39], 0);
        }
    }
}

TEST_F(Service, LeavesNothingOfWhatWasInTheHeaderBefore) {
    const Bytes message = message_with({});
    ASSERT_EQ(message.size(), 38U);
    Bytes header(40, 0xEE);
    write_reply_header(header.data(), message, kFailed, 0);
    EXPECT_EQ(header, reply_to(message, kOwn, kFailed, 0));
}

// ---- the greeting, and texts

Bytes greeting() {
    Bytes bytes = {
        0x00, 0x3B, 0x0A, 0x02,              // own address
        0,    0,    0,    0,                 // reserved
        72,   0,    0,    0,                 // data_len
        0,    0,    0,    0,                 // result
        0,    0,    28,   0,                 // kind, class
        46,   0,    0,    0,                 // message id
        0,    0,    0xF0, 0,    0,  0, 0, 0, // src, id, code, slot, model, seq
        0,    0,    0,    0,    32, 0,       // addr, len
    };
    const std::string text = "Hello, I am ruk module!";
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.resize(112);
    return bytes;
}

TEST_F(Service, GreetsBack) {
    const Bytes text = {'H', 'i', ' ', 't', 'h', 'e', 'r', 'e', 0, 'x'};
    const MessageFields fields{.code = 0xF0, .data = text};
    EXPECT_EQ(log_of_deal(message_with(fields)),
              request_line(fields) + "|++++++++++recv msg: ' Hi there ' \n"
                                     "|send ' Hello, I am ruk module! ' ret : 17\n");
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, greeting()}}));
    EXPECT_EQ(card_calls().size(), 0U);
}

TEST_F(Service, GreetsNobodyWithoutABuffer) {
    (void)mem_uinit();
    const HeapLimit limit(1440);
    const MessageFields fields{.code = 0xF0, .data = {'x', 0}};
    EXPECT_EQ(log_of_deal(message_with(fields)),
              request_line(fields) + "|++++++++++recv msg: ' x ' \n|RawMsgBuffGet fail");
    EXPECT_EQ(test::log_of([] { apipc_test(); }), "|RawMsgBuffGet fail");
    expect_silence();
}

TEST_F(Service, EndsATextAtTheEndOfTheData) {
    for (const int code : {0xF0, 0x03, 0x10, 0x11, 0xFF}) {
        const MessageFields fields{.code = static_cast<uint8_t>(code), .data = {'a', 'b', 'c'}};
        const std::string log = log_of_deal(message_with(fields));
        EXPECT_TRUE(log.starts_with(request_line(fields) + "|++++++++++recv msg: ' abc ' \n"))
            << log;
        const MessageFields empty{.code = static_cast<uint8_t>(code), .data = {}};
        EXPECT_TRUE(log_of_deal(message_with(empty))
                        .starts_with(request_line(empty) + "|++++++++++recv msg: '  ' \n"));
    }
}

// Everything that the table of codes does not name.
TEST_F(Service, OnlyLogsRequestsThatItDoesNotKnow) {
    for (int code = 0; code < 256; code++) {
        if (code <= 2 || code == 0xDD || code == 0xEE || code == 0xEF || code == 0xF0) {
            continue;
        }
        const MessageFields fields{.code = static_cast<uint8_t>(code),
                                   .len = 60000, // means nothing here
                                   .data = {'?', 0}};
        EXPECT_EQ(log_of_deal(message_with(fields)),
                  request_line(fields) + "|++++++++++recv msg: ' ? ' \n");
    }
    expect_silence();
}

TEST_F(Service, SendsATestRequest) {
    board_has_slot(0x85);
    EXPECT_EQ(test::log_of([] { apipc_test(); }), "|send ret : 17\n");
    Bytes expected = {
        0x00, 0x3B, 0x0A, 0x85,              // own address
        0,    0,    0,    0,                 // reserved
        40,   0,    0,    0,                 // data_len
        0,    0,    0,    0,                 // result
        0,    0,    0,    0,    0,  0, 0, 0, // kind, class, message id
        0,    0xFE, 0,    0,    0,  0, 0, 0, // src, id, code, slot, model, seq
        0x00, 0x00, 0x01, 0x00, 10, 0,       // addr, len
    };
    expected.resize(50);
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x850A3A00, expected}}));
}

TEST_F(Service, GreetsAGivenModule) {
    (void)test::output_of([] { apipc_first(static_cast<int>(0xFF0A0100)); });
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0xFF0A0100, greeting()}}));
}

// ---- which messages it takes

TEST_F(Service, RefusesNoMessage) {
    EXPECT_EQ(ApipcEventDeal(0, 0, nullptr, 100), -1);
    expect_silence();
}

TEST_F(Service, TakesKinds0And1OfItsClass) {
    for (const int kind : {0, 1}) {
        board_reset();
        EXPECT_EQ(deal(message_with({.kind = kind, .len = 1})), 0);
        ASSERT_EQ(board_messages().size(), 1U) << kind;
        EXPECT_EQ(board_messages()[0].bytes[16], kind);
    }
}

TEST_F(Service, DumpsMessagesOfAnotherKindOrClass) {
    const MessageFields others[] = {
        {.kind = 2, .len = 1},
        {.kind = -1, .len = 1},
        {.kind = 0x100, .len = 1},
        {.message_class = 29, .len = 1},
        {.message_class = 27, .len = 1},
        {.message_class = -28, .len = 1},
        {.message_class = 0x1C00, .len = 1},
        {.message_class = 0, .len = 1},
        {.kind = 2, .code = 1, .len = 100, .data = {1}}, // not whole either
    };
    for (const MessageFields &fields : others) {
        const Bytes message = message_with(fields);
        EXPECT_EQ(log_of_deal(message), "|msg type wrong\n" + dump_of(message));
    }
    expect_silence();
}

TEST_F(Service, KeepsADumpTogether) {
    const Bytes message = message_with({.kind = 2, .data = Bytes(4096, 0xAB)});
    const std::string text = test::output_among_others([&] {
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(deal(message), 0);
        }
    });
    EXPECT_EQ(test::occurrences(text, dump_of(message)), 20);
}

TEST_F(Service, RefusesMessagesWithoutARequestHead) {
    const Bytes whole = message_with({.len = 1, .data = {1, 2}});
    for (size_t size = 0; size <= 40; size++) {
        card_reset();
        board_reset();
        const Bytes message(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        const std::string log = log_of_deal(message);
        if (size < 38) {
            EXPECT_EQ(log, "|ap_msg: message of " + std::to_string(size) +
                               " bytes: shorter than its heads of 38 bytes\n" + dump_of(message));
            expect_silence();
        } else {
            EXPECT_EQ(board_messages().size(), 1U) << size;
        }
    }
}

TEST_F(Service, TakesANegativeLengthForNone) {
    Bytes message = message_with({.len = 1});
    EXPECT_EQ(test::log_of([&] { EXPECT_EQ(ApipcEventDeal(0, 0, message.data(), -5), 0); }),
              "|ap_msg: message of -5 bytes: shorter than its heads of 38 bytes\n\n");
    expect_silence();
}

// Each would answer the other's reply, or its own, for ever.
TEST_F(Service, SendsNoReplyToRequestServices) {
    board_has_slot(5);
    for (const uint32_t sender : {0x050A3B00U, 0x050A3B07U, 0x020A3B00U, 0xFF0A3BFFU}) {
        char line[80];
        (void)snprintf(line, sizeof line, "|ap_msg: reply to 0x%x: a request service, not sent\n",
                       sender);
        for (const int code : {0x00, 0x02, 0xF0}) {
            for (const int link : {0, -1}) {
                card_answers_reads([link](const CardCall &) { return ReadAnswer{link, {1, 2}}; });
                const Bytes message = message_with(
                    {.aptid = sender, .code = static_cast<uint8_t>(code), .data = kData});
                EXPECT_NE(log_of_deal(message).find(line), std::string::npos);
            }
        }
        Bytes head = message_with({.aptid = sender, .code = 0xEE, .data = kData});
        Bytes kind(4);
        EXPECT_NE(test::log_of([&] { EXPECT_EQ(write_file_resp(head.data(), 0), -1); }).find(line),
                  std::string::npos);
        head = message_with({.aptid = sender, .code = 0xEF, .data = kData});
        EXPECT_NE(test::log_of([&] {
                      EXPECT_EQ(update_file_resp(head.data(), kind.data(), 0), -1);
                  }).find(line),
                  std::string::npos);
    }
    EXPECT_TRUE(board_messages().empty());
    for (const uint32_t sender : {0x050B3B00U, 0x050A3A00U, 0x050A3C00U}) {
        (void)log_of_deal(message_with({.aptid = sender, .code = 0xF0}));
    }
    EXPECT_EQ(board_messages().size(), 3U);
}

TEST_F(Service, NamesTheRequesterWhoTakesNoReply) {
    const MessageFields read{.len = 2};
    const MessageFields write{.code = 0x02, .data = kData};
    const MessageFields greeting{.code = 0xF0};
    for (const MessageFields &request : {read, write, greeting}) {
        for (const int link : {0, -1}) {
            card_answers_reads([link](const CardCall &) { return ReadAnswer{link, {1, 2}}; });
            card_answers_acked_writes(link, 0);
            const struct {
                int error;
                const char *reason;
            } rows[] = {{0, "no reason given"}, {EAGAIN, "Resource temporarily unavailable"}};
            for (const auto &row : rows) {
                board_answers_sends(-1, row.error);
                const std::string log = test::log_of([&request] {
                    errno = 0;
                    (void)deal(message_with(request));
                    EXPECT_EQ(errno, 0); // EAGAIN would send the next frame twice
                });
                EXPECT_NE(log.find("|ap_msg: reply to 0x40a5500: not delivered, result -1, " +
                                   std::string(row.reason) + "\n"),
                          std::string::npos)
                    << log;
            }
            board_answers_sends(0);
            EXPECT_EQ(log_of_deal(message_with(request)).find("not delivered"), std::string::npos);
        }
    }
}

TEST_F(Service, RefusesDataThatRunPastTheEnd) {
    for (const int code : {0x01, 0x02, 0xEE, 0xDD, 0xEF}) {
        for (const int len : {6, 7, 1000, 65535}) {
            const Bytes message =
                message_with({.code = static_cast<uint8_t>(code), .len = len, .data = kData});
            EXPECT_EQ(log_of_deal(message),
                      "|ap_msg: message of 43 bytes: its " + std::to_string(len) +
                          " bytes of data end behind it\n" + dump_of(message));
        }
    }
    expect_silence();
}

TEST_F(Service, RefusesFileRequestsLongerThanTheirPlace) {
    for (const int code : {0xEE, 0xDD, 0xEF}) {
        const MessageFields longest{.code = static_cast<uint8_t>(code), .data = Bytes(1010, 'x')};
        EXPECT_EQ(log_of_deal(message_with(longest)), request_line(longest));
        for (const size_t len : {1011U, 65535U}) {
            const Bytes message =
                message_with({.code = static_cast<uint8_t>(code), .data = Bytes(len, 'x')});
            EXPECT_EQ(log_of_deal(message),
                      "|ap_msg: message of " + std::to_string(38 + len) +
                          " bytes: more than a file request's 1010 bytes of data\n" +
                          dump_of(message));
        }
    }
    expect_silence();
}

TEST_F(Service, CarriesOutARequestThatItIsHandedInParts) {
    Bytes message = message_with({.code = 2, .data = kData});
    EXPECT_EQ(ApipcDataProc(message.data(), message.data() + 24), 0);
    EXPECT_EQ(card_calls(),
              (std::vector<CardCall>{acked_write(0, 0x1234, 5, 0x00ABCDEF, kData, 6)}));
    EXPECT_EQ(board_messages(),
              (std::vector<SentMessage>{{0x040A5500, reply_to(message, kOwn, 0, 0)}}));
}

// A read's len counts bytes of the reply. The message is as short as any that is sent: 40 bytes.
TEST_F(Service, CarriesOutAReadThatItIsHandedInParts) {
    const Bytes message = message_with({.len = 200, .data = {0xA0, 0xA1}});
    const auto exact = std::make_unique<uint8_t[]>(message.size());
    std::copy(message.begin(), message.end(), exact.get());
    EXPECT_EQ(ApipcDataProc(exact.get(), exact.get() + 24), 0);
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{read_of(0, 0x1234, 5, 0x00ABCDEF, 200, 6)}));
    EXPECT_EQ(board_messages().at(0).bytes.size(), 240U);
    (void)mem_uinit();
    const HeapLimit limit(1440);
    EXPECT_EQ(ApipcDataProc(exact.get(), exact.get() + 24), -1);
}

TEST_F(Service, RefusesAFileRequestLongerThanItsPlaceThatItIsHandedInParts) {
    Bytes message = message_with({.code = 0xEE, .data = Bytes(1011, 'x')});
    EXPECT_EQ(
        test::log_of([&] { EXPECT_EQ(ApipcDataProc(message.data(), message.data() + 24), 0); }),
        "|ap_msg: message of 1049 bytes: more than a file request's 1010 bytes of data\n");
    expect_silence();
}

TEST_F(Service, AnswersAFileRequestUnderItsOwnName) {
    board_has_slot(0x85);
    for (const int result : {0, -1, 7}) {
        board_reset();
        Bytes head = message_with({.code = 0xEE, .data = kData});
        head.resize(40);
        const Bytes expected = reply_to(head, kOwn, static_cast<uint32_t>(result), 0);
        EXPECT_EQ(test::log_of([&] { EXPECT_EQ(write_file_resp(head.data(), result), 17); }),
                  result == 0 ? "|write file response ok\n" : "|write file response not ok\n");
        EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, expected}}));
    }
}

// ---- the receive thread

void *as_argument(intptr_t index) {
    return reinterpret_cast<void *>(index); // NOLINT(performance-no-int-to-ptr)
}

TEST_F(Service, PinsTheProcessToTheIndexsProcessor) {
    struct Row {
        int index;
        int processor; // -1: none
    };
    board_answers_registration(-1); // so that the body returns
    for (const Row &row : {Row{0, 1}, Row{1, 1}, Row{2, 2}, Row{3, 3}, Row{4, 3}, Row{1023, 3},
                           Row{1024, 3}, Row{-1, -1}}) {
        (void)test::output_of([&] { EXPECT_EQ(ApMsgRecv(as_argument(row.index)), nullptr); });
        const Pinning pinning = board_pinnings().back();
        EXPECT_EQ(pinning.pid, getpid());
        EXPECT_EQ(pinning.size, 128U);
        cpu_set_t expected;
        CPU_ZERO(&expected);
        if (row.processor >= 0) {
            CPU_SET(static_cast<size_t>(row.processor), &expected);
        }
        EXPECT_TRUE(CPU_EQUAL(&pinning.processors, &expected)) << row.index;
    }
}

TEST_F(Service, EndsItsThreadWhenItCannotRegister) {
    board_answers_registration(1);
    board_answers_pinning(-1);
    const std::string thread = std::to_string(gettid());
    EXPECT_EQ(test::log_of([] { EXPECT_EQ(ApMsgRecv(as_argument(2)), nullptr); }),
              "|ApMsgRecv : index 2 sched_setaffinity failed\n"
              "|pmd thread id : " +
                  thread +
                  " index = 2\n"
                  "|create apipc pmd fail\n");
    EXPECT_EQ(board_registrations().size(), 1U);
}

TEST_F(Service, ServesMessageAfterMessage) {
    const Bytes bad = message_with({.kind = 9});
    const Bytes read = message_with({.len = 4});
    board_delivers({read, bad, {}, read, read});
    const std::string log = test::log_of([] {
        EXPECT_EQ(PmdApRecvTaskCreate(as_argument(1)), 0);
        const auto threads = board_threads();
        ASSERT_EQ(threads.size(), 1U);
        pthread_join(threads[0].thread, nullptr);
    });
    EXPECT_EQ(log.find("|pmd thread id : "), 0U) << log;
    EXPECT_NE(log.find(" index = 1\n|create apipc pmd succeed\n|aptid:"), std::string::npos) << log;
    EXPECT_EQ(board_messages().size(), 3U);
    EXPECT_EQ(board_registrations().at(0).aptid, kOwn);
}

TEST_F(Service, StartsARealTimeThread) {
    board_creates_threads(Creation::kIsKeptBack);
    EXPECT_EQ(PmdApRecvTaskCreate(as_argument(2)), 0);
    const auto threads = board_threads();
    ASSERT_EQ(threads.size(), 1U);
    EXPECT_TRUE(threads[0].has_attributes);
    EXPECT_EQ(threads[0].inherits, PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(threads[0].policy, SCHED_FIFO);
    EXPECT_EQ(threads[0].priority, 88);
    EXPECT_EQ(threads[0].body, ApMsgRecv);
    EXPECT_EQ(threads[0].argument, as_argument(2));
}

TEST_F(Service, ReportsAThreadThatCannotBeCreated) {
    board_creates_threads(Creation::kFails);
    EXPECT_EQ(test::log_of([] { EXPECT_EQ(PmdApRecvTaskCreate(nullptr), -1); }),
              "|failed to create thread \n");
}

// ---- any bytes at all

constexpr uint8_t kCodes[] = {0x00, 0x01, 0x02, 0xEE, 0xDD, 0xEF, 0xF0, 0x03, 0xFF};

Bytes random_message(std::mt19937 &random) {
    Bytes bytes(random() % 4 == 0 ? random() % 48 : random() % 1600);
    for (uint8_t &byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

// A good request with some bytes changed, cut or grown.
Bytes mutated_message(std::mt19937 &random) {
    MessageFields fields{.code = kCodes[random() % std::size(kCodes)],
                         .slot = static_cast<uint8_t>(random() % 3),
                         .model = static_cast<uint16_t>(random() % 2),
                         .data = Bytes(random() % 1100, 'x')};
    if (random() % 3 == 0) {
        fields.len = static_cast<int>(random() % 65536);
    }
    Bytes bytes = message_with(fields);
    for (uint32_t changes = random() % 4; changes > 0; changes--) {
        bytes[random() % 46 % bytes.size()] = static_cast<uint8_t>(random());
    }
    if (random() % 4 == 0) {
        bytes.resize(random() % (bytes.size() + 20));
    }
    return bytes;
}

TEST_F(Service, GoesOnServingAfterAnyMessage) {
    std::mt19937 random(20260101); // the same messages in every run
    card_answers_reads([&](const CardCall &call) {
        const size_t size = random() % 5 == 0 ? 1400 : std::min(call.len, 1400U);
        return ReadAnswer{random() % 4 == 0 ? -1 : 0, Bytes(size, 0x77)};
    });
    size_t carried_out = 0;
    size_t answered = 0;
    for (int i = 0; i < 10000; i++) {
        const Bytes message = i % 4 == 0 ? random_message(random) : mutated_message(random);
        (void)test::output_of([&] { EXPECT_EQ(deal(message), 0); });
        for (const SentMessage &reply : board_messages()) {
            ASSERT_GE(reply.bytes.size(), 40U);
            ASSERT_LE(reply.bytes.size(), 1440U);
        }
        carried_out += card_calls().size();
        answered += board_messages().size();
        board_reset();
        if (i % 100 == 0) {
            card_answers_plain_writes(i % 200 == 0 ? -1 : 0);
        }
    }
    EXPECT_GT(carried_out, 1000U); // most mutations are still requests
    EXPECT_GT(answered, 1000U);

    card_reset();
    const Bytes read = message_with({.len = 2});
    card_answers_reads([](const CardCall &) { return ReadAnswer{0, {1, 2}}; });
    EXPECT_EQ(deal(read), 0);
    Bytes reply = reply_to(read, kOwn, 0, 2);
    reply[38] = 1;
    reply[39] = 2;
    reply.resize(42);
    EXPECT_EQ(board_messages(), (std::vector<SentMessage>{{0x040A5500, reply}}));
}

} // namespace
