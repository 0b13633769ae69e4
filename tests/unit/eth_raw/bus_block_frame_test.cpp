// One frame of the bus block protocol: what goes out, and which received frames are replies.
#include "eth_raw/bus_block.h"
#include "helpers/bus_frames.h"
#include "helpers/log_lines.h"
#include "stand_ins/fake_wire.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace bus_frames;

constexpr uint32_t kWrite = 0;
constexpr uint32_t kRead = 1;

class BusFrame : public testing::Test {
protected:
    void SetUp() override {
        wire_open(0);
    }
    void TearDown() override {
        wire_close(0);
    }
    int send(uint32_t n, const uint8_t *data, uint32_t type, uint32_t addr = 0x12345678) {
        return send_message_func_unit(&xfer, addr, n, data, type);
    }
    int receive(const Frame &frame, uint32_t n, uint32_t kind, uint32_t addr = 0x1000) {
        wire_deliver(frame);
        return recv_message_func_unit(&xfer, addr, n, dest.data(), kind);
    }
    sockaddr_ll address{};
    EthRawTrans xfer{1000, &address};
    Frame dest = Frame(9000, 0xEE);
};

// --- requests -----------------------------------------------------------------------------------

TEST_F(BusFrame, AWriteOfOneByteIsThis) {
    const uint8_t data = 0xA5;
    ASSERT_EQ(send(1, &data, kWrite), 0);
    Frame expected = {
        0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, // destination
        0x5A, 0x00, 0x00, 0x00,             // 90 bytes
        0x00, 0x00,                         // reserved, write
        0x07, 0x00, 0x00, 0x00,             // type, reserved
        0x78, 0x56, 0x34, 0x12,             // bus address
        0x01, 0x00, 0x00, 0x00,             // one byte
        0xA5,
    };
    expected.resize(88, 0);
    expected.push_back(0x1B); // 5A + 07 + 78 + 56 + 34 + 12 + 01 + A5 = 021B
    expected.push_back(0x02);
    ASSERT_EQ(wire_sent().size(), 1U);
    EXPECT_EQ(wire_sent()[0], expected);
    EXPECT_EQ(wire_descriptors()[0], 1000);
}

TEST_F(BusFrame, AReadRequestIsThisWhateverItAsksFor) {
    ASSERT_EQ(send_request_message_func(&xfer, 0x12345678, 8000), 0);
    Frame expected = {
        0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, 0x5A, 0x00, 0x00, 0x00, 0x00, 0x01,
        0x07, 0x00, 0x00, 0x00, 0x78, 0x56, 0x34, 0x12, 0x40, 0x1F, 0x00, 0x00,
    };
    expected.resize(88, 0);
    expected.push_back(0xD5); // 5A + 01 + 07 + 78 + 56 + 34 + 12 + 40 + 1F = 01D5
    expected.push_back(0x01);
    EXPECT_EQ(wire_sent().at(0), expected);
    for (const uint32_t n : {0U, 1U, 64U, 65U, 7999U}) {
        ASSERT_EQ(send_request_message_func(&xfer, 0xFFFFFFFF, n), 0);
        EXPECT_EQ(wire_sent().back(), read_request(0xFFFFFFFF, n)) << n;
    }
}

TEST_F(BusFrame, WritesOfEverySizeHaveTheirFrame) {
    const std::pair<uint32_t, size_t> sizes[] = {{0, 90},  {1, 90},  {63, 90},
                                                 {64, 90}, {65, 91}, {8000, 8026}};
    for (const auto &[n, frame_len] : sizes) {
        const Frame data = pattern(n);
        ASSERT_EQ(send(n, data.data(), kWrite), 0) << n;
        EXPECT_EQ(wire_sent().back().size(), frame_len);
        EXPECT_EQ(wire_sent().back(), write_request(0x12345678, data)) << n;
    }
}

TEST_F(BusFrame, TheChecksumWrapsAtSixteenBits) {
    const Frame data(8000, 0xFF);
    ASSERT_EQ(send(8000, data.data(), kWrite), 0);
    // 8000 x FF = 1F20C0; the header adds 5A + 1F + 07 + 78 + 56 + 34 + 12 + 40 + 1F = 01F3
    EXPECT_EQ(get(wire_sent().at(0), 8024, 2), 0x22B3U);
}

TEST_F(BusFrame, AReadRequestCarriesTheCallersBytesAndSumsAsManyAsItAsksFor) {
    const Frame filling(64, 0x01);
    for (const auto &[n, summed] : {std::pair{10U, 10U}, {64U, 64U}, {100U, 64U}, {8000U, 64U}}) {
        ASSERT_EQ(send(n, filling.data(), kRead), 0);
        const Frame frame = wire_sent().back();
        EXPECT_EQ(part(frame, 24, 64), filling);
        const Frame plain = read_request(0x12345678, n);
        EXPECT_EQ(get(frame, 88, 2), get(plain, 88, 2) + summed) << n;
    }
}

