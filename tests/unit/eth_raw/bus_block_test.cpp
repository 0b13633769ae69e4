// Whole blocks, the semaphore around them, and their start and end.
#include "eth_raw/bus_block.h"
#include "helpers/bus_frames.h"
#include "helpers/log_lines.h"
#include "stand_ins/fake_semaphore.h"
#include "stand_ins/fake_wire.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <pthread.h>

namespace {

using namespace bus_frames;
using Calls = std::vector<std::string>;

const Calls kTakenAndGivenBack = {"change 77 -1", "change 77 1"};

int g_netdev_result = 0;
std::vector<uint32_t> g_netdev_counts;

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int __wrap_netdev_init(eth_init *records, uint32_t count);

int __wrap_netdev_init(eth_init *records, uint32_t count) {
    g_netdev_counts.push_back(count);
    for (uint32_t i = 0; i < count && records == g_eth_init; i++) {
        records[i].sock_fd = static_cast<int32_t>(1000 + i);
    }
    return g_netdev_result;
}

} // extern "C"
#pragma GCC visibility pop

namespace {

class BusBlock : public testing::Test {
protected:
    void SetUp() override {
        wire_open(0);
        semaphore_reset();
        g_netdev_result = 0;
        g_netdev_counts.clear();
        ASSERT_EQ(Open_Eth_Raw(handles, 3), 0);
        (void)semaphore_calls();
        xfer = handles[0];
    }
    void TearDown() override {
        for (eth_init &record : g_eth_init) {
            record = {};
        }
    }
    // What is logged on the way to a result.
    template <typename Action>
    std::string log_of(int expected, Action action) {
        return test::messages_of([&] { EXPECT_EQ(action(), expected); });
    }
    EthRawTrans handles[3] = {};
    EthRawTrans xfer{};
};

// The first test of this program: nothing has opened the semaphore yet.
TEST(BusSemaphore, IsNoneBeforeTheFirstOpening) {
    semaphore_reset();
    (void)semaphore_p();
    EXPECT_EQ(semaphore_calls(), Calls{"change -1 -1"});
}

TEST_F(BusBlock, ABlockOfNoBytesNeedsNoPlace) {
    EXPECT_EQ(write_process_func(&xfer, 0x1000, 0, nullptr), 0);
    EXPECT_EQ(read_process_func(&xfer, 0x1000, 0, nullptr), 0);
    EXPECT_TRUE(wire_sent().empty());
    EXPECT_EQ(set_semvalue(), 0);
}

// --- writing ------------------------------------------------------------------------------------

TEST_F(BusBlock, AWriteOf16001BytesIsThreeFrames) {
    const Frame data = pattern(16001);
    ASSERT_EQ(Write_FPGA_Bus_Block(&xfer, 0x10000, 16001, data.data()), 0);
    const auto sent = wire_sent();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0], write_request(0x10000, part(data, 0, 8000)));
    EXPECT_EQ(sent[1], write_request(0x10000 + 8000, part(data, 8000, 8000)));
    EXPECT_EQ(sent[2], write_request(0x10000 + 16000, part(data, 16000, 1)));
    EXPECT_EQ(sent[2].size(), 90U);
    EXPECT_EQ(semaphore_calls(), kTakenAndGivenBack);
}

TEST_F(BusBlock, WritesOfEverySizeAreTheirPieces) {
    const std::pair<uint32_t, std::vector<size_t>> sizes[] = {{0, {}},
                                                              {1, {90}},
                                                              {63, {90}},
                                                              {64, {90}},
                                                              {65, {91}},
                                                              {7999, {8025}},
                                                              {8000, {8026}},
                                                              {8001, {8026, 90}},
                                                              {16000, {8026, 8026}},
                                                              {16065, {8026, 8026, 91}}};
    for (const auto &[length, frames] : sizes) {
        wire_open(0);
        const Frame data = pattern(length);
        const uint8_t nothing = 0;
        EXPECT_EQ(Write_FPGA_Bus_Block(&xfer, 0, length, length == 0 ? &nothing : data.data()), 0);
        std::vector<size_t> sent;
        for (const Frame &frame : wire_sent()) {
            sent.push_back(frame.size());
        }
        EXPECT_EQ(sent, frames) << length;
    }
}

