// The receive thread's loop on a link that the test plays: what it does with each kind of frame.
#include "eth_raw/eth_raw.h"
#include "helpers/output.h"
#include "log/log.h"
#include "main/main.h"
#include "mem/pool_counts.h"
#include "raw_msg/raw_msg.h"
#include "stand_ins/fake_wire.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

class Receive : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        sem_init(&sem_test, 0, 0);
        wire_open(0);
        ASSERT_EQ(pthread_create(&thread, nullptr, RawMsgRecv, nullptr), 0);
    }
    void TearDown() override {
        EXPECT_EQ(pthread_cancel(thread), 0);
        EXPECT_EQ(pthread_join(thread, nullptr), 0);
        wire_close(0);
    }
    static bool posted_in_time() {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 10;
        return sem_timedwait(&sem_test, &until) == 0;
    }
    static uint16_t write_one() {
        const uint8_t value = 1;
        EXPECT_EQ(RawSockSendOneMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, &value, 1), 0);
        return seq_of(wire_sent().back());
    }
    pthread_t thread{};
    uint8_t read_buf[1400] = {};
};

TEST_F(Receive, CompletesAWriteByEitherAcknowledgementCode) {
    for (const uint8_t code : {uint8_t{0x10}, uint8_t{0x11}}) {
        wire_deliver(make_reply(0, 1, 3, write_one(), code, 0x1000, {}));
        EXPECT_TRUE(posted_in_time());
        EXPECT_EQ(queue_get(0, ACK_QUEUE), nullptr);
    }
}

TEST_F(Receive, CompletesAReadByItsData) {
    EXPECT_EQ(RawSockSendMsgWithRead(0, 0, 1, 3, 0x1000, 0, 2, read_buf, nullptr), 0);
    wire_deliver(make_reply(0, 1, 3, seq_of(wire_sent().back()), 0, 0x1000, {7, 8}));
    EXPECT_TRUE(posted_in_time());
    EXPECT_EQ(read_buf[1], 8);
}

TEST_F(Receive, DropsRepliesOfOtherCodesFamiliesAndRequests) {
    const uint16_t seq = write_one();
    wire_deliver(make_reply(0, 1, 3, seq, 0x05, 0x1000, {}));  // no such code
    wire_deliver(make_reply(0, 1, 3, seq, 0x01, 0x1000, {}));  // a request's code
    wire_deliver(make_reply(0, 1, 3, seq, 0x00, 0x1000, {1})); // read data answer no write
    wire_deliver(Frame(60, 0xFF));                             // other traffic
    EXPECT_EQ(RawSockSendMsgWithRead(0, 0, 1, 3, 0x2000, 0, 2, read_buf, nullptr), 0);
    wire_deliver(make_reply(0, 1, 3, seq_of(wire_sent().back()), 0, 0x2000, {7, 8}));
    EXPECT_TRUE(posted_in_time()); // the read's: everything before it has been looked at
    EXPECT_NE(queue_get(0, ACK_QUEUE), nullptr);
    EXPECT_EQ(sem_trywait(&sem_test), -1);
    (void)queue_empty(0, ACK_QUEUE);
}

TEST_F(Receive, DumpsItsFramesAsReceivedAndLeavesTheSharedBufferAlone) {
    memset(gRecvBuffer, 0x77, sizeof gRecvBuffer);
    print_flag = 1;
    const std::string text = test::output_of([] {
        wire_deliver(make_reply(0, 1, 3, write_one(), 0x11, 0x1000, {}));
        EXPECT_TRUE(posted_in_time());
    });
    print_flag = 0;
    EXPECT_EQ(test::occurrences(text, "recv: \n\n44 44 44 44 44 44 eb 90 eb 90 eb 90 07 00 aa 55 "),
              1)
        << text;
    EXPECT_EQ(test::occurrences(text, "send: \n"), 1);
    EXPECT_EQ(gRecvBuffer[0], 0x77);
}

