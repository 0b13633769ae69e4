// How requests end that get no answer and no time-out of their own: their sender is cancelled,
// their check thread ends, their link is taken down, their queue is emptied, their process forks.
#include "base/locks.h"
#include "eth_raw/eth_raw.h"
#include "helpers/forked.h"
#include "helpers/output.h"
#include "helpers/request_ends.h"
#include "log/log.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "queue/record_holders.h"
#include "raw_msg/request_rules.h"
#include "raw_msg/watch.h"
#include "stand_ins/fake_wire.h"
#include "stand_ins/lock_count.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <ctime>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace {

// Called instead of the calling thread's sleeps.
thread_local std::function<void()> t_at_sleep;

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest) {
    if (!t_at_sleep) {
        return __real_clock_nanosleep(clock, flags, until, rest);
    }
    t_at_sleep();
    return 0;
}
}
#pragma GCC visibility pop

namespace {

using test::posts;
using test::queues_are_empty;

using namespace std::chrono_literals;

constexpr uint8_t kByte = 0x5A;

void await(const std::function<bool()> &condition) {
    for (int i = 0; i < 10000 && !condition(); i++) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_TRUE(condition());
}

// What a sender on a thread of its own works with, and where its result goes.
struct Sender {
    int form;
    int index = 0;
    std::array<uint8_t, 1400> read_buf{};
    uint8_t ack = 77;
    uint32_t received = 77;
    int result = 77;
    pthread_t thread{};
    std::function<void()> at_sleep = {};
};

constexpr std::array<uint8_t, 3000> kLongData{kByte};

enum Form { kWriteWait, kLongWriteWait, kReadWait, kWriteOn, kReadOn };

void *send(void *argument) {
    auto &self = *static_cast<Sender *>(argument);
    t_at_sleep = self.at_sleep;
    switch (self.form) {
    case kWriteWait:
        self.result =
            RawSockSendOneMsgWithAckWait(self.index, 1, 3, 0x1000, 0x11, &kByte, 1, &self.ack, 6);
        break;
    case kLongWriteWait:
        self.result = RawSockSendMsgWithAckWait(self.index, 1, 3, 0x1000, 0x11, kLongData.data(),
                                                3000, &self.ack, 6);
        break;
    case kReadWait:
        self.result = RawSockSendMsgWithReadWait(self.index, 1, 3, 0x1000, 0, 4,
                                                 self.read_buf.data(), &self.received, 6);
        break;
    case kWriteOn:
        self.result = RawSockSendOneMsgWithAck(0, self.index, 1, 3, 0x1000, 0x11, &kByte, 1);
        break;
    default:
        self.result = RawSockSendMsgWithRead(0, self.index, 1, 3, 0x1000, 0, 4,
                                             self.read_buf.data(), nullptr);
        break;
    }
    return nullptr;
}

class RequestEnd : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        sem_init(&sem_test, 0, 0);
        open_wires();
        out_before_ = mem_handed_out();
    }
    void TearDown() override {
        (void)posts();
        close_wires();
        EXPECT_EQ(mem_handed_out(), out_before_);
        EXPECT_TRUE(queues_are_empty());
    }
    static void open_wires() {
        for (int index = 0; index < kQueueInterfaces; index++) {
            wire_open(index);
        }
    }
    static void close_wires() {
        for (int index = 0; index < kQueueInterfaces; index++) {
            wire_close(index);
        }
    }
    static void start(Sender &sender) {
        ASSERT_EQ(pthread_create(&sender.thread, nullptr, send, &sender), 0);
    }
    static void join(const Sender &sender) {
        ASSERT_EQ(pthread_join(sender.thread, nullptr), 0);
    }
    static void cancel(const Sender &sender) {
        ASSERT_EQ(pthread_cancel(sender.thread), 0);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(sender.thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    // Returns the last of them.
    static RawMsgQueueNode *fill(int queue, int count, int index = 0) {
        RawMsgQueueNode *record = nullptr;
        for (int i = 0; i < count; i++) {
            record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
            record->addr = 0xFFFF0000;
            EXPECT_EQ(queue_add(index, queue, record), 0);
        }
        return record;
    }
    static void answer_all(uint16_t seq) {
        uint8_t data[4] = {1, 2, 3, 4};
        AckRawMsg(0, 0x1000, 0, seq, 0, data);
        AckWaitRawMsg(0, 0x1000, 0, seq, 0, data);
        ReadRawMsg(0, 0x1000, 0, seq, 4, data);
        ReadWaitRawMsg(0, 0x1000, 0, seq, 4, data);
    }

private:
    int64_t out_before_ = 0;
};

// --- a sender that is cancelled ---

using CancelledSender = RequestEnd;

TEST_F(CancelledSender, TakesItsRequestBackBeforeALateAnswerComes) {
    for (const int form : {kWriteWait, kReadWait}) {
        Sender sender{.form = form};
        const size_t sent_before = wire_sent().size();
        start(sender);
        ASSERT_TRUE(wire_await_sent(sent_before + 1));
        std::this_thread::sleep_for(5ms); // most likely it waits by now; it need not
        cancel(sender);
        EXPECT_TRUE(queues_are_empty());
        answer_all(seq_of(wire_sent().back()));
        EXPECT_EQ(sender.read_buf[0], 0) << "written behind its owner's back";
        EXPECT_EQ(posts(), form == kReadWait ? 1 : 0); // as at any other end
        EXPECT_EQ(sender.result, 77);
    }
}

TEST_F(CancelledSender, OfALongWriteCountsTheOperationOnce) {
    Sender sender{.form = kLongWriteWait};
    start(sender);
    ASSERT_TRUE(wire_await_sent(1));
    cancel(sender);
    EXPECT_EQ(posts(), 1);
    EXPECT_EQ(wire_sent().size(), 1U);
}

TEST_F(CancelledSender, ThatHasFoundItsQueueFullLeavesItAsItWas) {
    const std::pair<int, int> forms[] = {{kWriteOn, ACK_QUEUE},
                                         {kWriteWait, ACK_WAIT_QUEUE},
                                         {kReadOn, READ_QUEUE},
                                         {kReadWait, READ_WAIT_QUEUE}};
    for (const auto &[form, queue] : forms) {
        fill(queue, kQueueCapacity - 1);
        Sender sender{.form = form, .at_sleep = [] {
                          (void)pthread_cancel(pthread_self());
                          pthread_testcancel();
                      }};
        start(sender);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(sender.thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED) << form;
        EXPECT_EQ(posts(), form == kWriteWait ? 0 : 1) << form; // its caller's wrapper counts it
        EXPECT_TRUE(wire_sent().empty());
        RawMsgQueueNode *stranger = nullptr;
        for (int left = kQueueCapacity - 1; left > 0; left--) {
            ASSERT_EQ(queue_del(0, queue, &stranger), 0) << left;
        }
        EXPECT_EQ(queue_del(0, queue, &stranger), -1); // the count was exact
        queue_empty(0, queue);
        queue_init();
    }
}

TEST_F(CancelledSender, GoesOnWhenItsOwnerHoldsCancellationBack) {
    Sender sender{.form = kReadWait};
    std::atomic<bool> was_enabled{true};
    std::thread owner([&] {
        const CancelOff off;
        send(&sender);
        int state = -1;
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        was_enabled = state == PTHREAD_CANCEL_ENABLE;
    });
    ASSERT_TRUE(wire_await_sent(1));
    (void)pthread_cancel(owner.native_handle());
    std::this_thread::sleep_for(5ms);
    answer_all(seq_of(wire_sent()[0]));
    owner.join();
    EXPECT_EQ(sender.result, 0);
    EXPECT_FALSE(was_enabled);
}

// --- a link that is taken down under its senders ---

using TakenDown = RequestEnd;

constexpr int kForms[] = {kWriteWait, kReadWait, kWriteOn, kReadOn};

void expect_ended(const std::array<Sender, 4> &senders) {
    EXPECT_EQ(senders[0].result, -1);
    EXPECT_EQ(senders[0].ack, 255);
    EXPECT_EQ(senders[1].result, -1);
    EXPECT_EQ(senders[1].received, 0U);
    EXPECT_EQ(senders[2].result, 0); // the frame went out
    EXPECT_EQ(senders[3].result, 0);
    EXPECT_EQ(posts(), 3); // both without waiting, and the read that failed
}

// These leave their interface without a check thread, which the other tests' interface 0 never had.
constexpr int kEnded = 1;
constexpr int kEndedAndStarted = 2;

pthread_t start_check_thread(int index) {
    pthread_t check{};
    EXPECT_EQ(RawMsgRecvCheckTaskCreate(index, &check), 0);
    return check;
}

void end_check_thread(pthread_t check) {
    EXPECT_EQ(pthread_cancel(check), 0);
    EXPECT_EQ(pthread_join(check, nullptr), 0);
}

TEST_F(TakenDown, TheEndOfTheCheckThreadEndsEveryRequestAsItsLastTimeOut) {
    log_debug = 1; // before there are threads that read it
    pthread_t check = start_check_thread(kEnded);
    std::array<Sender, 4> senders{};
    for (size_t i = 0; i < senders.size(); i++) {
        senders.at(i).form = kForms[i];
        senders.at(i).index = kEnded;
        start(senders.at(i));
    }
    ASSERT_TRUE(wire_await_sent(4));
    join(senders[2]);
    join(senders[3]);
    const std::string text = test::output_of([&] {
        end_check_thread(check);
        join(senders[0]);
        join(senders[1]);
    });
    log_debug = 0;
    EXPECT_EQ(test::occurrences(text, "no ack msg (0xff) write error!\n"), 1);
    EXPECT_EQ(test::occurrences(text, "no resp msg (0xff) read error no msg!\n"), 1);
    EXPECT_EQ(test::occurrences(text, "wrong ack (0xff), send msg count (4), not send again!\n"),
              1);
    expect_ended(senders);
    EXPECT_EQ(wire_sent().size(), 4U); // nothing was sent again
}

TEST_F(TakenDown, WithoutItsCheckThreadRequestsFailUnsentUntilThereIsOneAgain) {
    end_check_thread(start_check_thread(kEndedAndStarted));
    for (const int form : kForms) {
        Sender sender{.form = form, .index = kEndedAndStarted};
        send(&sender);
        EXPECT_EQ(sender.result, -1) << form;
        EXPECT_EQ(posts(), 1) << form;
    }
    EXPECT_TRUE(wire_sent().empty());

    pthread_t check = start_check_thread(kEndedAndStarted);
    Sender sender{.form = kWriteOn, .index = kEndedAndStarted}; // at once: it need not run yet
    send(&sender);
    EXPECT_EQ(sender.result, 0);
    end_check_thread(check);
    EXPECT_EQ(posts(), 1);
}

TEST_F(TakenDown, OneOfTwoCheckThreadsMayEnd) {
    pthread_t first = start_check_thread(kEnded);
    pthread_t second = start_check_thread(kEnded);
    end_check_thread(first);
    EXPECT_FALSE(is_unwatched(kEnded));
    end_check_thread(second);
    EXPECT_TRUE(is_unwatched(kEnded));
}

TEST_F(TakenDown, ACheckThreadThatCannotBeStartedLeavesTheInterfaceUnwatched) {
    announce_watch(kEnded);
    EXPECT_FALSE(is_unwatched(kEnded));
    revoke_watch(kEnded);
    EXPECT_TRUE(is_unwatched(kEnded));
    for (const int nowhere : {-1, 3, 99, INT_MIN, INT_MAX}) {
        announce_watch(nowhere);
        revoke_watch(nowhere);
        const Watch none(nowhere);
        EXPECT_FALSE(is_unwatched(nowhere));
    }
}

// Hosts start check threads of their own, which nobody has announced.
TEST_F(TakenDown, ACheckThreadThatNobodyHasAnnouncedCountsLikeAnother) {
    announce_watch(kEnded);
    revoke_watch(kEnded);
    {
        const Watch own(kEnded);
        EXPECT_FALSE(is_unwatched(kEnded));
    }
    EXPECT_TRUE(is_unwatched(kEnded));

    announce_watch(kEnded);
    auto announced = std::make_unique<Watch>(kEnded);
    {
        const Watch own(kEnded);
        announced.reset();
        EXPECT_FALSE(is_unwatched(kEnded));
    }
    EXPECT_TRUE(is_unwatched(kEnded));
}

TEST_F(TakenDown, CheckThreadsAreCountedUnderALock) {
    const auto taken = [](const std::function<void()> &work) {
        const test::LockUse use = test::locks_of(work);
        EXPECT_EQ(use.kept, 0);
        return use.taken;
    };
    EXPECT_EQ(taken([] { announce_watch(kEnded); }), 1);
    EXPECT_EQ(taken([] { announce_watch(kEnded); }), 1);
    EXPECT_EQ(taken([] { revoke_watch(kEnded); }), 1);
    std::unique_ptr<Watch> one;
    EXPECT_EQ(taken([&] { one = std::make_unique<Watch>(kEnded); }), 1);
    const Watch other(kEnded);
    EXPECT_EQ(taken([&] { one.reset(); }), 1);
}

// A cancelled thread in the middle of it would leave others waiting.
TEST_F(TakenDown, TheEndOfAllRequestsIsNotCancelled) {
    const test::LockUse use = test::locks_of([] { end_all_requests(kEnded); });
    EXPECT_EQ(use.taken, 1 + 4 * 2); // what keeps replies out meanwhile; each of four queues
    EXPECT_EQ(use.deepest, 2);
    EXPECT_EQ(use.cancellable, 0);
    EXPECT_EQ(use.kept, 0);
}

// Else the requests of the next check thread would be as old as the pause was long.
TEST_F(TakenDown, NoTickIsKeptForAnInterfaceWithoutACheckThread) {
    timerUpdate(kEnded, kQueueKinds); // from here on it takes part
    end_check_thread(start_check_thread(kEnded));
    for (int i = 0; i < 100; i++) {
        catch_alarm(SIGALRM);
    }
    timerUpdate(0, kQueueKinds);

    RawMsgQueueNode *record = fill(ACK_QUEUE, 1, kEnded);
    queue_timer_start(kEnded, ACK_QUEUE, record, 3);
    timerUpdate(kEnded, kQueueKinds);
    EXPECT_EQ(record->timer.expired, 0);
    EXPECT_EQ(record->timer.remaining, 3);
    queue_empty(kEnded, ACK_QUEUE);
}

TEST_F(TakenDown, UnloadingTheModuleEndsEveryRequest) {
    std::array<Sender, 4> senders{};
    for (size_t i = 0; i < senders.size(); i++) {
        senders.at(i).form = kForms[i];
        start(senders.at(i));
    }
    ASSERT_TRUE(wire_await_sent(4));
    close_wires(); // the test's descriptor is not to be closed
    EXPECT_EQ(RawMsgModuleUnInit(0), -1);
    for (const Sender &sender : senders) {
        join(sender);
    }
    expect_ended(senders);
}

TEST_F(TakenDown, UnloadingOneInterfaceLeavesTheRequestsOfAnother) {
    Sender sender{.form = kWriteOn};
    send(&sender);
    EXPECT_EQ(RawMsgModuleUnInit(1), -1);
    EXPECT_EQ(posts(), 0);
    EXPECT_NE(queue_get(0, ACK_QUEUE), nullptr);
    answer_all(seq_of(wire_sent()[0]));
    EXPECT_EQ(posts(), 1);
}

// --- a queue that is emptied under its senders ---

using EmptiedQueue = RequestEnd;

// Each sender keeps finding the queue full and empties it under the others.
TEST_F(EmptiedQueue, ByTwoReadersAtOnceCountsEachRequestOnce) {
    constexpr int kEach = 400;
    constexpr int kSenders = 2;
    int ended = 0;
    for (int round = 0; round < 4; round++) {
        fill(READ_QUEUE, kQueueCapacity - 1 - kEach / 4);
        std::vector<std::thread> readers;
        for (int i = 0; i < kSenders; i++) {
            readers.emplace_back([] {
                for (int k = 0; k < kEach; k++) {
                    uint8_t nowhere[1400];
                    EXPECT_EQ(RawSockSendMsgWithRead(0, 0, 1, 3, 0x1000, 0, 4, nowhere, nullptr),
                              0);
                }
            });
        }
        for (std::thread &reader : readers) {
            reader.join();
        }
        ended += posts();
        queue_empty(0, READ_QUEUE);
        ended += posts();
        EXPECT_EQ(ended, (round + 1) * kSenders * kEach);
    }
}

TEST_F(EmptiedQueue, ByAHostLeavesAWriteAloneThatWaitsForRoom) {
    for (int round = 0; round < 5; round++) {
        fill(ACK_QUEUE, kQueueCapacity - 1);
        const int64_t out = mem_handed_out();
        const size_t sent = wire_sent().size();
        Sender sender{.form = kWriteOn};
        start(sender);
        await([out] { return mem_handed_out() == out + 2; }); // it has record and buffer
        std::this_thread::sleep_for(2ms);                     // most likely it waits by now
        queue_empty(0, ACK_QUEUE);
        join(sender);
        EXPECT_EQ(sender.result, 0);
        EXPECT_EQ(wire_sent().size(), sent + 1);
        queue_empty(0, ACK_QUEUE); // now its request is in, and goes
        EXPECT_EQ(posts(), 1);
    }
}

TEST_F(EmptiedQueue, ByAHostThatTakesOutAWriteThatWaitsForRoomEndsIt) {
    fill(ACK_QUEUE, kQueueCapacity - 1);
    Sender sender{.form = kWriteOn, .at_sleep = [] {
                      RawMsgQueueNode *record = queue_get(0, ACK_QUEUE);
                      while (record->next != nullptr) {
                          record = record->next;
                      }
                      RawMsgBuffFree(record->buf); // as a host does that takes out a request
                      EXPECT_EQ(queue_del(0, ACK_QUEUE, &record), 0);
                  }};
    start(sender);
    join(sender);
    EXPECT_EQ(sender.result, -1);
    EXPECT_EQ(posts(), 1);
    EXPECT_TRUE(wire_sent().empty());
    queue_empty(0, ACK_QUEUE);
}

// A sender that waits has not been counted when its queue was emptied.
TEST_F(EmptiedQueue, BetweenQueueAndWireCountsAWaitingSenderToo) {
    const std::pair<int, int> forms[] = {{kWriteWait, ACK_WAIT_QUEUE},
                                         {kReadWait, READ_WAIT_QUEUE}};
    for (const auto &[form, queue] : forms) {
        Sender sender{.form = form};
        testing::internal::CaptureStderr();
        {
            const MutexGuard keeps_it_from_sending(g_eth_init[0].send_lock);
            start(sender);
            await([queue = queue] { return queue_get(0, queue) != nullptr; });
            queue_empty(0, queue);
            wire_close(0);
        }
        join(sender);
        (void)testing::internal::GetCapturedStderr();
        EXPECT_EQ(sender.result, -1);
        EXPECT_EQ(posts(), 1);
        wire_open(0);
    }
}

TEST_F(EmptiedQueue, ByAHostCountsEachWriteOnce) {
    std::atomic<bool> is_over{false};
    std::thread host([&] {
        while (!is_over) {
            queue_empty(0, ACK_QUEUE);
        }
    });
    constexpr int kWrites = 20000;
    for (int k = 0; k < kWrites; k++) {
        EXPECT_EQ(RawSockSendOneMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, &kByte, 1), 0);
    }
    is_over = true;
    host.join();
    queue_empty(0, ACK_QUEUE);
    EXPECT_EQ(posts(), kWrites);
}

