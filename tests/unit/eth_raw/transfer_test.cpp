#include "eth_raw/eth_raw.h"
#include "helpers/output.h"
#include "log/log.h"
#include "stand_ins/fake_clock.h"
#include "stand_ins/fake_wire.h"
#include "stand_ins/lock_count.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {

class Transfer : public testing::Test {
protected:
    void SetUp() override {
        wire_open(0);
        buf = RawMsgBuffGet(1400);
        ASSERT_NE(buf, nullptr);
        log_debug = 1;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        (void)testing::internal::GetCapturedStdout();
        (void)testing::internal::GetCapturedStderr();
        log_debug = 0;
        print_flag = 0;
        RawMsgBuffFree(buf);
        wire_close(0);
    }
    int send(uint32_t len) const {
        return RawSockMsgSend(0, 1, 3, 0x1000, 0x11, 5, buf, len);
    }
    static std::string printed() {
        std::string text = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return text;
    }
    static std::string complained() {
        std::string text = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return text;
    }
    uint8_t *buf = nullptr;
};

TEST_F(Transfer, RefusesBadArgumentsSilently) {
    EXPECT_EQ(send(0), -1);
    EXPECT_EQ(send(1401), -1);
    EXPECT_EQ(RawSockMsgSend(0, 1, 3, 0, 1, 0, nullptr, 1), -1);
    EXPECT_EQ(RawSockMsgSend(3, 1, 3, 0, 1, 0, buf, 1), -1);
    EXPECT_EQ(RawSockMsgSendAgain(3, buf, 94), -1);
    EXPECT_EQ(RawSockMsgSendAgain(0, nullptr, 94), -1);
    EXPECT_EQ(RawSockMsgSendAgain(0, buf, 1431), -1);
    EXPECT_TRUE(wire_sent().empty());
    EXPECT_EQ(printed() + complained(), "");
}

TEST_F(Transfer, SendsAFrameOf1430BytesFor1400) {
    EXPECT_EQ(send(1400), 1430);
    ASSERT_EQ(wire_sent().size(), 1U);
    EXPECT_EQ(wire_sent()[0].size(), 1430U);
}

TEST_F(Transfer, SendsAReadAs94BytesFromALargeBuffer) {
    EXPECT_EQ(RawSockMsgSend(0, 1, 3, 0x1000, 0, 5, buf, 1400), 94);
    EXPECT_EQ(wire_sent().at(0).size(), 94U);
}

TEST_F(Transfer, SendsTheSameBytesAgain) {
    buf[0] = 0x42;
    const int frame_len = send(1);
    EXPECT_EQ(RawSockMsgSendAgain(0, buf, static_cast<uint32_t>(frame_len)), frame_len);
    ASSERT_EQ(wire_sent().size(), 2U);
    EXPECT_EQ(wire_sent()[0], wire_sent()[1]);
}

TEST_F(Transfer, ReportsAFailedAndAShortSend) {
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(send(1), -1);
    EXPECT_EQ(complained(), "sendto fail:: Network is down\n");
    wire_next_send(93, 0);
    EXPECT_EQ(send(1), -1);
    EXPECT_EQ(complained(), "sendto fail:: Success\n");
    EXPECT_EQ(wire_sent().size(), 2U);
}

TEST_F(Transfer, SendsTheLongestFrameAgain) {
    EXPECT_EQ(RawSockMsgSendAgain(0, buf, 1430), 1430);
}

// A thread that is cancelled in the middle of a transmission would leave the lock locked.
TEST_F(Transfer, SendsUnderTheLinksLockWhileNobodyCancels) {
    errno = 0;
    const test::LockUse use = test::locks_of([this] { EXPECT_EQ(send(1), 94); });
    EXPECT_EQ(use.deepest, 2); // under it that of the wire which the test plays
    EXPECT_EQ(use.kept, 0);
    EXPECT_EQ(use.cancellable, 0);
}

TEST_F(Transfer, SendsOnceMoreWhenTheSendFailedWithEagain) {
    wire_next_send(-1, EAGAIN);
    wire_next_send(kWholeFrame, 0);
    EXPECT_EQ(send(1), 94);
    EXPECT_EQ(wire_sent().size(), 2U);
    EXPECT_NE(printed().find("]:: need send again\n"), std::string::npos);
}

TEST_F(Transfer, PausesForAMillisecondBeforeItSendsOnceMore) {
    wire_next_send(-1, EAGAIN);
    const FakeClock clock({.tv_sec = 5, .tv_nsec = 0});
    EXPECT_EQ(send(1), 94);
    EXPECT_EQ(clock.deadline().tv_sec, 5);
    EXPECT_EQ(clock.deadline().tv_nsec, 1000000);
}