TEST_F(BusBlock, AddressesWrap) {
    const Frame data = pattern(8001);
    ASSERT_EQ(Write_FPGA_Bus_Block(&xfer, 0xFFFFFFFF, 8001, data.data()), 0);
    EXPECT_EQ(get(wire_sent().at(1), 16, 4), 7999U);
}

TEST_F(BusBlock, AFailedWriteIsTriedThreeTimesAndStillGivesTheReleasesResult) {
    const Frame data = pattern(8001);
    wire_next_send(-1, ENETDOWN); // first attempt: the first piece
    wire_next_send(kWholeFrame, 0);
    wire_next_send(-1, ENETDOWN); // second attempt: the remainder
    wire_next_send(8025, 0);      // third attempt: cut short
    EXPECT_EQ(log_of(0, [&] { return Write_FPGA_Bus_Block(&xfer, 0, 8001, data.data()); }),
              "write_process_func:#:send_message_func_unit() failed(i = 0, ret = -1).\n"
              "write_process_func:#:send_message_func_unit() failed(ret = -1).\n"
              "write_process_func:#:send_message_func_unit() failed(i = 0, ret = -1).\n"
              "Write_FPGA_Bus_Block:#:write_process_func() failed.\n");
    EXPECT_EQ(wire_sent().size(), 4U);
    EXPECT_EQ(semaphore_calls(), kTakenAndGivenBack);
}

TEST_F(BusBlock, TheThirdAttemptMaySucceed) {
    const uint8_t data = 1;
    wire_next_send(-1, ENETDOWN);
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(log_of(0, [&] { return Write_FPGA_Bus_Block(&xfer, 0, 1, &data); }),
              "write_process_func:#:send_message_func_unit() failed(ret = -1).\n"
              "write_process_func:#:send_message_func_unit() failed(ret = -1).\n");
    EXPECT_EQ(wire_sent().size(), 3U);
}

TEST_F(BusBlock, TheSecondPieceIsNamedInTheLog) {
    const Frame data = pattern(16000);
    wire_next_send(kWholeFrame, 0);
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(log_of(-1, [&] { return write_process_func(&xfer, 0, 16000, data.data()); }),
              "write_process_func:#:send_message_func_unit() failed(i = 1, ret = -1).\n");
    EXPECT_TRUE(semaphore_calls().empty());
    EXPECT_EQ(write_process_func(&xfer, 0, 1, nullptr), -1);
    EXPECT_EQ(write_process_func(nullptr, 0, 1, data.data()), -1);
}

// --- wrong arguments ----------------------------------------------------------------------------

TEST_F(BusBlock, WrongArgumentsAreNamedAndTakeNothing) {
    Frame data(64, 0);
    const auto each = [&](EthRawTrans *to, uint32_t length, uint8_t *bytes,
                          const std::string &name) {
        const std::string line = ":#:invalid parameter(" + name + ").\n";
        EXPECT_EQ(log_of(-1, [&] { return Write_FPGA_Bus_Block(to, 0, length, bytes); }),
                  "Write_FPGA_Bus_Block" + line);
        EXPECT_EQ(log_of(-1, [&] { return Read_FPGA_Bus_Block(to, 0, length, bytes); }),
                  "Read_FPGA_Bus_Block" + line);
    };
    EthRawTrans closed{0, xfer.addr};
    EthRawTrans negative{-1, xfer.addr};
    EthRawTrans nowhere{xfer.sock_fd, nullptr};
    each(nullptr, 1, data.data(), "xfer");
    each(&closed, 1, data.data(), "xfer");
    each(&negative, 1, data.data(), "xfer");
    each(&nowhere, 1, data.data(), "xfer");
    each(&nowhere, 0x4000001, nullptr, "xfer"); // the first one counts
    each(&xfer, 0x4000001, nullptr, "data");
    each(&xfer, 0x4000001, data.data(), "length");
    each(&xfer, 0xFFFFFFFF, data.data(), "length");
    EXPECT_TRUE(wire_sent().empty());
    EXPECT_TRUE(semaphore_calls().empty());
}

