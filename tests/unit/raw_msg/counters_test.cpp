// Each counter: up by what happened, and no other counter with it. No thread runs but the receive
// thread where a test starts it; ticks are counted by hand.
#include "eth_raw/eth_raw.h"
#include "helpers/forked.h"
#include "helpers/output.h"
#include "log/log.h"
#include "mem/mem.h"
#include "queue/record_holders.h"
#include "raw_msg/counters.h"
#include "raw_msg/request_rules.h"
#include "stand_ins/fake_wire.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <new>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

bool g_no_memory = false;

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);

void *__wrap_malloc(size_t size) {
    return g_no_memory ? nullptr : __real_malloc(size);
}
}

namespace {

using Changes = std::map<std::string, int64_t>; // those that are not 0

ruk_counter_set now() {
    ruk_counter_set counters;
    memset(&counters, 0xEE, sizeof counters);
    counters.size = sizeof counters;
    EXPECT_EQ(ruk_counters(&counters), 0);
    EXPECT_EQ(counters.size, sizeof counters);
    EXPECT_EQ(counters.reserved, 0U);
    return counters;
}

using PerLink = uint64_t[RUK_COUNTED_LINKS];
struct Row {
    const char *name;
    PerLink ruk_counter_set::*values;
};
constexpr Row kRows[] = {{"frames_sent", &ruk_counter_set::frames_sent},
                         {"bytes_sent", &ruk_counter_set::bytes_sent},
                         {"send_errors", &ruk_counter_set::send_errors},
                         {"resends", &ruk_counter_set::resends},
                         {"timeouts", &ruk_counter_set::timeouts},
                         {"unanswered", &ruk_counter_set::unanswered},
                         {"queue_overflows", &ruk_counter_set::queue_overflows},
                         {"frames_received", &ruk_counter_set::frames_received},
                         {"bytes_received", &ruk_counter_set::bytes_received},
                         {"receive_errors", &ruk_counter_set::receive_errors},
                         {"foreign_frames", &ruk_counter_set::foreign_frames},
                         {"checksum_errors", &ruk_counter_set::checksum_errors},
                         {"replies", &ruk_counter_set::replies},
                         {"unmatched_replies", &ruk_counter_set::unmatched_replies},
                         {"refusals", &ruk_counter_set::refusals}};

// With the interface's number behind each name that has one.
std::map<std::string, uint64_t> by_name(const ruk_counter_set &counters) {
    std::map<std::string, uint64_t> values;
    for (int i = 0; i < RUK_COUNTED_LINKS; i++) {
        for (const Row &row : kRows) {
            values[row.name + std::to_string(i)] = (counters.*row.values)[i];
        }
        for (int j = 0; j < RUK_COUNTED_QUEUES; j++) {
            values["queued" + std::to_string(i) + std::to_string(j)] = counters.queued[i][j];
        }
    }
    values["pool_in_use"] = counters.pool_in_use;
    values["pool_free"] = counters.pool_free;
    values["pool_failed"] = counters.pool_failed;
    return values;
}

Changes changes_since(const ruk_counter_set &before) {
    Changes changes;
    const auto old = by_name(before);
    for (const auto &[name, value] : by_name(now())) {
        const auto by = static_cast<int64_t>(value - old.at(name));
        if (by != 0) {
            changes[name] = by;
        }
    }
    return changes;
}

class Counters : public testing::Test {
protected:
    void SetUp() override {
        (void)mem_uinit(); // what other tests left free would change with each block taken
        queue_init();
        sem_init(&sem_test, 0, 0);
        wire_open(0);
        wire_open(1);
        memset(data, 0x5A, sizeof data);
    }
    void TearDown() override {
        for (int index = 0; index < RUK_COUNTED_LINKS; index++) {
            for (int queue = 0; queue < RUK_COUNTED_QUEUES; queue++) {
                (void)queue_empty(index, queue);
            }
        }
        (void)mem_uinit();
        wire_close(0);
        wire_close(1);
    }
    // What an action changes, the pool's share left out: other tests look at that.
    template <typename Action>
    static Changes on_links(Action action) {
        const ruk_counter_set before = now();
        quietly(action);
        Changes changes = changes_since(before);
        changes.erase("pool_in_use");
        changes.erase("pool_free");
        return changes;
    }
    template <typename Action>
    static void quietly(Action action) {
        testing::internal::CaptureStderr();
        action();
        (void)testing::internal::GetCapturedStderr();
    }
    static uint16_t write_without_waiting(int index, uint32_t len = 1) {
        EXPECT_EQ(RawSockSendOneMsgWithAck(0, index, 1, 3, 0x1000, 0x11, data, len), 0);
        return seq_of(wire_sent().back());
    }
    static uint16_t read_without_waiting(int index) {
        EXPECT_EQ(RawSockSendMsgWithRead(0, index, 1, 3, 0x1000, 0, 4, read_buf, nullptr), 0);
        return seq_of(wire_sent().back());
    }
    // As the waiting forms queue it, without the thread that waits.
    static RawMsgQueueNode *queue_waiting(int index, int queue, uint16_t seq = 77) {
        auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
        record->index = static_cast<uint32_t>(index);
        record->addr = 0x1000;
        record->seq = seq;
        record->ack = kNoReply;
        record->read_buf = read_buf;
        sem_init(&record->sem, 0, 0);
        EXPECT_EQ(queue_add(index, queue, record), 0);
        return record;
    }
    static void receive() {
        uint8_t b = 0;
        uint16_t w = 0;
        uint32_t d = 0;
        (void)RawSockMsgRecv(0, &b, &w, &b, &d, &b, &w, &w);
    }
    static uint8_t data[1400];
    static uint8_t read_buf[1400];
};
uint8_t Counters::data[1400];
uint8_t Counters::read_buf[1400];

// --- the record ---

TEST_F(Counters, FillTheRecordOnlyAsFarAsTheCallerKnowsIt) {
    struct {
        ruk_counter_set counters;
        uint8_t behind[8];
    } newer;
    memset(&newer, 0xEE, sizeof newer);
    newer.counters.size = sizeof newer;
    EXPECT_EQ(ruk_counters(&newer.counters), 0);
    EXPECT_EQ(newer.counters.size, sizeof newer.counters);
    EXPECT_EQ(newer.behind[0], 0xEE);

    (void)write_without_waiting(0);
    ruk_counter_set older;
    memset(&older, 0xEE, sizeof older);
    older.size = offsetof(ruk_counter_set, bytes_sent);
    EXPECT_EQ(ruk_counters(&older), 0);
    EXPECT_EQ(older.size, offsetof(ruk_counter_set, bytes_sent));
    EXPECT_EQ(older.frames_sent[0], now().frames_sent[0]);
    EXPECT_EQ(older.bytes_sent[0], 0xEEEEEEEEEEEEEEEE);
}

TEST_F(Counters, AreNoneForARecordOfTheFirstTwoFields) {
    ruk_counter_set least;
    memset(&least, 0xEE, sizeof least);
    least.size = offsetof(ruk_counter_set, frames_sent);
    EXPECT_EQ(ruk_counters(&least), 0);
    EXPECT_EQ(least.size, offsetof(ruk_counter_set, frames_sent));
    EXPECT_EQ(least.reserved, 0U);
    EXPECT_EQ(least.frames_sent[0], 0xEEEEEEEEEEEEEEEE);
}

TEST_F(Counters, RefuseNoRecordAndASizeThatHoldsNothing) {
    EXPECT_EQ(ruk_counters(nullptr), -1);
    ruk_counter_set counters;
    memset(&counters, 0xEE, sizeof counters);
    for (const uint32_t size : {0U, 7U}) {
        counters.size = size;
        EXPECT_EQ(ruk_counters(&counters), -1);
        EXPECT_EQ(counters.size, size);
        EXPECT_EQ(counters.reserved, 0xEEEEEEEE);
    }
}

// --- frames that go out ---

TEST_F(Counters, CountAFrameThatGoesOut) {
    EXPECT_EQ(on_links([] { EXPECT_EQ(RawSockSendMsg(0, 1, 3, 0x1000, 1, data, 1), 0); }),
              (Changes{{"frames_sent0", 1}, {"bytes_sent0", 94}}));
    EXPECT_EQ(on_links([] { EXPECT_EQ(RawSockSendMsg(1, 1, 3, 0x1000, 1, data, 1400), 0); }),
              (Changes{{"frames_sent1", 1}, {"bytes_sent1", 1430}}));
}

TEST_F(Counters, CountAFrameThatDoesNotGoOutOrOnlyInPart) {
    const Changes one_error{{"send_errors0", 1}};
    const auto send = [] { (void)RawSockSendMsg(0, 1, 3, 0x1000, 1, data, 1); };
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(on_links(send), one_error);
    wire_next_send(93, 0);
    EXPECT_EQ(on_links(send), one_error);
    wire_close(0);
    EXPECT_EQ(on_links(send), one_error);
}

TEST_F(Counters, CountAFrameThatWasTriedTwice) {
    const auto send = [] { (void)RawSockSendMsg(0, 1, 3, 0x1000, 1, data, 1); };
    wire_next_send(-1, EAGAIN);
    EXPECT_EQ(on_links(send), (Changes{{"frames_sent0", 1}, {"bytes_sent0", 94}}));
    wire_next_send(kWholeFrame, EAGAIN); // out, and out once more
    wire_next_send(kWholeFrame, 0);
    EXPECT_EQ(on_links(send), (Changes{{"frames_sent0", 2}, {"bytes_sent0", 188}}));
}

// Without a check thread nobody would time it out, so it is not even tried.
TEST_F(Counters, CountARequestThatNobodyWouldTimeOut) {
    wire_open(2);
    pthread_t check{};
    ASSERT_EQ(RawMsgRecvCheckTaskCreate(2, &check), 0);
    ASSERT_EQ(pthread_cancel(check), 0);
    ASSERT_EQ(pthread_join(check, nullptr), 0);
    EXPECT_EQ(on_links([] {
                  EXPECT_EQ(RawSockSendOneMsgWithAck(0, 2, 1, 3, 0x1000, 0x11, data, 1), -1);
              }),
              (Changes{{"send_errors2", 1}}));
    EXPECT_TRUE(wire_sent().empty());
    wire_close(2);
}

TEST_F(Counters, CountNothingForAnInterfaceThatDoesNotExist) {
    EXPECT_EQ(on_links([] {
                  (void)RawSockSendMsg(-1, 1, 3, 0x1000, 1, data, 1);
                  (void)RawSockSendMsg(3, 1, 3, 0x1000, 1, data, 1);
              }),
              Changes{});
}

// --- frames that come in ---

TEST_F(Counters, CountAnIntactReply) {
    const Frame reply = make_reply(0, 1, 3, 9, 0, 0x1000, {1, 2, 3});
    wire_deliver(reply);
    EXPECT_EQ(on_links(receive), (Changes{{"frames_received0", 1},
                                          {"bytes_received0", static_cast<int64_t>(reply.size())},
                                          {"replies0", 1}}));
}

TEST_F(Counters, CountADamagedReply) {
    Frame reply = make_reply(0, 1, 3, 9, 0, 0x1000, {1, 2, 3});
    reply.back() ^= 1;
    wire_deliver(reply);
    EXPECT_EQ(on_links(receive), (Changes{{"frames_received0", 1},
                                          {"bytes_received0", static_cast<int64_t>(reply.size())},
                                          {"checksum_errors0", 1}}));
    reply.resize(16); // the addresses and markers alone
    wire_deliver(reply);
    EXPECT_EQ(on_links(receive),
              (Changes{{"frames_received0", 1}, {"bytes_received0", 16}, {"checksum_errors0", 1}}));
    reply.resize(15);
    wire_deliver(reply);
    EXPECT_EQ(on_links(receive),
              (Changes{{"frames_received0", 1}, {"bytes_received0", 15}, {"foreign_frames0", 1}}));
}

TEST_F(Counters, CountAFrameOfOthers) {
    wire_deliver(Frame(60, 0xFF));
    EXPECT_EQ(on_links(receive),
              (Changes{{"frames_received0", 1}, {"bytes_received0", 60}, {"foreign_frames0", 1}}));
    wire_deliver(Frame{});
    EXPECT_EQ(on_links(receive), (Changes{{"frames_received0", 1}, {"foreign_frames0", 1}}));
}

TEST_F(Counters, CountAFrameThatDoesNotFitTheBuffer) {
    wire_deliver(Frame(9000, 0xFF));
    EXPECT_EQ(
        on_links(receive),
        (Changes{{"frames_received0", 1}, {"bytes_received0", 1450}, {"foreign_frames0", 1}}));
}

TEST_F(Counters, CountAReceiveThatFails) {
    wire_deliver_failure(ENETDOWN);
    EXPECT_EQ(on_links(receive), (Changes{{"receive_errors0", 1}}));
    wire_deliver_failure(EINTR);
    EXPECT_EQ(on_links(receive), Changes{}); // a signal, no failure
    wire_close(0);
    EXPECT_EQ(on_links(receive), Changes{}); // not even tried
}

// --- replies and requests ---

class CountersWithReceiveThread : public Counters {
protected:
    void SetUp() override {
        Counters::SetUp();
        ASSERT_EQ(pthread_create(&thread, nullptr, RawMsgRecv, nullptr), 0);
    }
    void TearDown() override {
        EXPECT_EQ(pthread_cancel(thread), 0);
        EXPECT_EQ(pthread_join(thread, nullptr), 0);
        Counters::TearDown();
    }
    // What frames change besides the frames and bytes themselves: a last read shows that everything
    // before it has been looked at.
    static Changes after(const std::vector<Frame> &frames) {
        const uint16_t seq = read_without_waiting(0);
        const auto received = static_cast<int64_t>(frames.size()) + 1;
        Changes changes = on_links([&] {
            for (const Frame &frame : frames) {
                wire_deliver(frame);
            }
            wire_deliver(make_reply(0, 1, 3, seq, 0, 0x1000, {1, 2, 3, 4}));
            while (queue_depth(0, READ_QUEUE) != 0) {
                sched_yield();
            }
        });
        EXPECT_EQ(changes["frames_received0"], received);
        EXPECT_EQ(changes["queued02"], -1);
        for (const char *name : {"frames_received0", "bytes_received0", "queued02"}) {
            changes.erase(name);
        }
        return changes;
    }
    pthread_t thread{};
};

TEST_F(CountersWithReceiveThread, CountAReplyThatARequestTakes) {
    EXPECT_EQ(after({}), (Changes{{"replies0", 1}}));
    const uint16_t seq = write_without_waiting(0);
    EXPECT_EQ(after({make_reply(0, 1, 3, seq, 0x11, 0x1000, {})}),
              (Changes{{"replies0", 2}, {"queued00", -1}}));
}

TEST_F(CountersWithReceiveThread, CountARepeatedReply) {
    const uint16_t seq = write_without_waiting(0);
    const Frame reply = make_reply(0, 1, 3, seq, 0x11, 0x1000, {});
    EXPECT_EQ(after({reply, reply}),
              (Changes{{"replies0", 3}, {"unmatched_replies0", 1}, {"queued00", -1}}));
}

TEST_F(CountersWithReceiveThread, CountRepliesThatNoRequestWaitsFor) {
    const uint16_t seq = write_without_waiting(0);
    EXPECT_EQ(after({
                  make_reply(0, 1, 3, seq, 0x11, 0x1004, {}),                            // address
                  make_reply(0, 1, 3, static_cast<uint16_t>(seq + 1), 0x11, 0x1000, {}), // number
                  make_reply(0, 1, 3, seq, 0x00, 0x1000, {1}),                           // form
                  make_reply(0, 1, 3, seq, 0x77, 0x1000, {}),                            // code
              }),
              (Changes{{"replies0", 5}, {"unmatched_replies0", 4}}));
}

// Both writes have this address and number; one reply ends both, and is one reply.
TEST_F(CountersWithReceiveThread, CountAReplyThatTwoRequestsTake) {
    const uint16_t seq = write_without_waiting(0);
    RawMsgQueueNode *waiting = queue_waiting(0, ACK_WAIT_QUEUE, seq);
    EXPECT_EQ(after({make_reply(0, 1, 3, seq, 0x11, 0x1000, {})}),
              (Changes{{"replies0", 2}, {"queued00", -1}}));
    EXPECT_EQ(sem_trywait(&waiting->sem), 0);
}

TEST_F(CountersWithReceiveThread, CountARefusalAndItsResend) {
    const uint16_t seq = write_without_waiting(0);
    EXPECT_EQ(after({make_reply(2, 1, 3, seq, 0x11, 0x1000, {})}), (Changes{{"replies0", 2},
                                                                            {"refusals0", 1},
                                                                            {"resends0", 1},
                                                                            {"frames_sent0", 1},
                                                                            {"bytes_sent0", 94}}));
}

TEST_F(CountersWithReceiveThread, CountNoRefusalForTheStatusThatMeansNoAnswer) {
    const uint16_t seq = write_without_waiting(0);
    EXPECT_EQ(after({make_reply(255, 1, 3, seq, 0x11, 0x1000, {})}), (Changes{{"replies0", 2}}));
}

TEST_F(Counters, CountARefusalOfEachForm) {
    const uint16_t read_seq = read_without_waiting(1);
    EXPECT_EQ(
        on_links([&] { ReadRawMsg(1, 0x1000, 2, read_seq, 0, data); }),
        (Changes{{"refusals1", 1}, {"resends1", 1}, {"frames_sent1", 1}, {"bytes_sent1", 94}}));
    (void)queue_waiting(1, ACK_WAIT_QUEUE);
    EXPECT_EQ(on_links([] { AckWaitRawMsg(1, 0x1000, 2, 77, 0, data); }),
              (Changes{{"refusals1", 1}}));
    (void)queue_waiting(1, READ_WAIT_QUEUE);
    EXPECT_EQ(on_links([] { ReadWaitRawMsg(1, 0x1000, 2, 77, 4, data); }),
              (Changes{{"refusals1", 1}}));
}

TEST_F(Counters, CountAResendThatFails) {
    const uint16_t seq = write_without_waiting(0);
    wire_next_send(-1, ENETDOWN);
    EXPECT_EQ(on_links([&] { AckRawMsg(0, 0x1000, 2, seq, 0, data); }),
              (Changes{{"refusals0", 1}, {"send_errors0", 1}}));
}

// --- silence ---

class CountersOfSilence : public Counters, public testing::WithParamInterface<int> {
protected:
    static void time_out(int index) {
        for (int i = 0; i < kResendTicks; i++) {
            catch_alarm(SIGALRM);
        }
        timerUpdate(static_cast<uint32_t>(index), kQueueKinds);
        CheckAckRawMsg(index);
        CheckAckWaitRawMsg(index);
        CheckReadRawMsg(index);
        CheckReadWaitRawMsg(index);
    }
};

TEST_F(CountersOfSilence, CountTwoResendsAndTheEndOfARequestThatNobodyWaitsFor) {
    const Changes again{
        {"timeouts1", 1}, {"resends1", 1}, {"frames_sent1", 1}, {"bytes_sent1", 104}};
    for (const bool is_read : {false, true}) {
        Changes sent_again = again;
        if (is_read) {
            (void)read_without_waiting(1);
            sent_again["bytes_sent1"] = 94;
        } else {
            (void)write_without_waiting(1, 74);
        }
        EXPECT_EQ(on_links([] { time_out(1); }), sent_again);
        EXPECT_EQ(on_links([] { time_out(1); }), sent_again);
        EXPECT_EQ(on_links([] { time_out(1); }),
                  (Changes{{"timeouts1", 1},
                           {"unanswered1", 1},
                           {is_read ? "queued12" : "queued10", -1}}));
    }
}

TEST_P(CountersOfSilence, CountTheEndOfAWaitAtTheThirdTimeOut) {
    RawMsgQueueNode *record = queue_waiting(1, GetParam());
    timerStart(kResendTicks, &record->timer);
    EXPECT_EQ(on_links([] { time_out(1); }), (Changes{{"timeouts1", 1}}));
    EXPECT_EQ(on_links([] { time_out(1); }), (Changes{{"timeouts1", 1}}));
    EXPECT_EQ(on_links([] { time_out(1); }), (Changes{{"timeouts1", 1}, {"unanswered1", 1}}));
    EXPECT_EQ(on_links([] { time_out(1); }), Changes{});
}

INSTANTIATE_TEST_SUITE_P(Forms, CountersOfSilence,
                         testing::Values(int{ACK_WAIT_QUEUE}, int{READ_WAIT_QUEUE}));

TEST_F(Counters, CountRequestsThatEndWithTheirLink) {
    (void)write_without_waiting(0);
    (void)queue_waiting(0, READ_WAIT_QUEUE);
    (void)write_without_waiting(1);
    EXPECT_EQ(on_links([] { (void)RawMsgModuleUnInit(0); }),
              (Changes{{"timeouts0", 2}, {"unanswered0", 2}, {"queued00", -1}}));
}

// --- queues ---

TEST_F(Counters, CountRequestsUnderWay) {
    for (int index = 0; index < RUK_COUNTED_LINKS; index++) {
        for (int queue = 0; queue < RUK_COUNTED_QUEUES; queue++) {
            const std::string depth = "queued" + std::to_string(index) + std::to_string(queue);
            EXPECT_EQ(on_links([&] {
                          (void)queue_waiting(index, queue);
                          (void)queue_waiting(index, queue);
                      }),
                      (Changes{{depth, 2}}));
            EXPECT_EQ(on_links([&] { (void)queue_empty(index, queue); }), (Changes{{depth, -2}}));
        }
    }
}

TEST_F(Counters, TakeAQueueThatWasDeletedFromTooOftenAsEmpty) {
    RawMsgQueueNode *none = nullptr;
    EXPECT_EQ(queue_del(2, READ_QUEUE, &none), -1);
    EXPECT_EQ(now().queued[2][READ_QUEUE], 0U);
}

TEST_F(Counters, CountAFullQueueThatIsEmptied) {
    for (int i = 1; i < kQueueCapacity; i++) {
        (void)queue_waiting(0, READ_QUEUE);
    }
    EXPECT_EQ(on_links([] { (void)read_without_waiting(0); }),
              (Changes{{"queue_overflows0", 1},
                       {"frames_sent0", 1},
                       {"bytes_sent0", 94},
                       {"queued02", 1 - (kQueueCapacity - 1)}}));
}

// --- the pool ---

TEST_F(Counters, CountBlocksOfThePool) {
    ruk_counter_set before = now();
    EXPECT_EQ(before.pool_free, 0U);
    void *small = mem_alloc(1);
    void *large = mem_alloc(8192);
    EXPECT_EQ(changes_since(before), (Changes{{"pool_in_use", 2}}));
    mem_free(small);
    EXPECT_EQ(changes_since(before), (Changes{{"pool_in_use", 1}, {"pool_free", 1}}));
    mem_free(large);
    EXPECT_EQ(changes_since(before), (Changes{{"pool_free", 2}}));
    small = mem_alloc(1);
    EXPECT_EQ(changes_since(before), (Changes{{"pool_in_use", 1}, {"pool_free", 1}}));
    mem_free(small);
    (void)mem_uinit();
    EXPECT_EQ(changes_since(before), Changes{});
    small = mem_alloc(1);
    mem_free(small);
    (void)mem_init(); // forgets what is free
    EXPECT_EQ(changes_since(before), Changes{});
    mem_push(0, static_cast<mem_block *>(small) - 1); // for the end of the test to release
    EXPECT_EQ(changes_since(before), (Changes{{"pool_free", 1}}));
}

TEST_F(Counters, CountABlockThatCannotBeHad) {
    const ruk_counter_set before = now();
    g_no_memory = true;
    void *none = mem_alloc(64);
    g_no_memory = false;
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(changes_since(before), (Changes{{"pool_failed", 1}}));
    EXPECT_EQ(mem_alloc(8193), nullptr); // nobody asked the system for that
    EXPECT_EQ(changes_since(before), (Changes{{"pool_failed", 1}}));
}

// --- over the life of a process ---

TEST_F(Counters, GoOnWhenTheLayersStartAnew) {
    (void)RawSockSendMsg(0, 1, 3, 0x1000, 1, data, 1);
    RawMsgQueueNode *record = queue_waiting(0, ACK_QUEUE);
    const ruk_counter_set before = now();
    queue_init();
    wire_close(0);
    (void)RawMsgModuleUnInit(0);
    wire_open(0);
    EXPECT_EQ(changes_since(before), (Changes{{"queued00", -1}}));
    mem_free(record); // forgotten by its queue
}

TEST_F(Counters, GoOnInAChildAndStayInItsParent) {
    (void)write_without_waiting(0);
    const ruk_counter_set before = now();
    const test::Ended child = test::run_forked([&] {
        const bool goes_on = now().frames_sent[0] == before.frames_sent[0];
        const Changes changes = on_links([] { (void)RawSockSendMsg(0, 1, 3, 0x1000, 1, data, 1); });
        _exit(goes_on && changes == Changes{{"frames_sent0", 1}, {"bytes_sent0", 94}} ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(changes_since(before), Changes{});
}

} // namespace