TEST_F(Receive, ARefusedWriteIsSentFourTimesForThreeRefusals) {
    const uint16_t seq = write_one();
    for (int i = 0; i < 3; i++) {
        wire_deliver(make_reply(2, 1, 3, seq, 0x11, 0x1000, {}));
    }
    ASSERT_TRUE(wire_await_sent(4));
    EXPECT_EQ(wire_sent()[0], wire_sent()[3]);
    wire_deliver(make_reply(0, 1, 3, seq, 0x11, 0x1000, {}));
    EXPECT_TRUE(posted_in_time());
}

TEST_F(Receive, PausesBetweenFailuresOfADeadLinkAndThenGoesOn) {
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    for (int i = 0; i < 5; i++) {
        wire_deliver_failure(ENETDOWN);
    }
    wire_deliver(make_reply(0, 1, 3, write_one(), 0x11, 0x1000, {}));
    EXPECT_TRUE(posted_in_time());
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);
    const double ms = static_cast<double>(after.tv_sec - before.tv_sec) * 1e3 +
                      static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e6;
    EXPECT_GE(ms, 50.0);
}

TEST(ReceiveOutOfRange, TheCheckThreadOfNoInterfaceEndsAtOnce) {
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, RawMsgAckReadCheck, reinterpret_cast<void *>(99)),
              0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
}

TEST(ModuleInit, StartsNothingForAnIndexBelowZero) {
    pthread_t receive{};
    pthread_t check{};
    log_debug = 1;
    const std::string text =
        test::output_of([&] { EXPECT_EQ(RawMsgModuleInit(-1, &receive, &check), 0); });
    log_debug = 0;
    EXPECT_EQ(text, "");
    EXPECT_EQ(receive, pthread_t{});
    EXPECT_EQ(check, pthread_t{});
}

TEST(ModuleInit, ReportsAnIndexThatDoesNotExistAndReturnsZero) {
    pthread_t receive{};
    pthread_t check{};
    log_debug = 1;
    const std::string text =
        test::output_of([&] { EXPECT_EQ(RawMsgModuleInit(3, &receive, &check), 0); });
    log_debug = 0;
    EXPECT_NE(text.find("init_netdev:"), std::string::npos);
    EXPECT_NE(text.find(":index(3) MAX_ETH(3).\n"), std::string::npos);
    EXPECT_TRUE(test::ends_as_log_line(text, "init_netdev(3) failed(-1).\n"));
    EXPECT_EQ(receive, pthread_t{});
    EXPECT_EQ(check, pthread_t{});
}

TEST(ModuleUnInit, ReturnsMinusOneAndClosesNothingThatWasNeverOpened) {
    EXPECT_EQ(RawMsgModuleUnInit(0), -1);
    EXPECT_EQ(RawMsgModuleUnInit(-1), -1);
    EXPECT_EQ(RawMsgModuleUnInit(99), -1);
    EXPECT_GE(fcntl(0, F_GETFD), 0) << "standard input was closed";
}

TEST(NetdevInit, OpensNothingForACountOfZeroAndRefusesMoreThanThree) {
    eth_init records[4] = {};
    EXPECT_EQ(netdev_init(records, 0), 0);
    EXPECT_EQ(netdev_init(records, 4), -1);
    EXPECT_EQ(records[0].flag, 0);
}

struct Handed {
    uint8_t first;
    uint32_t addr;
    uint32_t length;
} g_handed;

TEST(MsgRecv, HandsTheFirstReplyToTheCallback) {
    wire_open(0);
    read_buffer = [](const uint8_t *data, uint32_t addr, uint32_t length) {
        g_handed = {data[0], addr, length};
    };
    wire_deliver(Frame(60, 0xFF));
    wire_deliver(make_reply(0, 1, 3, 9, 0, 0x3000, {0x77, 0x78}));
    EXPECT_EQ(msg_recv(), 0);
    read_buffer = nullptr;
    wire_close(0);
    EXPECT_EQ(g_handed.first, 0x77);
    EXPECT_EQ(g_handed.addr, 0x3000U);
    EXPECT_EQ(g_handed.length, 2U);
}

} // namespace