TEST_F(BusBlock, ALengthOfZeroTakesTheSemaphoreAndSendsNothing) {
    uint8_t data = 0;
    EXPECT_EQ(Write_FPGA_Bus_Block(&xfer, 0, 0, &data), 0);
    EXPECT_EQ(Read_FPGA_Bus_Block(&xfer, 0, 0, &data), 0);
    EXPECT_TRUE(wire_sent().empty());
    EXPECT_EQ(semaphore_calls().size(), 4U);
}

TEST_F(BusBlock, TheLargestLengthIs64MiB) {
    const std::vector<uint8_t> data(0x4000000);
    wire_next_send(-1, ENETDOWN); // it does begin to send
    wire_next_send(-1, ENETDOWN);
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(Write_FPGA_Bus_Block(&xfer, 0, 0x4000000, data.data()), 0);
    EXPECT_EQ(wire_sent().size(), 3U);
}

// --- the semaphore ------------------------------------------------------------------------------

TEST_F(BusBlock, WithoutTheSemaphoreNothingIsSent) {
    uint8_t data = 0;
    semaphore_fail_next("change", EIDRM);
    EXPECT_EQ(log_of(-1, [&] { return Write_FPGA_Bus_Block(&xfer, 0, 1, &data); }),
              "semaphore_p:#:semaphore P func failed\n");
    semaphore_fail_next("change", EINVAL);
    EXPECT_EQ(log_of(-1, [&] { return Read_FPGA_Bus_Block(&xfer, 0, 1, &data); }),
              "semaphore_p:#:semaphore P func failed\n");
    EXPECT_TRUE(wire_sent().empty());
    EXPECT_EQ(semaphore_calls(), (Calls{"change 77 -1", "change 77 -1"}));
}

TEST_F(BusBlock, AFailedReleaseIsTheResultOfASuccessfulTransfer) {
    uint8_t data = 0;
    semaphore_fail_next("change", 0); // the taking works, the giving back does not
    semaphore_fail_next("change", EIDRM);
    EXPECT_EQ(log_of(-1, [&] { return Write_FPGA_Bus_Block(&xfer, 0, 1, &data); }),
              "semaphore_v:#:semaphore V func failed\n");
    EXPECT_EQ(wire_sent().size(), 1U);
    semaphore_fail_next("change", 0);
    semaphore_fail_next("change", EIDRM);
    wire_deliver(read_back(0, {9}));
    EXPECT_EQ(log_of(-1, [&] { return Read_FPGA_Bus_Block(&xfer, 0, 1, &data); }),
              "semaphore_v:#:semaphore V func failed\n");
    EXPECT_EQ(data, 9);
}

TEST_F(BusBlock, SignalsDoNotEndTheWaitForTheSemaphore) {
    semaphore_fail_next("change", EINTR);
    semaphore_fail_next("change", EINTR);
    EXPECT_EQ(log_of(0, [] { return semaphore_p(); }), "");
    EXPECT_EQ(semaphore_calls(), Calls(3, "change 77 -1"));
}

// --- reading ------------------------------------------------------------------------------------