// The pause of one sender is no gap for the frame of another.
TEST_F(Transfer, SendsOneFrameAtATime) {
    for (int i = 0; i < 20; i++) {
        wire_open(0);
        wire_next_send(-1, EAGAIN);
        std::thread other([this] {
            uint8_t *theirs = RawMsgBuffGet(1);
            while (wire_sent().empty()) {
                std::this_thread::yield();
            }
            errno = 0;
            EXPECT_EQ(RawSockMsgSend(0, 1, 3, 0x2000, 1, 0, theirs, 1), 94);
            RawMsgBuffFree(theirs);
        });
        errno = 0;
        EXPECT_EQ(send(1), 94);
        other.join();
        const std::vector<Frame> sent = wire_sent();
        ASSERT_EQ(sent.size(), 3U);
        EXPECT_EQ(addr_of(sent[0]), 0x1000U);
        EXPECT_EQ(addr_of(sent[1]), 0x1000U);
        EXPECT_EQ(addr_of(sent[2]), 0x2000U);
    }
}

TEST_F(Transfer, SendsOnceMoreForAnOldEagainAlthoughTheFrameIsOut) {
    errno = EAGAIN;
    EXPECT_EQ(send(1), 94);
    EXPECT_EQ(wire_sent().size(), 2U);
}

TEST_F(Transfer, GivesTheResultOfTheSecondSend) {
    wire_next_send(kWholeFrame, EAGAIN);
    wire_next_send(-1, ENOBUFS);
    EXPECT_EQ(send(1), -1);
    EXPECT_EQ(complained(), "sendto fail:: No buffer space available\n");
}

TEST_F(Transfer, ReleasesTheSendLockAfterAFailure) {
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(send(1), -1);
    EXPECT_EQ(send(1), 94);
}

TEST_F(Transfer, NeverUsesDescriptorZeroOfALinkThatWasNeverOpened) {
    wire_close(0);
    EXPECT_EQ(send(1), -1);
    EXPECT_EQ(complained(), "sendto fail:: Bad file descriptor\n");
    EXPECT_EQ(RawSockMsgSendAgain(0, buf, 94), -1);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Transfer, FailsForANegativeIndexWithoutTouchingARecord) {
    EXPECT_EQ(RawSockMsgSend(-1, 1, 3, 0, 1, 0, buf, 1), -1);
    EXPECT_EQ(RawSockMsgSendAgain(-1, buf, 94), -1);
    EXPECT_TRUE(wire_sent().empty());
    EXPECT_EQ(complained(), "sendto fail:: No such device\nsendto fail:: No such device\n");
}

TEST_F(Transfer, DumpsASentFrameInLinesOf16Bytes) {
    print_flag = 1;
    buf[0] = 0x01;
    EXPECT_EQ(send(1), 94);
    EXPECT_EQ(printed(), "send: \n"
                         "\neb 90 eb 90 eb 90 44 44 44 44 44 44 07 00 55 aa "
                         "\n01 00 03 05 00 11 00 10 00 00 01 00 01 00 00 00 "
                         "\n00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                         "\n00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                         "\n00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                         "\n00 00 00 00 00 00 00 00 00 00 00 00 81 55 \n");
}

TEST_F(Transfer, DumpsAFailedReceiveAsAnEmptyFrame) {
    print_flag = 1;
    wire_deliver_failure(ENETDOWN);
    uint8_t b = 0;
    uint16_t w = 0;
    uint32_t d = 0;
    EXPECT_EQ(RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w), nullptr);
    EXPECT_EQ(printed(), "recv: \n\n");
}

TEST_F(Transfer, DumpsNothingWithoutTheSwitch) {
    print_msg(buf, 16);
    EXPECT_EQ(printed(), "");
}

TEST_F(Transfer, LeavesErrnoAloneWhileItDumps) {
    print_flag = 1;
    errno = EPROTO;
    print_msg(buf, 3);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(printed(), "send: \n\n00 00 00 \n");
}

TEST_F(Transfer, DumpsTheReceiveBufferAsReceived) {
    print_flag = 1;
    print_msg(gRecvBuffer, 0);
    EXPECT_EQ(printed(), "recv: \n\n");
}

