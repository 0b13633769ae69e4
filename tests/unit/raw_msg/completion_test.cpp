// The rules by which a reply or a time-out ends a request, resends it or passes it by. Records are
// made and queued by the test; no thread runs, ticks are counted by hand.
#include "eth_raw/eth_raw.h"
#include "helpers/output.h"
#include "helpers/request_ends.h"
#include "log/log.h"
#include "mem/pool_counts.h"
#include "queue/record_holders.h"
#include "raw_msg/request_rules.h"
#include "stand_ins/fake_wire.h"

#include <cstring>
#include <gtest/gtest.h>
#include <new>

#include "mem/mem.h"

namespace {

using test::posts;

constexpr uint32_t kAddr = 0x1000;
constexpr uint16_t kSeq = 77;

void show_nothing(const uint8_t * /*data*/, uint32_t /*addr*/, uint32_t /*len*/) {
}

struct Shown {
    int times;
    uint32_t addr;
    uint32_t len;
    uint8_t first;
} g_shown;

void note_shown(const uint8_t *data, uint32_t addr, uint32_t len) {
    g_shown = {g_shown.times + 1, addr, len, data[0]};
}

class Completion : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        sem_init(&sem_test, 0, 0);
        wire_open(0);
        log_debug = 1;
        out_before = mem_handed_out();
        memset(read_buf, 0xEE, sizeof read_buf);
        memset(data, 0x5A, sizeof data);
        g_shown = {};
    }
    void TearDown() override {
        log_debug = 0;
        set_read_dump(nullptr);
        wire_close(0);
    }

    // A request whose frame is out, as a host that builds records itself would queue it.
    RawMsgQueueNode *queued(int queue, uint32_t count, int32_t ticks) {
        auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
        record->buf = RawMsgBuffGet(1);
        uint8_t *frame = record->buf;
        record->send_len = RawMsgHeaderPack(1, 3, 0x11, kAddr, kSeq, &frame, 1);
        record->addr = kAddr;
        record->seq = kSeq;
        record->ack = 255;
        record->count = count;
        record->read_buf = read_buf;
        sem_init(&record->sem, 0, 0);
        timerStart(static_cast<uint16_t>(ticks), &record->timer);
        EXPECT_EQ(queue_add(0, queue, record), 0);
        return record;
    }

    // As a host takes out its requests.
    static void take_out_all() {
        for (const int queue : {ACK_QUEUE, ACK_WAIT_QUEUE, READ_QUEUE, READ_WAIT_QUEUE}) {
            while (RawMsgQueueNode *record = queue_get(0, queue)) {
                RawMsgBuffFree(record->buf);
                EXPECT_EQ(queue_del(0, queue, &record), 0);
            }
        }
    }

    static void pass_ticks(int ticks) {
        for (int i = 0; i < ticks; i++) {
            catch_alarm(SIGALRM);
        }
        timerUpdate(0, 6);
    }

    static bool is_posted(RawMsgQueueNode *record) {
        return sem_trywait(&record->sem) == 0;
    }

    int64_t out_before = 0;
    uint8_t read_buf[1400];
    uint8_t data[2000];
};

// --- acknowledged write, the sender goes on ---

TEST_F(Completion, AckZeroEndsAWrite) {
    queued(ACK_QUEUE, 1, 3);
    EXPECT_EQ(test::output_of([&] { AckRawMsg(0, kAddr, 0, kSeq, 0, data); }), "");
    EXPECT_EQ(queue_get(0, ACK_QUEUE), nullptr);
    EXPECT_EQ(mem_handed_out(), out_before);
    EXPECT_EQ(posts(), 1);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Completion, AReplyForAnotherRequestIsDroppedSilently) {
    queued(ACK_QUEUE, 1, 3);
    const std::string text = test::output_of([&] {
        AckRawMsg(0, kAddr + 1, 0, kSeq, 0, data);
        AckRawMsg(0, kAddr, 0, kSeq + 1, 0, data);
        AckWaitRawMsg(0, kAddr, 0, kSeq, 0, data);
        ReadRawMsg(0, kAddr, 0, kSeq, 4, data);
        ReadWaitRawMsg(0, kAddr, 0, kSeq, 4, data);
        AckRawMsg(1, kAddr, 0, kSeq, 0, data);
    });
    EXPECT_EQ(text, "");
    EXPECT_NE(queue_get(0, ACK_QUEUE), nullptr);
    EXPECT_EQ(posts(), 0);
}