TEST_F(BusBlock, AReadAsksPieceByPiece) {
    const Frame data = pattern(16001);
    Frame got(16002, 0xEE);
    wire_deliver(read_back(0x10000, part(data, 0, 8000)));
    wire_deliver(read_back(0x10000 + 8000, part(data, 8000, 8000)));
    wire_deliver(read_back(0x10000 + 16000, part(data, 16000, 1)));
    EXPECT_EQ(log_of(0, [&] { return Read_FPGA_Bus_Block(&xfer, 0x10000, 16001, got.data()); }),
              "");
    EXPECT_EQ(part(got, 0, 16001), data);
    EXPECT_EQ(got[16001], 0xEE);
    const std::vector<Frame> requests = {read_request(0x10000, 8000),
                                         read_request(0x10000 + 8000, 8000),
                                         read_request(0x10000 + 16000, 1)};
    EXPECT_EQ(wire_sent(), requests);
    EXPECT_EQ(semaphore_calls(), kTakenAndGivenBack);
}

TEST_F(BusBlock, ReadsOfEverySizeArrive) {
    for (const uint32_t n : {1U, 63U, 64U, 65U, 8000U}) {
        Frame got(n);
        wire_deliver(read_back(0x40, pattern(n)));
        EXPECT_EQ(Read_FPGA_Bus_Block(&xfer, 0x40, n, got.data()), 0);
        EXPECT_EQ(got, pattern(n)) << n;
        EXPECT_EQ(wire_sent().back(), read_request(0x40, n));
    }
}

TEST_F(BusBlock, TheTenthFrameMayBeTheAnswer) {
    uint8_t got = 0;
    for (int i = 0; i < 9; i++) {
        wire_deliver(read_back(0x41, {1}));
    }
    wire_deliver(read_back(0x40, {7}));
    EXPECT_EQ(Read_FPGA_Bus_Block(&xfer, 0x40, 1, &got), 0);
    EXPECT_EQ(got, 7);
    EXPECT_EQ(wire_sent().size(), 1U);
}

TEST_F(BusBlock, AfterTenFramesTheWholeBlockIsReadAnew) {
    Frame got(8001);
    const Frame data = pattern(8001);
    wire_deliver(read_back(0, Frame(8000, 0x11)));
    for (int i = 0; i < 10; i++) {
        wire_deliver_failure(EAGAIN);
    }
    wire_deliver(read_back(0, part(data, 0, 8000)));
    wire_deliver(read_back(8000, part(data, 8000, 1)));
    std::string expected;
    for (int i = 0; i < 10; i++) {
        expected += "recv_read_back_message_func:#:recv_message_func_unit() failed(ret = -1).\n";
    }
    expected += "read_process_func:#:recv_read_back_message_func() failed.\n";
    EXPECT_EQ(log_of(0, [&] { return Read_FPGA_Bus_Block(&xfer, 0, 8001, got.data()); }), expected);
    EXPECT_EQ(got, data);
    EXPECT_EQ(wire_sent().size(), 4U);
}

TEST_F(BusBlock, ARefusalEndsTheAttemptAtOnce) {
    uint8_t got = 0;
    wire_deliver(response(0x40, 3));
    EXPECT_EQ(log_of(-1, [&] { return read_process_func(&xfer, 0x40, 1, &got); }),
              "recv_message_func_unit:#:read back failed, ACK flag = 3.\n");
    wire_deliver(response(0x40, 3));
    wire_deliver(read_back(0x40, {7}));
    EXPECT_EQ(Read_FPGA_Bus_Block(&xfer, 0x40, 1, &got), 0);
    EXPECT_EQ(got, 7);
}

TEST_F(BusBlock, AResponseCarriedOutEndsAPieceWithoutData) {
    Frame got(1, 0xEE);
    wire_deliver(response(0x40, 0));
    EXPECT_EQ(Read_FPGA_Bus_Block(&xfer, 0x40, 1, got.data()), 0);
    EXPECT_EQ(got[0], 0xEE);
}

