// The send operations over a link that the test plays: frames, results, posts, and what is left
// over after every kind of failure.
#include "eth_raw/eth_raw.h"
#include "helpers/output.h"
#include "helpers/request_ends.h"
#include "log/log.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "queue/record_holders.h"
#include "raw_msg/raw_msg.h"
#include "raw_msg/request.h"
#include "stand_ins/fake_wire.h"
#include "stand_ins/lock_count.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <new>
#include <numeric>
#include <thread>

namespace {

using test::posts;
using test::queues_are_empty;

std::atomic<int> g_failing_malloc{-1}; // so many further calls succeed, then one fails; -1 = none

std::vector<uint8_t> counting(size_t count) {
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

std::vector<uint8_t> payload_of(const Frame &frame) {
    return {frame.begin() + 28, frame.begin() + 28 + len_of(frame)};
}

std::vector<uint8_t> payloads_of(const std::vector<Frame> &frames) {
    std::vector<uint8_t> joined;
    for (const Frame &frame : frames) {
        const auto part = payload_of(frame);
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {
void *__wrap_malloc(size_t size);
void *__real_malloc(size_t size);

void *__wrap_malloc(size_t size) {
    if (g_failing_malloc >= 0 && g_failing_malloc.fetch_sub(1) == 0) {
        return nullptr;
    }
    return __real_malloc(size);
}
}

#pragma GCC visibility pop

namespace {

class Send : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        (void)mem_uinit(); // an empty pool: every block comes from malloc
        sem_init(&sem_test, 0, 0);
        wire_open(0);
        out_before = mem_handed_out();
        log_debug = 1;
    }
    void TearDown() override {
        log_debug = 0;
        g_failing_malloc = -1;
        wire_close(0);
    }
    void expect_nothing_left() const {
        EXPECT_EQ(mem_handed_out(), out_before);
        EXPECT_TRUE(queues_are_empty());
    }

    // Runs a waiting operation on a thread of its own while the test plays the card.
    template <typename Operation>
    static std::future<int> start(Operation operation) {
        return std::async(std::launch::async, operation);
    }

    // Lets time pass until the operation has ended.
    static void time_out(std::future<int> &operation) {
        while (operation.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
            catch_alarm(SIGALRM);
            timerUpdate(0, kQueueKinds);
            CheckAckWaitRawMsg(0);
            CheckReadWaitRawMsg(0);
        }
    }

    int64_t out_before = 0;
    uint8_t read_buf[1400] = {};
    uint8_t reply_data[1400] = {9, 8, 7};
};

// --- plain writes ---

TEST_F(Send, APlainWriteIsCutIntoFramesAtRisingAddressesAllNumberedZero) {
    const auto data = counting(3000);
    EXPECT_EQ(RawSockSendMsg(0, 1, 3, 0x1000, 1, data.data(), 3000), 0);
    const auto sent = wire_sent();
    ASSERT_EQ(sent.size(), 3U);
    const uint32_t addresses[] = {0x1000, 0x1000 + 1400, 0x1000 + 2800};
    const uint16_t lengths[] = {1400, 1400, 200};
    for (size_t k = 0; k < 3; k++) {
        EXPECT_EQ(addr_of(sent[k]), addresses[k]);
        EXPECT_EQ(len_of(sent[k]), lengths[k]);
        EXPECT_EQ(seq_of(sent[k]), 0);
        EXPECT_EQ(sent[k][21], 1);
    }
    EXPECT_EQ(payloads_of(sent), data);
    EXPECT_EQ(posts(), 0);
    expect_nothing_left();
}

TEST_F(Send, AWriteOfWholeFramesSendsNoEmptyOneBehind) {
    const auto data = counting(2800);
    EXPECT_EQ(RawSockSendMsg(0, 1, 3, 0, 1, data.data(), 2800), 0);
    EXPECT_EQ(wire_sent().size(), 2U);
}

TEST_F(Send, APlainWriteOfNothingSendsNothing) {
    EXPECT_EQ(RawSockSendMsg(0, 1, 3, 0, 1, nullptr, 0), 0);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Send, APlainWriteGoesOnBehindAFrameThatCannotBeSent) {
    const auto data = counting(3000);
    wire_next_send(-1, ENETDOWN);
    testing::internal::CaptureStderr();
    const std::string text = test::output_of(
        [&] { EXPECT_EQ(RawSockSendMsg(0, 1, 3, 0x1000, 1, data.data(), 3000), 0); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto fail:: Network is down\n");
    EXPECT_TRUE(test::ends_as_log_line(
        text, "#######error RawSockSendMsg : index:0 addr:0x1000 length:3000 send fail\n"))
        << text;
    EXPECT_EQ(wire_sent().size(), 3U);
    expect_nothing_left();
}

TEST_F(Send, APlainWriteWithoutABufferFails) {
    const auto data = counting(10);
    g_failing_malloc = 0;
    const std::string text =
        test::output_of([&] { EXPECT_EQ(RawSockSendMsg(0, 1, 3, 0, 1, data.data(), 10), -1); });
    EXPECT_TRUE(test::ends_as_log_line(text, "RawMsgBuffGet fail\n"));
    EXPECT_EQ(posts(), 0);
    expect_nothing_left();
}

// --- acknowledged writes, not waiting ---

TEST_F(Send, AnAcknowledgedWriteIsQueuedWithItsTimerRunningWhenItsFrameIsOut) {
    const uint8_t value = 0x42;
    EXPECT_EQ(RawSockSendOneMsgWithAck(0xA3C00, 0, 1, 3, 0x1000, 0x11, &value, 1), 0);
    const auto sent = wire_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(payload_of(sent[0]), std::vector{value});
    const RawMsgQueueNode *record = queue_get(0, ACK_QUEUE);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->addr, 0x1000U);
    EXPECT_EQ(record->seq, seq_of(sent[0]));
    EXPECT_EQ(record->ack, 255U);
    EXPECT_EQ(record->count, 1U);
    EXPECT_EQ(record->send_len, 94U);
    EXPECT_EQ(record->requester, 0xA3C00U);
    EXPECT_EQ(record->timer.period, 3);
    EXPECT_EQ(posts(), 0);
    AckRawMsg(0, 0x1000, 0, record->seq, 0, reply_data);
    EXPECT_EQ(posts(), 1);
    expect_nothing_left();
}

TEST_F(Send, AnAcknowledgedWriteIsCutIntoFramesThatEndEachForItself) {
    const auto data = counting(3000);
    EXPECT_EQ(RawSockSendMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, data.data(), 3000), 0);
    const auto sent = wire_sent();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(addr_of(sent[2]), 0x1000U + 2800U);
    EXPECT_EQ(len_of(sent[2]), 200);
    EXPECT_EQ(payloads_of(sent), data);
    for (const Frame &frame : sent) {
        AckRawMsg(0, addr_of(frame), 0, seq_of(frame), 0, reply_data);
    }
    EXPECT_EQ(posts(), 3);
    expect_nothing_left();
}

TEST_F(Send, AnAcknowledgedWriteOfNothingSucceedsWithoutAPost) {
    EXPECT_EQ(RawSockSendMsgWithAck(0, 0, 1, 3, 0, 0x11, nullptr, 0), 0);
    EXPECT_EQ(posts(), 0);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Send, AnAcknowledgedWriteStopsAtTheFirstFrameThatFails) {
    const auto data = counting(3000);
    wire_next_send(kWholeFrame, 0);
    wire_next_send(-1, ENETDOWN);
    testing::internal::CaptureStderr();
    const std::string text = test::output_of(
        [&] { EXPECT_EQ(RawSockSendMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, data.data(), 3000), -1); });
    (void)testing::internal::GetCapturedStderr();
    EXPECT_TRUE(test::ends_as_log_line(text, "RawSockSendOneMsgWithAck : send fail\n"));
    EXPECT_EQ(wire_sent().size(), 2U);
    EXPECT_EQ(posts(), 1);
    AckRawMsg(0, 0x1000, 0, seq_of(wire_sent()[0]), 0, reply_data);
    expect_nothing_left();
}

// --- acknowledged writes, waiting ---

TEST_F(Send, AWaitingWriteReturnsTheCardsStatusAndLogsNothing) {
    const uint8_t value = 1;
    uint8_t ack = 77;
    const std::string text = test::output_of([&] {
        auto operation = start(
            [&] { return RawSockSendMsgWithAckWait(0, 1, 3, 0x1000, 0x11, &value, 1, &ack, 6); });
        ASSERT_TRUE(wire_await_sent(1));
        EXPECT_EQ(queue_get(0, ACK_WAIT_QUEUE)->count, 0U); // three time-outs from here
        AckWaitRawMsg(0, 0x1000, 0, seq_of(wire_sent()[0]), 0, reply_data);
        EXPECT_EQ(operation.get(), 0);
    });
    EXPECT_EQ(ack, 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(posts(), 1);
    expect_nothing_left();
}

TEST_F(Send, OneFrameOfAWaitingWriteLeavesThePostToItsCaller) {
    const uint8_t value = 1;
    uint8_t ack = 77;
    auto operation = start(
        [&] { return RawSockSendOneMsgWithAckWait(0, 1, 3, 0x1000, 0x11, &value, 1, &ack, 6); });
    ASSERT_TRUE(wire_await_sent(1));
    AckWaitRawMsg(0, 0x1000, 0, seq_of(wire_sent()[0]), 0, reply_data);
    EXPECT_EQ(operation.get(), 0);
    EXPECT_EQ(ack, 0);
    EXPECT_EQ(posts(), 0);
    expect_nothing_left();
}

TEST_F(Send, ARefusedWaitingWriteReturnsZeroAndTheWrapperLogsTheStatus) {
    const uint8_t value = 1;
    for (const uint8_t status : {uint8_t{1}, uint8_t{5}}) {
        wire_open(0);
        uint8_t ack = 77;
        const std::string text = test::output_of([&] {
            auto operation = start([&] {
                return RawSockSendMsgWithAckWait(0, 2, 3, 0x1000, 0x11, &value, 1, &ack, 6);
            });
            ASSERT_TRUE(wire_await_sent(1));
            AckWaitRawMsg(0, 0x1000, status, seq_of(wire_sent()[0]), 0, reply_data);
            EXPECT_EQ(operation.get(), 0);
        });
        EXPECT_EQ(ack, status);
        EXPECT_TRUE(test::ends_as_log_line(
            text,
            "write ack wait error: ack wrong index:0 model:2 slot:3 addr:0x1000 len:1 ack:0x" +
                std::to_string(status) + "\n"))
            << text;
        EXPECT_EQ(posts(), 1);
        expect_nothing_left();
    }
}

TEST_F(Send, AWaitingWriteWhoseFrameCannotBeSentHasNoAnswer) {
    const uint8_t value = 1;
    uint8_t ack = 0;
    wire_next_send(-1, ENETDOWN);
    testing::internal::CaptureStderr();
    const std::string text = test::output_of([&] {
        EXPECT_EQ(RawSockSendMsgWithAckWait(0, 1, 3, 0x1000, 0x11, &value, 1, &ack, 6), -1);
    });
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(ack, 255);
    EXPECT_TRUE(test::ends_as_log_line(
        text,
        "write ack wait error: ack wrong index:0 model:1 slot:3 addr:0x1000 len:1 ack:0xff\n"))
        << text;
    EXPECT_EQ(posts(), 2); // of the frame, and of the operation
    expect_nothing_left();
}

TEST_F(Send, AWaitingWriteThatNobodyAnswersFailsAndIsNeverResent) {
    const uint8_t value = 1;
    uint8_t ack = 0;
    const std::string text = test::output_of([&] {
        auto operation = start([&] {
            return RawSockSendOneMsgWithAckWait(0, 1, 3, 0x1000, 0x11, &value, 1, &ack, 2);
        });
        time_out(operation);
        EXPECT_EQ(operation.get(), -1);
    });
    EXPECT_EQ(ack, 255);
    EXPECT_EQ(wire_sent().size(), 1U);
    EXPECT_EQ(test::occurrences(text, "]:: no ack msg (0xff) write error!\n"), 1);
    EXPECT_TRUE(test::ends_as_log_line(text, "ack failed, no ack\n"));
    expect_nothing_left();
}

TEST_F(Send, AWaitingWriteGoesOnBehindAFrameThatNobodyAnswers) {
    const auto data = counting(3000);
    uint8_t ack = 77;
    const std::string text = test::output_of([&] {
        auto operation = start([&] {
            return RawSockSendMsgWithAckWait(0, 1, 3, 0x1000, 0x11, data.data(), 3000, &ack, 1);
        });
        while (wire_sent().size() < 3) { // the first two frames time out
            catch_alarm(SIGALRM);
            timerUpdate(0, kQueueKinds);
            CheckAckWaitRawMsg(0);
        }
        AckWaitRawMsg(0, 0x1000 + 2800, 0, seq_of(wire_sent()[2]), 0, reply_data);
        time_out(operation);
        EXPECT_EQ(operation.get(), 0);
    });
    EXPECT_EQ(ack, 0);
    EXPECT_EQ(test::occurrences(text, "addr:0x1000 len:1400 ack:0xff\n"), 1) << text;
    EXPECT_EQ(test::occurrences(text, "addr:0x1578 len:1400 ack:0xff\n"), 1) << text;
    EXPECT_EQ(payloads_of(wire_sent()), data);
    EXPECT_EQ(posts(), 1);
    expect_nothing_left();
}

TEST_F(Send, AWaitingWriteOfNothingReturnsZeroAfterOnePost) {
    uint8_t ack = 77;
    EXPECT_EQ(RawSockSendMsgWithAckWait(0, 1, 3, 0, 0x11, nullptr, 0, &ack, 6), 0);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(ack, 77);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Send, AWaitOfNoTicksEndsToo) {
    const uint8_t value = 1;
    uint8_t ack = 0;
    for (const int32_t ticks : {0, -1}) {
        (void)test::output_of([&] {
            auto operation = start([&] {
                return RawSockSendOneMsgWithAckWait(0, 1, 3, 0x1000, 0x11, &value, 1, &ack, ticks);
            });
            time_out(operation);
            EXPECT_EQ(operation.get(), -1);
        });
    }
    expect_nothing_left();
}

// --- reads ---

TEST_F(Send, AReadCarriesTheLengthItAsksForIn94Bytes) {
    EXPECT_EQ(RawSockSendMsgWithRead(0xA3C00, 0, 1, 3, 0x1000, 0, 1400, read_buf, nullptr), 0);
    const auto sent = wire_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].size(), 94U);
    EXPECT_EQ(len_of(sent[0]), 1400);
    const RawMsgQueueNode *record = queue_get(0, READ_QUEUE);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->send_len, 94U);
    EXPECT_EQ(record->count, 1U);
    EXPECT_EQ(record->requester, 0xA3C00U);
    EXPECT_EQ(record->timer.period, 3);
    ReadRawMsg(0, 0x1000, 0, record->seq, 3, reply_data);
    EXPECT_EQ(read_buf[0], 9);
    EXPECT_EQ(posts(), 1);
    expect_nothing_left();
}

