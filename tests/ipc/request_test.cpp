// request_test.cpp - the bytes of every request, against what was written by hand.
#include "request.h"

#include "service.h"

#include <gtest/gtest.h>

namespace {

using ipc::Arguments;
using ipc::Request;
using test::Bytes;
using test::from_hex;

constexpr ipc::Origin kOrigin{.address = 0x030AC100, .seq = 0x1234};

// 24 bytes of message head are the same in all of them.
const char *const kHead = R"(
    00 c1 0a 03   # sender: slot 3, module c1
    00 00 00 00   # reserved
    00 00 00 00   # data_len
    00 00 00 00   # result
    00 00 1c 00   # kind 0, class 28
    00 00 00 00   # msg_id
)";

struct Row {
    std::vector<const char *> words;
    const char *rest; // from offset 24 on
};

const Row kRows[] = {
    {{"--slot", "4", "--model", "102", "read", "10000", "10"},
     R"(c1 fe 00 04   # src, id, code, slot
        02 01 34 12   # model, seq
        00 00 01 00   # addr
        0a 00 00 00   # len, two spare bytes)"},
    {{"--slot", "4", "--id", "f0", "write", "7040", "1", "ab", "0xff"},
     R"(c1 f0 01 04  00 00 34 12  40 70 00 00  03 00
        01 ab ff      # data
        00 00         # spare)"},
    {{"--slot", "4", "write-ack", "0x12345678", "5a"},
     R"(c1 fe 02 04  00 00 34 12  78 56 34 12  01 00
        5a  00 00)"},
    {{"--slot", "2", "put-picture", "ffffffff", "641", "33", "/a.bmp"},
     R"(c1 fe ee 02  00 00 34 12  ff ff ff ff  0f 00
        81 02 00 00  21 00 00 00        # width, height
        2f 61 2e 62 6d 70 00            # /a.bmp and its NUL
        00 00)"},
    {{"--slot", "2", "get-picture", "0", "0x10", "3", "/b"},
     R"(c1 fe dd 02  00 00 34 12  00 00 00 00  0b 00
        10 00 00 00  03 00 00 00  2f 62 00  00 00)"},
    {{"--slot", "7", "--model=ffff", "update", "19", "/f.bin"},
     R"(c1 fe ef 07  ff ff 34 12  00 00 00 00  0b 00
        19 00 00 00  2f 66 2e 62 69 6e 00  00 00)"},
    {{"hello", "hi"}, R"(c1 fe f0 01  00 00 34 12  00 00 00 00  03 00  68 69 00  00 00)"},
};

TEST(Request, HasTheBytesThatTheServiceExpects) {
    for (const Row &row : kRows) {
        Arguments arguments;
        ASSERT_EQ(ipc::parse_arguments(row.words, arguments), "");
        const auto total = arguments.len + static_cast<uint32_t>(arguments.bytes.size());
        const Request request =
            ipc::build_request(arguments, ipc::piece_at(total, 0), arguments.bytes, kOrigin);
        EXPECT_EQ(request.bytes, from_hex(std::string(kHead) + row.rest)) << row.rest;
    }
}

TEST(Request, IsSplitAtWhatOneFrameCarries) {
    struct Split {
        uint32_t total;
        std::vector<uint32_t> lens;
    };
    const Split kSplits[] = {
        {1, {1}},
        {1400, {1400}},
        {1401, {1400, 1}},
        {2800, {1400, 1400}},
        {4000, {1400, 1400, 1200}},
    };
    for (const Split &split : kSplits) {
        ASSERT_EQ(ipc::piece_count(split.total), split.lens.size()) << split.total;
        for (uint32_t i = 0; i < split.lens.size(); i++) {
            EXPECT_EQ(ipc::piece_at(split.total, i).offset, i * 1400) << split.total;
            EXPECT_EQ(ipc::piece_at(split.total, i).len, split.lens[i]) << split.total;
        }
    }
    EXPECT_EQ(ipc::piece_count(0), 1U); // what is no transfer is one request
}

TEST(Request, OfAPieceStandsAtItsOffset) {
    Arguments arguments;
    const char *const words[] = {"read", "20000", "4000"};
    ASSERT_EQ(ipc::parse_arguments(words, arguments), "");
    const Request last = ipc::build_request(arguments, ipc::piece_at(4000, 2), {}, kOrigin);
    EXPECT_EQ(last.addr, 0x20000U + 2800);
    EXPECT_EQ(test::number_at(last.bytes, 32, 4), 0x20000U + 2800);
    EXPECT_EQ(test::number_at(last.bytes, 36, 2), 1200U);
}

// The service writes these without acknowledgement, so waiting for one would be in vain.
TEST(Request, ExpectsNoAcknowledgementWhereTheServiceAsksForNone) {
    struct Case {
        std::vector<const char *> words;
        ipc::ReplyKind reply;
    };
    const Case kCases[] = {
        {{"--slot", "1", "write-ack", "0fffffff", "1"}, ipc::ReplyKind::kNone},
        {{"--slot", "1", "write-ack", "10000000", "1"}, ipc::ReplyKind::kHeader},
        {{"--slot", "2", "write-ack", "0", "1"}, ipc::ReplyKind::kHeader},
        {{"--slot", "1", "--model", "1", "write-ack", "0", "1"}, ipc::ReplyKind::kHeader},
    };
    for (const Case &row : kCases) {
        Arguments arguments;
        ASSERT_EQ(ipc::parse_arguments(row.words, arguments), "");
        EXPECT_EQ(ipc::build_request(arguments, {0, 1}, arguments.bytes, kOrigin).reply, row.reply);
    }
    Arguments arguments;
    const char *const words[] = {"write-ack", "0fffffff", "1", "2"};
    ASSERT_EQ(ipc::parse_arguments(words, arguments), "");
    const Request second = ipc::build_request(arguments, {1, 1}, {}, kOrigin);
    EXPECT_EQ(second.reply, ipc::ReplyKind::kHeader) << "each piece has its own address";
}

} // namespace