TEST_F(BusBlock, AfterTenAttemptsAReadIsGivenUpAndStillGivesTheReleasesResult) {
    uint8_t got = 0xEE;
    for (int i = 0; i < 100; i++) {
        wire_deliver({0x01});
    }
    const std::string log = log_of(0, [&] { return Read_FPGA_Bus_Block(&xfer, 0x40, 1, &got); });
    EXPECT_EQ(test::occurrences(log, "failed(ret = -1).\n"), 100);
    EXPECT_EQ(test::occurrences(log, "read_process_func:#:recv_read_back_message_func() failed.\n"),
              10);
    EXPECT_TRUE(log.ends_with("Read_FPGA_Bus_Block:#:read_process_func() failed.\n"));
    EXPECT_EQ(wire_sent().size(), 10U);
    EXPECT_EQ(got, 0xEE);
    EXPECT_EQ(semaphore_calls(), kTakenAndGivenBack);
}

TEST_F(BusBlock, ARequestThatCannotBeSentFailsTheAttempt) {
    uint8_t got = 0;
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(log_of(-1, [&] { return read_process_func(&xfer, 0x40, 1, &got); }),
              "send request packet failed!!!(ret : -1)\n"
              "read_process_func:#:send_request_message_func() failed(ret = -1).\n");
    EXPECT_EQ(read_process_func(&xfer, 0, 1, nullptr), -1);
    EXPECT_EQ(read_process_func(nullptr, 0, 1, &got), -1);
    EXPECT_EQ(read_process_func(&xfer, 0, 0, nullptr), 0);
}

TEST_F(BusBlock, ACancelledReaderGivesTheSemaphoreBack) {
    struct Reader {
        EthRawTrans *xfer;
        uint8_t got;
    } reader{&xfer, 0};
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *argument) -> void * {
                      auto *self = static_cast<Reader *>(argument);
                      (void)Read_FPGA_Bus_Block(self->xfer, 0, 1, &self->got);
                      return nullptr;
                  },
                  &reader),
              0);
    ASSERT_TRUE(wire_await_sent(1)); // the request is out, no answer comes
    ASSERT_EQ(pthread_cancel(thread), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(semaphore_calls(), kTakenAndGivenBack);
}

// --- start and end ------------------------------------------------------------------------------

TEST_F(BusBlock, OpeningMakesAFreeSemaphoreAndFillsTheHandles) {
    for (const uint32_t cnt : {0U, 1U, 2U, 3U}) {
        EthRawTrans mine[3] = {};
        g_netdev_counts.clear();
        errno = EAGAIN; // an old one is not shown
        EXPECT_EQ(log_of(0, [&] { return Open_Eth_Raw(cnt == 0 ? nullptr : mine, cnt); }),
                  "sem_id = 77, errno = 0.\n");
        EXPECT_EQ(g_netdev_counts, std::vector<uint32_t>{3}); // all three, whatever cnt is
        for (uint32_t i = 0; i < 3; i++) {
            EXPECT_EQ(mine[i].sock_fd, i < cnt ? static_cast<int>(1000 + i) : 0);
            EXPECT_EQ(mine[i].addr, i < cnt ? &g_eth_init[i].addr : nullptr);
        }
        EXPECT_EQ(semaphore_calls(), (Calls{"get 1234569 1 3666", "set 77 1"}));
    }
}

TEST_F(BusBlock, OpeningRefusesFourHandlesBeforeAnythingElse) {
    EthRawTrans mine[5] = {};
    g_netdev_counts.clear();
    EXPECT_EQ(log_of(-1, [&] { return Open_Eth_Raw(mine, 4); }), "invalid cnt(4).\n");
    EXPECT_EQ(log_of(-1, [&] { return Open_Eth_Raw(mine, 0xFFFFFFFF); }), "invalid cnt(-1).\n");
    EXPECT_EQ(log_of(-1, [&] { return Open_Eth_Raw(nullptr, 1); }),
              "Open_Eth_Raw:#:invalid parameter(xfer).\n");
    EXPECT_TRUE(g_netdev_counts.empty());
    EXPECT_TRUE(semaphore_calls().empty());
}

