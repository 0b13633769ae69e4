// thread_bodies_test.cpp - what the receive and the check thread do from one sleep to the next.
//
// Linked with --wrap=clock_nanosleep,sched_setaffinity: a thread's sleep is where the test looks at
// what it has done, and where it ends it.
#include "base/relaxed.h"
#include "eth_raw/eth_raw.h"
#include "helpers/log_lines.h"
#include "main/main.h"
#include "mem/mem.h"
#include "queue/record_holders.h"
#include "raw_msg/raw_msg.h"
#include "raw_msg/threads.h"
#include "stand_ins/fake_wire.h"
#include "stand_ins/lock_count.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <pthread.h>
#include <regex>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace {

// Called instead of each sleep of the thread under test, with the number of the sleep.
std::function<void(int)> g_at_sleep;
thread_local bool t_is_under_test = false;
thread_local int t_sleeps = 0;

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);
int __wrap_sched_setaffinity(pid_t pid, size_t size, const cpu_set_t *mask);

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest) {
    if (!t_is_under_test) {
        return __real_clock_nanosleep(clock, flags, until, rest);
    }
    t_sleeps += 1;
    g_at_sleep(t_sleeps);
    return 0;
}

int __wrap_sched_setaffinity(pid_t /*pid*/, size_t /*size*/, const cpu_set_t * /*mask*/) {
    errno = EPERM;
    return -1;
}
}
#pragma GCC visibility pop

namespace {

using namespace std::chrono_literals;

constexpr int kIndex = 1;

class ThreadBodies : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        wire_open(kIndex);
        store_relaxed(elapsed, 0);
    }
    void TearDown() override {
        wire_close(kIndex);
        queue_init();
    }

    // Runs a thread's body; at_sleep ends the thread.
    static void run(void *(*body)(void *), const std::function<void(int)> &at_sleep) {
        g_at_sleep = at_sleep;
        static void *(*the_body)(void *);
        the_body = body;
        pthread_t thread{};
        ASSERT_EQ(
            pthread_create(
                &thread, nullptr,
                [](void *index) {
                    t_is_under_test = true;
                    return the_body(index);
                },
                reinterpret_cast<void *>(intptr_t{kIndex})), // NOLINT(performance-no-int-to-ptr)
            0);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);
    }

    static void end_after(int last, int sleep) {
        if (sleep == last) {
            pthread_exit(nullptr);
        }
    }

    static RawMsgQueueNode *add(int queue) {
        auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
        (void)sem_init(&record->sem, 0, 0);
        record->index = kIndex;
        record->timer = {.period = 5, .remaining = 5, .expired = 0};
        EXPECT_EQ(queue_add(kIndex, queue, record), 0);
        return record;
    }
};

std::string ids_hidden(const std::string &log) {
    return std::regex_replace(log, std::regex(R"(id : \d+ )"), "id : # ");
}

// The first test of this program: no thread has ended yet.
TEST_F(ThreadBodies, SayWhenTheyHaveEnded) {
    EXPECT_FALSE(await_thread_ends(1, 0ms));
    EXPECT_TRUE(await_thread_ends(0, 0ms));
    std::thread other([] {
        run(RawMsgAckReadCheck, [](int sleep) {
            (void)usleep(100000);
            end_after(1, sleep);
        });
    });
    EXPECT_TRUE(await_thread_ends(1, 20s));
    other.join();
    EXPECT_FALSE(await_thread_ends(2, 1ms));
    wire_deliver_failure(ENETDOWN);
    run(RawMsgRecv, [](int sleep) { end_after(1, sleep); });
    EXPECT_TRUE(await_thread_ends(2, 0ms));
}

TEST_F(ThreadBodies, SayWhoTheyAre) {
    const auto end = [](int sleep) { end_after(1, sleep); };
    EXPECT_EQ(ids_hidden(test::log_of([&] { run(RawMsgAckReadCheck, end); })),
              "|RawMsgAckReadCheck : index 1 sched_setaffinity failed\n"
              "|thread1 id : # index = 1\n");
    wire_deliver_failure(ENETDOWN);
    EXPECT_EQ(ids_hidden(test::log_of([&] { run(RawMsgRecv, end); })),
              "|RawMsgRecv : index 1 sched_setaffinity failed\n"
              "|thread id : # index = 1\n");
}