TEST_F(Completion, ARefusedWriteIsSentAgainWithoutLimit) {
    RawMsgQueueNode *record = queued(ACK_QUEUE, 1, 3);
    for (int time = 1; time <= 6; time++) {
        const std::string text = test::output_of([&] { AckRawMsg(0, kAddr, 2, kSeq, 0, data); });
        EXPECT_TRUE(test::ends_as_log_line(text, "wrong ack (0x2), send msg again (1)!\n")) << text;
        EXPECT_EQ(record->ack, 255U);
        EXPECT_EQ(record->count, 1U);
        EXPECT_EQ(record->timer.remaining, 3);
        EXPECT_EQ(wire_sent().size(), static_cast<size_t>(time));
    }
    EXPECT_EQ(queue_get(0, ACK_QUEUE), record);
    EXPECT_EQ(posts(), 0);
    EXPECT_EQ(wire_sent()[0], wire_sent()[5]);
    EXPECT_EQ(wire_sent()[0].size(), 94U);
}

// Nor does it end what its time-outs are about to end.
TEST_F(Completion, Status255InAReplyDoesNothing) {
    for (const uint32_t timeouts : {0U, 3U}) {
        RawMsgQueueNode *write = queued(ACK_QUEUE, 1 + timeouts, 3);
        RawMsgQueueNode *write_wait = queued(ACK_WAIT_QUEUE, timeouts, 3);
        RawMsgQueueNode *read = queued(READ_QUEUE, 1 + timeouts, 3);
        RawMsgQueueNode *read_wait = queued(READ_WAIT_QUEUE, timeouts, 3);
        const std::string text = test::output_of([&] {
            AckRawMsg(0, kAddr, 255, kSeq, 4, data);
            AckWaitRawMsg(0, kAddr, 255, kSeq, 4, data);
            ReadRawMsg(0, kAddr, 255, kSeq, 4, data);
            ReadWaitRawMsg(0, kAddr, 255, kSeq, 4, data);
        });
        EXPECT_EQ(text, "");
        EXPECT_EQ(queue_get(0, ACK_QUEUE), write);
        EXPECT_EQ(queue_get(0, READ_QUEUE), read);
        EXPECT_FALSE(is_posted(write_wait));
        EXPECT_FALSE(is_posted(read_wait));
        EXPECT_EQ(posts(), 0);
        EXPECT_EQ(read_buf[0], 0xEE);
        take_out_all();
    }
}

TEST_F(Completion, ASilentWriteIsSentThreeTimesInAllAndThenReleased) {
    queued(ACK_QUEUE, 1, 3);
    const auto expire = [] {
        return test::output_of([] {
            pass_ticks(3);
            CheckAckRawMsg(0);
        });
    };
    EXPECT_TRUE(test::ends_as_log_line(expire(), "no ack msg (0xff), send msg again (2)!\n"));
    EXPECT_TRUE(test::ends_as_log_line(expire(), "no ack msg (0xff), send msg again (3)!\n"));
    EXPECT_EQ(wire_sent().size(), 2U);
    EXPECT_EQ(posts(), 0);
    EXPECT_TRUE(test::ends_as_log_line(expire(),
                                       "wrong ack (0xff), send msg count (4), not send again!\n"));
    EXPECT_EQ(wire_sent().size(), 2U);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(queue_get(0, ACK_QUEUE), nullptr);
    EXPECT_EQ(mem_handed_out(), out_before);
    EXPECT_EQ(expire(), "");
}