// A report that cannot be written must not look like a reason to send once more.
TEST_F(Transfer, LeavesErrnoAloneWhenADumpCannotBeWritten) {
    print_flag = 1;
    (void)fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    (void)dup2(full, STDOUT_FILENO);
    errno = 0;
    print_msg(std::vector<uint8_t>(10000).data(), 10000); // more than a stream keeps back
    EXPECT_EQ(errno, 0);
    (void)fflush(stdout);
    clearerr(stdout);
    (void)dup2(saved, STDOUT_FILENO);
    (void)close(saved);
    (void)close(full);
}

TEST_F(Transfer, KeepsADumpTogetherAmongOthersLines) {
    print_flag = 1;
    (void)testing::internal::GetCapturedStdout();
    const std::vector<uint8_t> frame(1430);
    std::string expected = "send: \n";
    for (size_t i = 0; i < frame.size(); i++) {
        expected += i % 16 == 0 ? "\n00 " : "00 ";
    }
    const std::string text = test::output_among_others([&] {
        for (int i = 0; i < 100; i++) {
            print_msg(frame.data(), static_cast<int>(frame.size()));
        }
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(test::occurrences(text, expected + "\n"), 100);
}

// A host may have closed its standard input.
TEST_F(Transfer, ReceivesFromDescriptorZeroOfAnOpenLink) {
    g_eth_init[0].flag = 1;
    g_eth_init[0].sock_fd = 0;
    wire_deliver(make_reply(7, 1, 3, 5, 0, 9, {0xAA}));
    uint8_t ack = 0;
    uint8_t slot = 0;
    uint8_t code = 0;
    uint16_t model = 0;
    uint16_t seq = 0;
    uint16_t len = 0;
    uint32_t addr = 0;
    EXPECT_NE(RawSockMsgRecv(0, &ack, &model, &slot, &addr, &code, &seq, &len), nullptr);
    EXPECT_EQ(ack, 7);
}

TEST_F(Transfer, ReceivesAReplyIntoTheSharedBuffer) {
    wire_deliver(make_reply(7, 0x0102, 3, 0x0405, 0, 0x06070809, {0xAA, 0xBB}));
    uint8_t ack = 0;
    uint8_t slot = 0;
    uint8_t code = 0xFF;
    uint16_t model = 0;
    uint16_t seq = 0;
    uint16_t len = 0;
    uint32_t addr = 0;
    const uint8_t *data = RawSockMsgRecv(0, &ack, &model, &slot, &addr, &code, &seq, &len);
    ASSERT_EQ(data, gRecvBuffer + 29);
    EXPECT_EQ(data[0], 0xAA);
    EXPECT_EQ(data[1], 0xBB);
    EXPECT_EQ(ack, 7);
    EXPECT_EQ(model, 0x0102);
    EXPECT_EQ(slot, 3);
    EXPECT_EQ(seq, 0x0405);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(addr, 0x06070809U);
    EXPECT_EQ(len, 2);
}

TEST_F(Transfer, ReceivesNothingFromForeignEmptyOrFailedFrames) {
    uint8_t b = 0;
    uint16_t w = 0;
    uint32_t d = 0;
    wire_deliver(Frame(60, 0xFF));
    EXPECT_EQ(RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w), nullptr);
    wire_deliver({});
    EXPECT_EQ(RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w), nullptr);
    // A whole reply still lies in the buffer when the next receive fails.
    wire_deliver(make_reply(0, 1, 2, 3, 0, 4, {5}));
    EXPECT_NE(RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w), nullptr);
    wire_deliver_failure(ENETDOWN);
    EXPECT_EQ(RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w), nullptr);
    EXPECT_EQ(printed(), "");
}

TEST_F(Transfer, ReceivesNothingOnAnIndexOutOfRangeOrANeverOpenedLink) {
    uint8_t b = 0;
    uint16_t w = 0;
    uint32_t d = 0;
    EXPECT_EQ(RawSockMsgRecv(3, &b, &w, &b, &d, &b, &w, &w), nullptr);
    EXPECT_EQ(RawSockMsgRecv(-1, &b, &w, &b, &d, &b, &w, &w), nullptr);
    EXPECT_EQ(RawSockMsgRecv(1, &b, &w, &b, &d, &b, &w, &w), nullptr);
}

TEST_F(Transfer, RefusesAReplyThatIsCutByTheReceiveBuffer) {
    wire_deliver(make_reply(0, 1, 2, 3, 0, 4, std::vector<uint8_t>(1420, 1)));
    uint8_t b = 0;
    uint16_t w = 0;
    uint32_t d = 0;
    EXPECT_EQ(RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w), nullptr);
    EXPECT_NE(printed().find("recv packet crc error:0x"), std::string::npos);
}

} // namespace