TEST_F(Send, AReadWithAWritesCodeStaysInsideItsBuffer) {
    EXPECT_EQ(RawSockSendMsgWithRead(0, 0, 1, 3, 0x1000, 0x20, 1400, read_buf, nullptr), 0);
    EXPECT_EQ(wire_sent().at(0).size(), 1430U);
    EXPECT_EQ(queue_get(0, READ_QUEUE)->send_len, 1430U);
    (void)queue_empty(0, READ_QUEUE);
    expect_nothing_left();
}

TEST_F(Send, AWaitingReadReturnsDataAndLengthAndLogsNothing) {
    for (const uint32_t len : {3U, 1400U}) {
        wire_open(0);
        uint32_t received = 0;
        memset(read_buf, 0, sizeof read_buf);
        const std::string text = test::output_of([&] {
            auto operation = start([&] {
                return RawSockSendMsgWithReadWait(0, 1, 3, 0x1000, 0, len, read_buf, &received, 6);
            });
            ASSERT_TRUE(wire_await_sent(1));
            EXPECT_EQ(queue_get(0, READ_WAIT_QUEUE)->count, 0U); // three time-outs from here
            ReadWaitRawMsg(0, 0x1000, 0, seq_of(wire_sent()[0]), len, reply_data);
            EXPECT_EQ(operation.get(), 0);
        });
        EXPECT_EQ(received, len);
        EXPECT_EQ(read_buf[2], 7);
        EXPECT_EQ(text, "");
        EXPECT_EQ(posts(), 1);
        expect_nothing_left();
    }
}