TEST_F(Completion, ATimeOutThatIsNotOverDoesNothing) {
    queued(ACK_QUEUE, 1, 3);
    const std::string text = test::output_of([] {
        pass_ticks(2);
        CheckAckRawMsg(0);
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Completion, TheTimerStartsOverWithEachResend) {
    RawMsgQueueNode *record = queued(ACK_QUEUE, 1, 3);
    (void)test::output_of([&] {
        pass_ticks(2);
        AckRawMsg(0, kAddr, 2, kSeq, 0, data);
        EXPECT_EQ(record->timer.remaining, 3);
        pass_ticks(2);
        CheckAckRawMsg(0);
    });
    EXPECT_EQ(wire_sent().size(), 1U); // only the refusal's resend
}

TEST_F(Completion, AFailedResendLeavesTheRequestToItsTimeOuts) {
    RawMsgQueueNode *record = queued(ACK_QUEUE, 1, 3);
    wire_next_send(-1, ENETDOWN);
    testing::internal::CaptureStderr();
    (void)test::output_of([&] { AckRawMsg(0, kAddr, 2, kSeq, 0, data); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto fail:: Network is down\n");
    EXPECT_EQ(queue_get(0, ACK_QUEUE), record);
    EXPECT_EQ(record->timer.period, 3);
}

TEST_F(Completion, ARequestThatIsInNoQueueStaysItsHostsStoppedAndUncounted) {
    RawMsgQueueNode record{};
    record.buf = RawMsgBuffGet(1);
    record.count = 2;
    timerStart(3, &record.timer);
    AckCompleteMsg(&record, data, 0); // without a status: carried out
    EXPECT_EQ(record.timer.period, 0);
    EXPECT_EQ(record.count, 0U);
    EXPECT_EQ(posts(), 1);
    RawMsgBuffFree(record.buf);
    EXPECT_EQ(mem_handed_out(), out_before);
}

// --- time-outs behind a reply that nobody has acted on ---

// A host that takes replies itself has one stored without a callback; the time-out that comes then
// brings no answer, whatever status and length stand in the record.

TEST_F(Completion, ATimeOutBehindAStoredReplySendsAgain) {
    struct Form {
        int queue;
        void (*check)(int index);
    };
    for (const Form &form : {Form{ACK_QUEUE, CheckAckRawMsg}, Form{READ_QUEUE, CheckReadRawMsg}}) {
        for (const uint32_t status : {0U, 5U}) {
            wire_open(0);
            RawMsgQueueNode *record = queued(form.queue, 1, 3);
            const std::string text = test::output_of([&] {
                (void)queue_find(0, form.queue, kAddr, status, kSeq, 4, nullptr, nullptr);
                pass_ticks(3);
                form.check(0);
            });
            EXPECT_TRUE(test::ends_as_log_line(text, "no ack msg (0x" + std::to_string(status) +
                                                         "), send msg again (2)!\n"))
                << text;
            EXPECT_EQ(wire_sent().size(), 1U);
            EXPECT_EQ(queue_get(0, form.queue), record);
            EXPECT_EQ(posts(), 0);
            EXPECT_EQ(read_buf[0], 0xEE);
            take_out_all();
        }
    }
}

TEST_F(Completion, ATimeOutBehindAStoredReplyWakesAWaitingWriterAtTheThirdOnly) {
    for (const uint32_t status : {0U, 5U}) {
        RawMsgQueueNode *record = queued(ACK_WAIT_QUEUE, 0, 1);
        const std::string text = test::output_of([&] {
            (void)queue_find(0, ACK_WAIT_QUEUE, kAddr, status, kSeq, 0, nullptr, nullptr);
            for (int i = 1; i <= 3; i++) {
                EXPECT_FALSE(is_posted(record)) << i;
                pass_ticks(1);
                CheckAckWaitRawMsg(0);
            }
        });
        EXPECT_TRUE(test::ends_as_log_line(text, "no ack msg (0x" + std::to_string(status) +
                                                     ") write error!\n"))
            << text;
        EXPECT_EQ(test::occurrences(text, "]:: "), 1);
        EXPECT_TRUE(is_posted(record));
        take_out_all();
    }
}

TEST_F(Completion, ATimeOutBehindAStoredRefusalWakesAWaitingReaderAtTheThirdOnly) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 1);
    const std::string text = test::output_of([&] {
        (void)queue_find(0, READ_WAIT_QUEUE, kAddr, 5, kSeq, 4, nullptr, nullptr);
        for (int i = 1; i <= 3; i++) {
            EXPECT_FALSE(is_posted(record)) << i;
            pass_ticks(1);
            CheckReadWaitRawMsg(0);
        }
    });
    EXPECT_TRUE(test::ends_as_log_line(text, "no resp msg (0x5) read error no msg!\n")) << text;
    EXPECT_EQ(test::occurrences(text, "]:: "), 1);
    EXPECT_TRUE(is_posted(record));
}

TEST_F(Completion, ATimeOutBehindAStoredSuccessWakesAWaitingReaderWithoutData) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 1);
    const std::string text = test::output_of([&] {
        (void)queue_find(0, READ_WAIT_QUEUE, kAddr, 0, kSeq, 4, nullptr, nullptr);
        pass_ticks(1);
        CheckReadWaitRawMsg(0);
    });
    EXPECT_TRUE(test::ends_as_log_line(text, "wrong msg and  recv_len, Read error!\n")) << text;
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->timer.period, 1); // it goes on
    EXPECT_EQ(read_buf[0], 0xEE);
}