TEST_F(ThreadBodies, ACheckPassAgesAndTimesOutEveryQueue) {
    RawMsgQueueNode *records[] = {add(ACK_QUEUE), add(ACK_WAIT_QUEUE), add(READ_QUEUE),
                                  add(READ_WAIT_QUEUE)};
    RawMsgQueueNode *spare = add(kQueueKinds - 1);
    store_relaxed(elapsed, 5);
    run(RawMsgAckReadCheck, [&](int /*sleep*/) {
        for (const RawMsgQueueNode *record : records) {
            EXPECT_EQ(record->count, 1U);
        }
        EXPECT_EQ(spare->timer.expired, 1); // aged with the others, and looked at by nobody
        EXPECT_EQ(spare->count, 0U);
        pthread_exit(nullptr);
    });
    for (int queue = 0; queue < kQueueKinds; queue++) {
        EXPECT_EQ(queue_empty(kIndex, queue), 0);
    }
    (void)mem_uinit();
}

// What is begun under a lock is finished: a cancelled thread would leave others waiting.
TEST_F(ThreadBodies, ACheckPassIsNotCancelled) {
    test::LockUse use{};
    run(RawMsgAckReadCheck, [&](int sleep) {
        if (sleep == 1) {
            store_relaxed(elapsed, 1);
            test::locks_begin();
        } else {
            use = test::locks_since();
            pthread_exit(nullptr);
        }
    });
    EXPECT_EQ(use.taken, kQueueKinds + 1 + 4 * 2); // ageing; the pass; each of four queues
    EXPECT_EQ(use.cancellable, kQueueKinds);
    EXPECT_EQ(use.kept, 0);
}

TEST_F(ThreadBodies, AReplyIsDealtWithUncancelled) {
    test::LockUse without{};
    test::LockUse with{};
    wire_deliver_failure(ENETDOWN);
    run(RawMsgRecv, [&](int sleep) {
        if (sleep == 2) {
            without = test::locks_since();
            wire_deliver(make_reply(0, 1, 2, 3, 0x11, 4, {1}));
        } else if (sleep == 3) {
            with = test::locks_since();
            pthread_exit(nullptr);
        }
        wire_deliver_failure(ENETDOWN);
        test::locks_begin();
    });
    // One more frame from the wire, which is played here with locks of its own; then three of ours.
    const int wire = without.taken;
    EXPECT_EQ(with.taken, 2 * wire + 3);
    EXPECT_EQ(with.cancellable, without.cancellable * 2);
    EXPECT_EQ(with.deepest, std::max(2, without.deepest));
    EXPECT_EQ(with.kept, 0);
}

// What comes before the host has set its function is lost; a dead link is asked again after a
// pause.
TEST(MsgRecv, WaitsForAReplyAndForWhoTakesIt) {
    static std::vector<uint32_t> taken;
    wire_open(0);
    wire_deliver(Frame(60, 0xFF)); // other traffic: no reason for a pause
    wire_deliver(make_reply(0, 1, 3, 9, 0, 0x1000, {1}));
    wire_deliver_failure(ENETDOWN);
    g_at_sleep = [](int sleep) {
        EXPECT_EQ(sleep, 1);
        read_buffer = [](const uint8_t *, uint32_t addr, uint32_t) { taken.push_back(addr); };
        wire_deliver(make_reply(0, 1, 3, 10, 0, 0x2000, {1}));
    };
    std::thread([] {
        t_is_under_test = true;
        EXPECT_EQ(msg_recv(), 0);
        EXPECT_EQ(t_sleeps, 1);
    }).join();
    read_buffer = nullptr;
    wire_close(0);
    EXPECT_EQ(taken, std::vector<uint32_t>{0x2000});
}

} // namespace