TEST_F(Send, AWaitingReadFailsOnAReplyWithoutDataWithTooManyOrARefusal) {
    struct Case {
        uint8_t ack;
        uint32_t len;
        const char *end;
    };
    for (const Case &c : {Case{0, 0, "*length=0, timeout or ack error\n"},
                          Case{0, 2000, "*length=2000, timeout or ack error\n"},
                          Case{3, 4, "*length=0, timeout or ack error\n"}}) {
        wire_open(0);
        uint32_t received = 0;
        const std::string text = test::output_of([&] {
            auto operation = start([&] {
                return RawSockSendMsgWithReadWait(0, 1, 3, 0x1000, 0, 8, read_buf, &received, 6);
            });
            ASSERT_TRUE(wire_await_sent(1));
            ReadWaitRawMsg(0, 0x1000, c.ack, seq_of(wire_sent()[0]), c.len, reply_data);
            EXPECT_EQ(operation.get(), -1);
        });
        EXPECT_TRUE(test::ends_as_log_line(
            text, std::string("#######error read index:0 slot:3 model:1 addr:0x1000 length:8 "
                              "failed:") +
                      c.end))
            << text;
        EXPECT_EQ(posts(), 1);
        expect_nothing_left();
    }
}

TEST_F(Send, AWaitingReadThatNobodyAnswersFails) {
    uint32_t received = 99;
    const std::string text = test::output_of([&] {
        auto operation = start([&] {
            return RawSockSendMsgWithReadWait(0, 1, 3, 0x1000, 0, 8, read_buf, &received, 1);
        });
        time_out(operation);
        EXPECT_EQ(operation.get(), -1);
    });
    EXPECT_EQ(received, 0U);
    EXPECT_EQ(wire_sent().size(), 1U);
    EXPECT_EQ(test::occurrences(text, "]:: no resp msg (0xff) read error no msg!\n"), 1);
    EXPECT_EQ(posts(), 1);
    expect_nothing_left();
}