// --- read, the sender goes on ---

TEST_F(Completion, AReadGetsItsDataAndEnds) {
    queued(READ_QUEUE, 1, 3);
    EXPECT_EQ(test::output_of([&] { ReadRawMsg(0, kAddr, 0, kSeq, 1400, data); }), "");
    EXPECT_EQ(read_buf[0], 0x5A);
    EXPECT_EQ(read_buf[1399], 0x5A);
    EXPECT_EQ(mem_handed_out(), out_before);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(g_shown.times, 0);
}

TEST_F(Completion, AReadShowsItsDataOnceBeforeItPostsWhenItIsAskedTo) {
    set_read_dump(note_shown);
    queued(READ_QUEUE, 1, 3);
    ReadRawMsg(0, kAddr, 0, kSeq, 6, data);
    ReadRawMsg(0, kAddr, 0, kSeq, 6, data);
    EXPECT_EQ(g_shown.times, 1);
    EXPECT_EQ(g_shown.addr, kAddr);
    EXPECT_EQ(g_shown.len, 6U);
    EXPECT_EQ(g_shown.first, 0x5A);
    EXPECT_EQ(posts(), 1);
}

TEST_F(Completion, AReadLongerThanItsBufferEndsWithoutCopyingOrShowingAnything) {
    set_read_dump(note_shown);
    queued(READ_QUEUE, 1, 3);
    ReadRawMsg(0, kAddr, 0, kSeq, 1401, data);
    EXPECT_EQ(read_buf[0], 0xEE);
    EXPECT_EQ(read_buf[1399], 0xEE);
    EXPECT_EQ(g_shown.times, 0);
    EXPECT_EQ(posts(), 1);
}

TEST_F(Completion, AReadWithoutABufferEndsAllTheSame) {
    queued(READ_QUEUE, 1, 3)->read_buf = nullptr;
    ReadRawMsg(0, kAddr, 0, kSeq, 4, data);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(mem_handed_out(), out_before);
}

TEST_F(Completion, ARefusedReadIsSentAgainAndItsDataAreIgnored) {
    RawMsgQueueNode *record = queued(READ_QUEUE, 1, 3);
    const std::string text = test::output_of([&] { ReadRawMsg(0, kAddr, 9, kSeq, 4, data); });
    EXPECT_TRUE(test::ends_as_log_line(text, "wrong ack (0x9), send msg again (1)!\n"));
    EXPECT_EQ(wire_sent().size(), 1U);
    EXPECT_EQ(read_buf[0], 0xEE);
    EXPECT_EQ(queue_get(0, READ_QUEUE), record);
}

TEST_F(Completion, ASilentReadIsReleasedSilentlyAtItsThirdTimeOut) {
    queued(READ_QUEUE, 1, 3);
    const auto expire = [] {
        return test::output_of([] {
            pass_ticks(3);
            CheckReadRawMsg(0);
        });
    };
    EXPECT_TRUE(test::ends_as_log_line(expire(), "no ack msg (0xff), send msg again (2)!\n"));
    EXPECT_TRUE(test::ends_as_log_line(expire(), "no ack msg (0xff), send msg again (3)!\n"));
    EXPECT_EQ(expire(), "");
    EXPECT_EQ(wire_sent().size(), 2U);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(mem_handed_out(), out_before);
}