TEST_F(BusFrame, WhatDoesNotFitOneFrameIsRefused) {
    const Frame data(9000, 1);
    for (const uint32_t n : {8001U, 8025U, 0x10000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(send(n, data.data(), kWrite), -1) << n;
        EXPECT_EQ(send(n, data.data(), kRead), -1) << n;
    }
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(BusFrame, BadArgumentsSendNothing) {
    const uint8_t data[64] = {};
    EXPECT_EQ(send(1, data, 2), -1);
    EXPECT_EQ(send(1, data, 0xFFFFFFFF), -1);
    EXPECT_EQ(send(1, data, 256), -1);
    EXPECT_EQ(send(1, nullptr, kWrite), -1);
    EXPECT_EQ(send(0, nullptr, kRead), -1);
    EXPECT_EQ(send_message_func_unit(nullptr, 0, 1, data, kWrite), -1);
    xfer = {0, &address};
    EXPECT_EQ(send(1, data, kWrite), -1);
    xfer = {1000, nullptr};
    EXPECT_EQ(send(1, data, kWrite), -1);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(BusFrame, AFrameThatDoesNotGoOutInFullIsAFailure) {
    const uint8_t data = 1;
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(send(1, &data, kWrite), -1);
    wire_next_send(89, 0);
    EXPECT_EQ(send(1, &data, kWrite), -1);
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(test::messages_of([&] { EXPECT_EQ(send_request_message_func(&xfer, 0, 1), -1); }),
              "send request packet failed!!!(ret : -1)\n");
}

// --- judging ------------------------------------------------------------------------------------

TEST(BusJudge, ComparesBytesChecksumsAndLengths) {
    const uint8_t a[] = {1, 2, 3};
    const uint8_t b[] = {1, 2, 4};
    EXPECT_EQ(packet_header_judge(a, b, 2), 0);
    EXPECT_EQ(packet_header_judge(a, b, 3), -1);
    EXPECT_EQ(packet_header_judge(a, b, 0), 0);
    EXPECT_EQ(packet_checksum_judge(0x1234, 0x1234), 0);
    EXPECT_EQ(packet_checksum_judge(0x1234, 0x3412), -1);
    const Frame frame = read_back(0, pattern(300));
    EXPECT_EQ(packet_length_judge(frame.data(), 300), 0);
    EXPECT_EQ(packet_length_judge(frame.data(), 301), -1);
    EXPECT_EQ(packet_length_judge(frame.data(), 44), -1); // the low byte alone
}

TEST(BusJudge, SumsFromByteSixToTheChecksum) {
    const Frame frame(90, 0x01);
    EXPECT_EQ(packet_checksum_calc(frame.data(), 90), 82);
    EXPECT_EQ(packet_checksum_calc(frame.data(), 9), 1);
    for (uint32_t length = 0; length <= 8; length++) {
        EXPECT_EQ(packet_checksum_calc(frame.data(), length), 0) << length;
    }
    EXPECT_EQ(packet_checksum_calc(Frame(8026, 0xFF).data(), 8026), 8018 * 0xFF % 0x10000);
}

// In a block of exactly the frame's size, so that a sanitizer sees a read behind it.
int judge(const Frame &frame, uint32_t addr = 0x1000) {
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[frame.size()]);
    std::copy(frame.begin(), frame.end(), exact.get());
    return judge_packet(exact.get(), static_cast<uint32_t>(frame.size()), addr);
}

TEST(BusJudge, TakesRepliesOfEverySizeAndNothingShorter) {
    for (const size_t n : {0U, 1U, 63U, 64U, 65U, 8000U}) {
        EXPECT_EQ(judge(read_back(0x1000, pattern(n))), 0) << n;
    }
    const Frame reply = read_back(0x1000, pattern(65));
    const Frame ack = response(0x1000, 0);
    for (size_t size = 0; size < reply.size(); size++) {
        EXPECT_EQ(judge(part(reply, 0, size)), -1) << size;
    }
    for (size_t size = 0; size < ack.size(); size++) {
        EXPECT_EQ(judge(part(ack, 0, size)), -1) << size;
    }
    EXPECT_EQ(judge(ack), 0);
}

TEST(BusJudge, FindsTheChecksumByTheLengthNotByTheEnd) {
    Frame padded = read_back(0x1000, {0x42}); // 27 bytes, filled up by the hardware
    padded.resize(60, 0xCC);
    EXPECT_EQ(judge(padded), 0);
    Frame ack = response(0x1000, 0);
    ack.resize(200, 0xCC);
    EXPECT_EQ(judge(ack), 0);
}

TEST(BusJudge, RefusesEveryChangedByteThatCounts) {
    const Frame good = read_back(0x1000, pattern(65));
    for (size_t i = 0; i < good.size(); i++) {
        Frame bad = good;
        bad[i] ^= 0x10;
        EXPECT_EQ(judge(bad), -1) << i;
    }
    EXPECT_EQ(judge(good, 0x1001), -1);
    EXPECT_EQ(judge(good, 0x01001000), -1);
}

TEST(BusJudge, RefusesLengthsBelow26AndBeyondTheFrame) {
    for (const uint32_t length :
         {0U, 1U, 7U, 8U, 24U, 25U, 92U, 93U, 0x10000U + 91, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        Frame frame = read_back(0x1000, Frame(65, 0));
        put(frame, 6, length, 4);
        seal(frame);
        EXPECT_EQ(judge(frame), -1) << length;
    }
    Frame frame = read_back(0x1000, pattern(65));
    put(frame, 6, 26, 4);
    put(frame, 24, sum(frame, 24), 2); // the checksum of a frame of 26 bytes
    EXPECT_EQ(judge(frame), 0);
}

TEST(BusJudge, RefusesEveryOtherType) {
    for (unsigned type = 0; type < 256; type++) {
        Frame frame = read_back(0x1000, pattern(64)); // 90 bytes: also right as a response
        frame[11] = static_cast<uint8_t>(type);
        seal(frame);
        EXPECT_EQ(judge(frame), type == 2 || type == 3 ? 0 : -1) << type;
    }
}

// --- receiving ----------------------------------------------------------------------------------

TEST_F(BusFrame, ReadBackDataArriveAndNothingBehindThem) {
    for (const size_t n : {0U, 1U, 63U, 64U, 65U, 8000U}) {
        std::fill(dest.begin(), dest.end(), uint8_t{0xEE});
        EXPECT_EQ(receive(read_back(0x1000, pattern(n)), static_cast<uint32_t>(n), 2), 0) << n;
        EXPECT_EQ(part(dest, 0, n), pattern(n));
        EXPECT_EQ(dest[n], 0xEE);
    }
}

TEST_F(BusFrame, DataOfAnotherLengthAreRefused) {
    EXPECT_EQ(receive(read_back(0x1000, pattern(64)), 63, 2), -1);
    EXPECT_EQ(receive(read_back(0x1000, pattern(64)), 65, 2), -1);
    EXPECT_EQ(dest, Frame(9000, 0xEE));
}

TEST_F(BusFrame, MoreDataThanCameAreRefused) {
    for (const uint32_t n : {65U, 66U, 67U, 8000U, 8001U, 0xFFFFFFFFU}) {
        Frame frame = read_back(0x1000, pattern(64));
        put(frame, 20, n, 4);
        seal(frame);
        EXPECT_EQ(receive(frame, n, 2), -1) << n;
    }
    EXPECT_EQ(dest, Frame(9000, 0xEE));
    wire_deliver(read_back(0x1000, pattern(1)));
    EXPECT_EQ(recv_message_func_unit(&xfer, 0x1000, 1, nullptr, 2), -1);
}

TEST_F(BusFrame, AResponseEndsAReadWithoutData) {
    EXPECT_EQ(receive(response(0x1000, 0), 64, 2), 0);
    EXPECT_EQ(dest, Frame(9000, 0xEE));
    int result = 0;
    EXPECT_EQ(test::messages_of([&] { result = receive(response(0x1000, 0x80), 64, 2); }),
              "recv_message_func_unit:#:read back failed, ACK flag = 128.\n");
    EXPECT_EQ(result, -2);
}

TEST_F(BusFrame, KindThreeWantsAResponse) {
    EXPECT_EQ(receive(response(0x1000, 0), 0, 3), 1);
    EXPECT_EQ(test::messages_of([&] {
                  EXPECT_EQ(receive(response(0x1000, 5), 0, 3), -1);
                  EXPECT_EQ(receive(read_back(0x1000, pattern(64)), 64, 3), -1); // silently
              }),
              "recv_message_func_unit:#:failed, ACK flag = 5.\n");
    wire_deliver(response(0x1000, 0));
    EXPECT_EQ(recv_response_message_func(&xfer, 0x1000, 1), 0);
    wire_deliver(response(0x1000, 1));
    EXPECT_EQ(recv_response_message_func(&xfer, 0x1000, 1), -1);
    wire_deliver(read_back(0x1000, pattern(1)));
    EXPECT_EQ(recv_response_message_func(&xfer, 0x1000, 1), -1);
}

TEST_F(BusFrame, AnyOtherKindTakesEveryIntactReply) {
    for (const uint32_t kind : {0U, 1U, 4U, 0xFFFFFFFFU}) {
        EXPECT_EQ(receive(response(0x1000, 5), 0, kind), 0) << kind;
        EXPECT_EQ(receive(read_back(0x1000, pattern(9)), 1, kind), 0) << kind;
        EXPECT_EQ(receive(response(0x1001, 0), 0, kind), -1) << kind;
    }
    EXPECT_EQ(dest, Frame(9000, 0xEE));
}

TEST_F(BusFrame, FailedAndTooLongReceivesAreFailures) {
    for (const uint32_t kind : {2U, 3U, 0U}) {
        EXPECT_EQ(receive({}, 1, kind), -1); // an empty frame
        wire_deliver_failure(EAGAIN);
        EXPECT_EQ(recv_message_func_unit(&xfer, 0x1000, 1, dest.data(), kind), -1);
    }
    Frame longest = response(0x1000, 0);
    longest.resize(8046, 0);
    EXPECT_EQ(receive(longest, 0, 3), 1);
    for (const size_t size : {8047U, 8050U, 9000U}) {
        longest.resize(size, 0);
        EXPECT_EQ(receive(longest, 0, 3), -1) << size;
    }
    EXPECT_EQ(recv_message_func_unit(nullptr, 0, 1, dest.data(), 2), -1);
    xfer.addr = nullptr;
    EXPECT_EQ(recv_message_func_unit(&xfer, 0, 1, dest.data(), 2), -1);
}

TEST_F(BusFrame, AnHeaderOfOneByteIsCompared) {
    const uint8_t a[] = {1};
    const uint8_t b[] = {2};
    EXPECT_EQ(packet_header_judge(a, a, 1), 0);
    EXPECT_EQ(packet_header_judge(a, b, 1), -1);
    EXPECT_EQ(packet_header_judge(a, b, 0), 0);
}

// Behind its last byte nothing may be read.
TEST_F(BusFrame, AFrameThatEndsInItsHeaderIsNoReply) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *memory =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *end = static_cast<uint8_t *>(memory) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    const Frame good = response(0x1000, 0);
    for (const size_t size : {0U, 5U, 6U, 11U, 12U, 25U}) {
        std::copy_n(good.begin(), size, end - size);
        EXPECT_EQ(judge_packet(end - size, static_cast<uint32_t>(size), 0x1000), -1) << size;
    }
    (void)munmap(memory, 2 * page);
}

TEST_F(BusFrame, AReadBackIsNoResponseAndAResponseCarriedOutNoFailure) {
    wire_deliver(read_back(0x1000, {0}));
    wire_deliver(response(0x1000, 0));
    EXPECT_EQ(test::messages_of([&] {
                  EXPECT_EQ(recv_response_message_func(&xfer, 0x1000, 1), -1);
                  EXPECT_EQ(recv_response_message_func(&xfer, 0x1000, 1), 0);
              }),
              "");
}

TEST_F(BusFrame, NoBytesNeedNoPlace) {
    wire_deliver(read_back(0x1000, {}));
    EXPECT_EQ(recv_message_func_unit(&xfer, 0x1000, 0, nullptr, 2), 0);
}

TEST_F(BusFrame, ADescriptorIsUsableFromOneOn) {
    const uint8_t data = 1;
    xfer.sock_fd = 1;
    EXPECT_EQ(send(1, &data, kWrite), 0);
    xfer.sock_fd = 0;
    EXPECT_EQ(send(1, &data, kWrite), -1);
}

TEST_F(BusFrame, ReceivingReadBackLogsAllFailuresButARefusal) {
    wire_deliver(response(0x1001, 0));
    EXPECT_EQ(test::messages_of([&] {
                  EXPECT_EQ(recv_read_back_message_func(&xfer, 0x1000, 1, dest.data()), -1);
              }),
              "recv_read_back_message_func:#:recv_message_func_unit() failed(ret = -1).\n");
    wire_deliver(response(0x1000, 2));
    EXPECT_EQ(test::messages_of([&] {
                  EXPECT_EQ(recv_read_back_message_func(&xfer, 0x1000, 1, dest.data()), -2);
              }),
              "recv_message_func_unit:#:read back failed, ACK flag = 2.\n");
    wire_deliver(read_back(0x1000, {7}));
    EXPECT_EQ(test::messages_of([&] {
                  EXPECT_EQ(recv_read_back_message_func(&xfer, 0x1000, 1, dest.data()), 0);
              }),
              "");
}

} // namespace