TEST_F(Send, AWaitingReadOfNothingOrTooMuchFailsAtOnce) {
    for (const uint32_t len : {0U, 1401U}) {
        uint32_t received = 99;
        const std::string text = test::output_of([&] {
            EXPECT_EQ(RawSockSendMsgWithReadWait(0, 1, 3, 0, 0, len, read_buf, &received, 6), -1);
        });
        EXPECT_TRUE(test::ends_as_log_line(text, "RawSockSendMsgWithReadWait : send fail\n"));
        EXPECT_EQ(received, 99U);
        EXPECT_EQ(posts(), 1);
    }
    EXPECT_TRUE(wire_sent().empty());
    expect_nothing_left();
}

// --- every form under the same failures ---

struct Form {
    const char *name;
    const char *log_name;
    int queue;
    const char *queue_name;
    int (*run)(int index);
};

const uint8_t kByte = 1;
uint8_t g_ack;
uint8_t g_read_buf[1400];
uint32_t g_received;

const Form kForms[] = {
    {"ack", "RawSockSendOneMsgWithAck", ACK_QUEUE, "ACK_QUEUE",
     [](int i) { return RawSockSendOneMsgWithAck(0, i, 1, 3, 0x10, 0x11, &kByte, 1); }},
    {"ack_wait", "RawSockSendOneMsgWithAckWait", ACK_WAIT_QUEUE, "ACK_WAIT_QUEUE",
     [](int i) { return RawSockSendOneMsgWithAckWait(i, 1, 3, 0x10, 0x11, &kByte, 1, &g_ack, 1); }},
    {"read", "RawSockSendMsgWithRead", READ_QUEUE, "READ_QUEUE",
     [](int i) { return RawSockSendMsgWithRead(0, i, 1, 3, 0x10, 0, 4, g_read_buf, nullptr); }},
    {"read_wait", "RawSockSendMsgWithReadWait", READ_WAIT_QUEUE, "READ_WAIT_QUEUE",
     [](int i) {
         return RawSockSendMsgWithReadWait(i, 1, 3, 0x10, 0, 4, g_read_buf, &g_received, 1);
     }},
};