// The frame of a request cannot be sent after the queue was emptied: it has been counted already.
TEST_F(EmptiedQueue, BetweenQueueAndWireCountsTheRequestOnce) {
    std::atomic<bool> is_over{false};
    std::thread host([&] {
        while (!is_over) {
            queue_empty(0, READ_QUEUE);
        }
    });
    constexpr int kReads = 20000;
    uint8_t nowhere[1400];
    close_wires();
    testing::internal::CaptureStderr();
    for (int k = 0; k < kReads; k++) {
        EXPECT_EQ(RawSockSendMsgWithRead(0, 0, 1, 3, 0x1000, 0, 4, nowhere, nullptr), -1);
    }
    (void)testing::internal::GetCapturedStderr();
    is_over = true;
    host.join();
    EXPECT_EQ(posts(), kReads);
}

// --- a process that forks ---

// The exit status of a child that does this: 0 when nothing failed in it.
int status_in_child(const std::function<void()> &work) {
    const test::Ended ended = test::run_forked([&work] {
        work();
        (void)fflush(stdout);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(ended.output, "");
    return ended.status;
}

// Nor does anybody hold the lock under which they are counted.
TEST(Fork, AChildHasNoCheckThreadYet) {
    const auto try_to_start_all = [] {
        for (int index = 0; index < kInterfaces; index++) {
            announce_watch(index);
            revoke_watch(index);
        }
    };
    EXPECT_EQ(test::fork_amid(try_to_start_all, 1, try_to_start_all), 0);
    EXPECT_EQ(status_in_child([&] {
                  try_to_start_all();
                  EXPECT_EQ(status_in_child([] {
                                for (int index = 0; index < kInterfaces; index++) {
                                    EXPECT_FALSE(is_unwatched(index)) << index;
                                }
                            }),
                            0);
                  const Watch running[kInterfaces] = {Watch(0), Watch(1), Watch(2)};
                  EXPECT_EQ(status_in_child([] {
                                for (int index = 0; index < kInterfaces; index++) {
                                    { const Watch own(index); }
                                    EXPECT_TRUE(is_unwatched(index)) << index;
                                }
                            }),
                            0);
              }),
              0);
}

// The address sanitizer's allocator does not renew its own locks in a child: one of some hundred
// children waits for them.
#ifndef __SANITIZE_ADDRESS__

// One turn through every lock of the layer. The link is closed, so that no lock of the test is held
// when the process forks.
int use_every_lock() {
    Sender sender{.form = kReadOn};
    send(&sender);
    sender.form = kWriteOn;
    send(&sender);
    auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
    record->timer.expired = 1;
    if (queue_add(0, ACK_QUEUE, record) != 0) {
        return 1;
    }
    const MutexGuard guard(find_check_lock(0));
    const auto keep = [](RawMsgQueueNode *, void *, uint32_t) {};
    (void)queue_check(0, ACK_QUEUE, keep);
    (void)queue_find(
        0, ACK_QUEUE, 0, 0, 0, 0,
        [](RawMsgQueueNode *found, void *, uint32_t) { (void)queue_del(0, ACK_QUEUE, &found); },
        nullptr);
    return sender.result == -1 ? 0 : 1;
}

TEST(Fork, AChildThatStartsTheLayerAnewWorks) {
    queue_init();
    sem_init(&sem_test, 0, 0);
    wire_close(0);
    testing::internal::CaptureStderr(); // what the closed link says
    std::atomic<bool> is_over{false};
    std::vector<std::thread> busy;
    for (int i = 0; i < 3; i++) {
        busy.emplace_back([&is_over] {
            while (!is_over) {
                EXPECT_EQ(use_every_lock(), 0);
            }
        });
    }
    for (int i = 0; i < 100; i++) {
        const test::Ended ended = test::run_forked([] {
            (void)alarm(20); // for a lock that nobody gives back
            log_debug = 0;
            queue_init();
            (void)mem_init();
            sem_init(&sem_test, 0, 0);
            _exit(use_every_lock());
        });
        EXPECT_EQ(ended.status, 0) << "child " << i;
        if (HasFailure()) {
            break;
        }
    }
    is_over = true;
    for (std::thread &thread : busy) {
        thread.join();
    }
    (void)testing::internal::GetCapturedStderr();
}
#endif

} // namespace