TEST_F(BusBlock, OpeningFailsWithAnInterface) {
    g_netdev_result = -5;
    EthRawTrans mine[3] = {};
    EXPECT_EQ(log_of(-1, [&] { return Open_Eth_Raw(mine, 3); }), "netdev_init() failed(-5).\n");
    EXPECT_EQ(mine[0].addr, nullptr);
    EXPECT_TRUE(semaphore_calls().empty());
}

TEST_F(BusBlock, OpeningFindsTheSemaphoreOfAnotherProcess) {
    semaphore_fail_next("get", EEXIST);
    EXPECT_EQ(log_of(0, [&] { return Open_Eth_Raw(handles, 3); }),
              "sem_id = -1, errno = 17.\nsem_id(77) already exits.\n");
    EXPECT_EQ(semaphore_calls(), (Calls{"get 1234569 1 3666", "get 1234569 1 0"}));
    EXPECT_EQ(semaphore_p(), 0);
    EXPECT_EQ(semaphore_calls(), Calls{"change 77 -1"});
}

TEST_F(BusBlock, OpeningSucceedsWithoutASemaphore) {
    semaphore_fail_next("get", ENOSPC);
    EXPECT_EQ(log_of(0, [&] { return Open_Eth_Raw(handles, 3); }), "sem_id = -1, errno = 28.\n");
    EXPECT_EQ(semaphore_calls(), Calls{"get 1234569 1 3666"});
    semaphore_fail_next("change", EINVAL);
    EXPECT_EQ(semaphore_p(), -1);
    EXPECT_EQ(semaphore_calls(), Calls{"change -1 -1"});
    semaphore_fail_next("get", EEXIST); // and gone again before the second look
    semaphore_fail_next("get", ENOENT);
    EXPECT_EQ(log_of(0, [&] { return Open_Eth_Raw(handles, 3); }),
              "sem_id = -1, errno = 17.\nsem_id(-1) already exits.\n");
}

TEST_F(BusBlock, OpeningFailsWhenTheNewSemaphoreCannotBeSet) {
    semaphore_fail_next("set", EPERM);
    EXPECT_EQ(log_of(-1, [&] { return Open_Eth_Raw(handles, 3); }),
              "sem_id = 77, errno = 0.\nset_semvalue:#:set sem val failed.\n"
              "Failed to initialize semaphore(sem_id : 77).\n");
}

TEST_F(BusBlock, ClosingRemovesTheSemaphoreAndCannotFail) {
    EXPECT_EQ(log_of(0, [] { return Close_Eth_Raw(); }), "");
    EXPECT_EQ(semaphore_calls(), Calls{"remove 77"});
    semaphore_fail_next("remove", EINVAL);
    EXPECT_EQ(log_of(0, [] { return Close_Eth_Raw(); }), "Failed to delete semaphore\n");
}

TEST_F(BusBlock, HandlesAreMadeOfAnyRecords) {
    eth_init records[2] = {};
    records[0].sock_fd = 5;
    records[1].sock_fd = 6;
    EthRawTrans made[2] = {};
    EXPECT_EQ(eth_raw_tranfser_set(records, made, 2), 0);
    EXPECT_EQ(made[0].sock_fd, 5);
    EXPECT_EQ(made[1].sock_fd, 6);
    EXPECT_EQ(made[0].addr, &records[0].addr);
    EXPECT_EQ(made[1].addr, &records[1].addr);
    EXPECT_EQ(eth_raw_tranfser_set(nullptr, nullptr, 0), 0);
    EXPECT_EQ(eth_raw_tranfser_set(nullptr, made, 1), -1);
    EXPECT_EQ(eth_raw_tranfser_set(records, nullptr, 1), -1);
    EXPECT_EQ(eth_raw_tranfser_set(records, made, 4), -1);
}

} // namespace