class EveryForm : public Send, public testing::WithParamInterface<Form> {};

TEST_P(EveryForm, FailsAtOnceAndLeavesNothingWhenTheFrameCannotBeSent) {
    wire_next_send(-1, ENETDOWN);
    testing::internal::CaptureStderr();
    const std::string text = test::output_of([&] { EXPECT_EQ(GetParam().run(0), -1); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto fail:: Network is down\n");
    EXPECT_TRUE(test::ends_as_log_line(text, std::string(GetParam().log_name) + " : send fail\n"));
    EXPECT_EQ(posts(), 1);
    expect_nothing_left();
}

// Counted for each form alone: an answer is looked for in the queue of its form.
TEST_P(EveryForm, NumbersItsRequestsInTurn) {
    testing::internal::CaptureStderr();
    (void)test::output_of([] {
        for (int i = 0; i < 3; i++) {
            wire_next_send(-1, ENETDOWN);
            EXPECT_EQ(GetParam().run(0), -1);
        }
    });
    (void)testing::internal::GetCapturedStderr();
    const auto sent = wire_sent();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(seq_of(sent[1]), static_cast<uint16_t>(seq_of(sent[0]) + 1));
    EXPECT_EQ(seq_of(sent[2]), static_cast<uint16_t>(seq_of(sent[0]) + 2));
}

// The child has none of the threads that might hold a lock at the moment of the fork.
TEST_P(EveryForm, WorksInAChildWhateverLockItsParentHolds) {
    wire_close(0); // the test's own locks are not in use
    log_debug = 0;
    testing::internal::CaptureStderr();
    const auto run = [] { (void)GetParam().run(0); };
    constexpr int kLocks = 5; // two blocks of the pool, the number, the queue, the link
    for (int nth = 1; nth <= kLocks; nth++) {
        const int status = test::fork_amid(run, nth, [run] {
            queue_init();
            (void)mem_init();
            run();
        });
        EXPECT_EQ(status, 0) << nth;
    }
    (void)testing::internal::GetCapturedStderr();
    (void)posts();
}

TEST_P(EveryForm, FailsAtOnceOnALinkThatNeverCameUpAndOnIndicesOutOfRange) {
    wire_close(0);
    for (const int index : {0, -1, 3, 99}) {
        testing::internal::CaptureStderr();
        const std::string text = test::output_of([&] { EXPECT_EQ(GetParam().run(index), -1); });
        (void)testing::internal::GetCapturedStderr();
        EXPECT_TRUE(
            test::ends_as_log_line(text, std::string(GetParam().log_name) + " : send fail\n"))
            << index << text;
        EXPECT_EQ(posts(), 1) << index;
    }
    EXPECT_TRUE(wire_sent().empty());
    expect_nothing_left();
}

TEST_P(EveryForm, FailsAndPostsWhenThePoolHasNoBufferOrNoRecord) {
    for (int nth = 0; nth < 2; nth++) {
        (void)mem_uinit();
        const std::string text = test::output_of([&] {
            std::string warm(4096, ' '); // the stream's own buffers are there before the failure
            printf("%s", warm.c_str());
            fflush(stdout);
            g_failing_malloc = nth;
            EXPECT_EQ(GetParam().run(0), -1);
            g_failing_malloc = -1;
        });
        if (nth == 0) {
            EXPECT_TRUE(test::ends_as_log_line(text, "RawMsgBuffGet fail\n"));
        } else if (GetParam().queue == READ_WAIT_QUEUE) {
            EXPECT_TRUE(test::ends_as_log_line(text, "malloc node fail\n"));
        } else {
            EXPECT_EQ(text.find("]:: "), std::string::npos); // no message
        }
        EXPECT_EQ(posts(), 1);
        EXPECT_TRUE(wire_sent().empty());
        expect_nothing_left();
    }
}

TEST_P(EveryForm, LeavesNothingWhenTheAnswerComesBeforeTheSenderHasReturned) {
    // The card's answer is matched from inside the send, the earliest moment there can be one.
    for (int i = 0; i < 200; i++) {
        wire_open(0);
        auto card = std::async(std::launch::async, [] {
            if (!wire_await_sent(1)) {
                return;
            }
            const Frame sent = wire_sent()[0];
            uint8_t data[4] = {1, 2, 3, 4};
            AckRawMsg(0, 0x10, 0, seq_of(sent), 0, data);
            AckWaitRawMsg(0, 0x10, 0, seq_of(sent), 0, data);
            ReadRawMsg(0, 0x10, 0, seq_of(sent), 4, data);
            ReadWaitRawMsg(0, 0x10, 0, seq_of(sent), 4, data);
        });
        EXPECT_EQ(GetParam().run(0), 0);
        card.get();
        (void)posts();
        ASSERT_TRUE(queues_are_empty());
        ASSERT_EQ(mem_handed_out(), out_before);
    }
}

INSTANTIATE_TEST_SUITE_P(Send, EveryForm, testing::ValuesIn(kForms),
                         [](const auto &form) { return form.param.name; });

TEST(RequestNumbers, AreGivenOutUnderALockAndWrap) {
    Sequence sequence{.lock = PTHREAD_MUTEX_INITIALIZER, .next = 65535};
    const test::LockUse use =
        test::locks_of([&sequence] { EXPECT_EQ(take_number(sequence), 65535); });
    EXPECT_EQ(use.taken, 1);
    EXPECT_EQ(take_number(sequence), 0);
}

// --- full queues ---

class FullQueue : public Send, public testing::WithParamInterface<Form> {
protected:
    static void fill(int queue, int count) {
        for (int i = 0; i < count; i++) {
            auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
            record->addr = 0xFFFF0000;
            record->when_dropped = post_test; // as a request without waiting has it
            EXPECT_EQ(queue_add(0, queue, record), 0);
        }
    }
    static void expect_found_full(const std::string &text) {
        EXPECT_EQ(test::occurrences(text, std::string("]:: ") + GetParam().log_name +
                                              " : queue_add " + GetParam().queue_name + " fail\n"),
                  1)
            << text;
        EXPECT_EQ(test::occurrences(
                      text, "]:: queue_add fail again after 1ms, empty queue and send again\n"),
                  1)
            << text;
    }
    static void answer(uint16_t seq) {
        uint8_t data[4] = {1, 2, 3, 4};
        AckWaitRawMsg(0, 0x10, 0, seq, 0, data);
        ReadRawMsg(0, 0x10, 0, seq, 4, data);
        ReadWaitRawMsg(0, 0x10, 0, seq, 4, data);
    }
};

TEST_P(FullQueue, IsEmptiedForARequestThatKeepsItsOwnRecord) {
    fill(GetParam().queue, kQueueCapacity - 1);
    const std::string text = test::output_of([&] {
        auto operation = start([] { return GetParam().run(0); });
        ASSERT_TRUE(wire_await_sent(1));
        answer(seq_of(wire_sent()[0]));
        EXPECT_EQ(operation.get(), 0);
    });
    EXPECT_EQ(test::occurrences(text, "]:: queue is full\n"), 2);
    expect_found_full(text);
    // Each dropped request has ended, and the read itself.
    EXPECT_EQ(posts(), kQueueCapacity - 1 + (GetParam().queue == ACK_WAIT_QUEUE ? 0 : 1));
    EXPECT_EQ(wire_sent().size(), 1U);
    expect_nothing_left();
}

TEST_P(FullQueue, ThatNobodyCanEmptyRefusesTheRequest) {
    fill(GetParam().queue, kQueueCapacity - 1);
    for (RawMsgQueueNode *record = queue_get(0, GetParam().queue); record != nullptr;
         record = record->next) {
        record->is_enqueuing = 1; // as if as many senders waited for room
    }
    const std::string text = test::output_of([] { EXPECT_EQ(GetParam().run(0), -1); });
    expect_found_full(text);
    EXPECT_TRUE(test::ends_as_log_line(text, "assert queue_add fail again after empty queue\n"))
        << text;
    EXPECT_EQ(posts(), 1);
    EXPECT_TRUE(wire_sent().empty());
    int32_t left = 0;
    for (RawMsgQueueNode *record = queue_get(0, GetParam().queue); record != nullptr;
         record = record->next) {
        record->is_enqueuing = 0;
        left += 1;
    }
    EXPECT_EQ(left, kQueueCapacity - 1);
    (void)queue_empty(0, GetParam().queue);
    (void)posts();
    expect_nothing_left();
}

INSTANTIATE_TEST_SUITE_P(Send, FullQueue, testing::ValuesIn(kForms + 1, std::end(kForms)),
                         [](const auto &form) { return form.param.name; });

class FullQueueOfWaiters : public FullQueue {};

TEST_P(FullQueueOfWaiters, WakesThemWhenItIsEmptied) {
    (void)test::output_of([&] {
        auto first = start([] { return GetParam().run(0); });
        ASSERT_TRUE(wire_await_sent(1));
        fill(GetParam().queue, kQueueCapacity - 2);
        auto second = start([] { return GetParam().run(0); });
        EXPECT_EQ(first.get(), -1); // dropped: no answer will come
        ASSERT_TRUE(wire_await_sent(2));
        answer(seq_of(wire_sent()[1]));
        EXPECT_EQ(second.get(), 0);
    });
    EXPECT_EQ(posts(), kQueueCapacity - 2 + (GetParam().queue == ACK_WAIT_QUEUE ? 0 : 2));
    expect_nothing_left();
}

INSTANTIATE_TEST_SUITE_P(Send, FullQueueOfWaiters, testing::Values(kForms[1], kForms[3]),
                         [](const auto &form) { return form.param.name; });

TEST_F(Send, AnAcknowledgedWriteWaitsForRoom) {
    for (int i = 1; i < kQueueCapacity; i++) {
        auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
        EXPECT_EQ(queue_add(0, ACK_QUEUE, record), 0);
    }
    const std::string text = test::output_of([&] {
        auto operation =
            start([&] { return RawSockSendOneMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, &kByte, 1); });
        // Full means that its record is linked as the 65536th but its frame is not out.
        EXPECT_EQ(operation.wait_for(std::chrono::milliseconds(40)), std::future_status::timeout);
        EXPECT_TRUE(wire_sent().empty());
        RawMsgQueueNode *oldest = queue_get(0, ACK_QUEUE);
        EXPECT_EQ(queue_del(0, ACK_QUEUE, &oldest), 0);
        EXPECT_EQ(operation.get(), 0);
    });
    EXPECT_GE(test::occurrences(text, "]:: queue is full\n"), 2);
    EXPECT_EQ(wire_sent().size(), 1U);
    (void)queue_empty(0, ACK_QUEUE);
    expect_nothing_left();
}

} // namespace