TEST_F(Completion, AReadAnsweredWithoutDataEndsAtItsTimeOuts) {
    RawMsgQueueNode *record = queued(READ_QUEUE, 1, 3);
    EXPECT_EQ(test::output_of([&] { ReadRawMsg(0, kAddr, 0, kSeq, 0, data); }), "");
    EXPECT_EQ(queue_get(0, READ_QUEUE), record);
    const std::string first = test::output_of([] {
        pass_ticks(3);
        CheckReadRawMsg(0);
    });
    EXPECT_TRUE(test::ends_as_log_line(first, "no ack msg (0x0), send msg again (2)!\n"));
    EXPECT_EQ(record->ack, 255U); // every resend waits for a fresh answer
    (void)test::output_of([&] {
        pass_ticks(3);
        CheckReadRawMsg(0);
        ReadRawMsg(0, kAddr, 0, kSeq, 0, data); // empty again, just before the last time-out
        pass_ticks(3);
        CheckReadRawMsg(0);
    });
    EXPECT_EQ(queue_get(0, READ_QUEUE), nullptr);
    EXPECT_EQ(posts(), 1);
}

TEST_F(Completion, AReadRefusedWithDataAndThenMetBySilenceEnds) {
    queued(READ_QUEUE, 1, 3);
    (void)test::output_of([&] {
        ReadRawMsg(0, kAddr, 5, kSeq, 4, data);
        for (int i = 0; i < 3; i++) {
            pass_ticks(3);
            CheckReadRawMsg(0);
        }
    });
    EXPECT_EQ(queue_get(0, READ_QUEUE), nullptr);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(mem_handed_out(), out_before);
}

// --- acknowledged write, the sender waits ---

TEST_F(Completion, AckZeroWakesAWaitingWriterOnce) {
    RawMsgQueueNode *record = queued(ACK_WAIT_QUEUE, 0, 6);
    const std::string text = test::output_of([&] {
        AckWaitRawMsg(0, kAddr, 0, kSeq, 0, data);
        AckWaitRawMsg(0, kAddr, 0, kSeq, 0, data); // the card repeats itself
        AckWaitRawMsg(0, kAddr, 7, kSeq, 0, data);
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(is_posted(record));
    EXPECT_FALSE(is_posted(record));
    EXPECT_EQ(record->ack, 0U);
    EXPECT_EQ(record->timer.period, 0);
    EXPECT_EQ(queue_get(0, ACK_WAIT_QUEUE), record); // its sender deletes it
    EXPECT_EQ(posts(), 0);
}

TEST_F(Completion, ARefusalWakesAWaitingWriterWithItsStatus) {
    RawMsgQueueNode *record = queued(ACK_WAIT_QUEUE, 0, 6);
    const std::string text = test::output_of([&] { AckWaitRawMsg(0, kAddr, 5, kSeq, 0, data); });
    EXPECT_TRUE(test::ends_as_log_line(text, "wrong ack (0x5)!\n"));
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->ack, 5U);
    EXPECT_TRUE(wire_sent().empty());
}

TEST_F(Completion, SilenceWakesAWaitingWriterAtTheThirdTimeOut) {
    RawMsgQueueNode *record = queued(ACK_WAIT_QUEUE, 0, 6);
    const auto expire = [] {
        return test::output_of([] {
            pass_ticks(6);
            CheckAckWaitRawMsg(0);
        });
    };
    EXPECT_EQ(expire(), "");
    EXPECT_EQ(expire(), "");
    EXPECT_FALSE(is_posted(record));
    EXPECT_TRUE(test::ends_as_log_line(expire(), "no ack msg (0xff) write error!\n"));
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->ack, 255U);
    EXPECT_EQ(record->timer.period, 0);
    EXPECT_EQ(expire(), "");
    EXPECT_FALSE(is_posted(record));
    EXPECT_TRUE(wire_sent().empty()); // a waiting form never resends
}

// --- read, the sender waits ---

TEST_F(Completion, DataWakeAWaitingReaderOnceAndAreNotOverwrittenByARepeat) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 6);
    EXPECT_EQ(test::output_of([&] { ReadWaitRawMsg(0, kAddr, 0, kSeq, 4, data); }), "");
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->recv_len, 4U);
    EXPECT_EQ(read_buf[3], 0x5A);
    EXPECT_EQ(read_buf[4], 0xEE);
    EXPECT_EQ(record->timer.period, 0);
    memset(data, 0x11, sizeof data);
    ReadWaitRawMsg(0, kAddr, 0, kSeq, 8, data); // the buffer is the sender's again
    EXPECT_FALSE(is_posted(record));
    EXPECT_EQ(read_buf[0], 0x5A);
    EXPECT_EQ(record->recv_len, 4U);
}

TEST_F(Completion, AReplyOfLength2000WakesAWaitingReaderWithoutCopying) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 6);
    ReadWaitRawMsg(0, kAddr, 0, kSeq, 2000, data);
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->recv_len, 2000U);
    EXPECT_EQ(read_buf[0], 0xEE);
}

TEST_F(Completion, AReplyWithoutDataWakesAWaitingReaderAndLeavesItsTimerRunning) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 6);
    const std::string text = test::output_of([&] { ReadWaitRawMsg(0, kAddr, 0, kSeq, 0, data); });
    EXPECT_TRUE(test::ends_as_log_line(text, "wrong msg and  recv_len, Read error!\n"));
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->timer.period, 6);
    const std::string later = test::output_of([] {
        pass_ticks(6);
        CheckReadWaitRawMsg(0);
    });
    EXPECT_EQ(later, ""); // it has ended: no second wake-up
    EXPECT_FALSE(is_posted(record));
}

TEST_F(Completion, ARefusalWakesAWaitingReaderWithoutData) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 6);
    const std::string text = test::output_of([&] { ReadWaitRawMsg(0, kAddr, 5, kSeq, 4, data); });
    EXPECT_TRUE(test::ends_as_log_line(text, "wrong ack (0x5)!\n"));
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->recv_len, 0U);
    EXPECT_EQ(read_buf[0], 0xEE);
}

TEST_F(Completion, SilenceWakesAWaitingReaderAtTheThirdTimeOut) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 6);
    const auto expire = [] {
        return test::output_of([] {
            pass_ticks(6);
            CheckReadWaitRawMsg(0);
        });
    };
    EXPECT_EQ(expire(), "");
    EXPECT_EQ(expire(), "");
    EXPECT_FALSE(is_posted(record));
    EXPECT_TRUE(test::ends_as_log_line(expire(), "no resp msg (0xff) read error no msg!\n"));
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->recv_len, 0U);
}

TEST_F(Completion, AWaitingReadAnsweredWith255AndDataEndsWithoutData) {
    RawMsgQueueNode *record = queued(READ_WAIT_QUEUE, 0, 1);
    const std::string text = test::output_of([&] {
        ReadWaitRawMsg(0, kAddr, 255, kSeq, 4, data);
        for (int i = 0; i < 3; i++) {
            pass_ticks(1);
            CheckReadWaitRawMsg(0);
        }
    });
    EXPECT_TRUE(test::ends_as_log_line(text, "no resp msg (0xff) read error no msg!\n"));
    EXPECT_TRUE(is_posted(record));
    EXPECT_EQ(record->recv_len, 0U);
}

TEST_F(Completion, AReplyServesTheQueueOfItsFormOnly) {
    RawMsgQueueNode *waiting = queued(ACK_WAIT_QUEUE, 0, 6);
    queued(ACK_QUEUE, 1, 3);
    AckRawMsg(0, kAddr, 0, kSeq, 0, data);
    EXPECT_EQ(queue_get(0, ACK_QUEUE), nullptr);
    EXPECT_FALSE(is_posted(waiting));
    AckWaitRawMsg(0, kAddr, 0, kSeq, 0, data);
    EXPECT_TRUE(is_posted(waiting));
}

TEST_F(Completion, IndicesOutOfRangeTouchNothing) {
    set_read_dump(show_nothing);
    const std::string text = test::output_of([&] {
        for (const int index : {-1, 3, 99}) {
            AckRawMsg(index, kAddr, 0, kSeq, 0, data);
            AckWaitRawMsg(index, kAddr, 0, kSeq, 0, data);
            ReadRawMsg(index, kAddr, 0, kSeq, 4, data);
            ReadWaitRawMsg(index, kAddr, 0, kSeq, 4, data);
            CheckAckRawMsg(index);
            CheckAckWaitRawMsg(index);
            CheckReadRawMsg(index);
            CheckReadWaitRawMsg(index);
        }
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(posts(), 0);
}

} // namespace
