// module_test.cpp - how the transaction layer comes up on an interface: its threads, and what the
// link does without them.
#include "eth_raw/link_state.h"
#include "helpers/log_lines.h"
#include "queue/queue.h"
#include "raw_msg/raw_msg.h"
#include "raw_msg/watch.h"
#include "stand_ins/fake_netdev.h"
#include "stand_ins/fake_wire.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <sched.h>
#include <thread>

namespace {

using Body = void *(*)(void *);

struct Created {
    Body body;
    void *argument;
    bool has_attributes;
    int inherits;
    int policy;
    int priority;
};

// The threads that the product starts, and how long the check threads sleep.
struct Threads {
    std::mutex lock;
    std::vector<Created> created;
    Body failing = nullptr;
    int error = 0;
    std::function<void()> meanwhile; // what another thread does before the failure
    std::vector<std::chrono::microseconds> sleeps;
};

// Never destroyed: a thread of the product may still call while the process ends.
Threads &threads() {
    static auto *const the_threads = new Threads;
    return *the_threads;
}

Created describe(const pthread_attr_t *attributes, Body body, void *argument) {
    Created created{.body = body,
                    .argument = argument,
                    .has_attributes = attributes != nullptr,
                    .inherits = -1,
                    .policy = -1,
                    .priority = -1};
    if (attributes != nullptr) {
        sched_param parameters{};
        (void)pthread_attr_getinheritsched(attributes, &created.inherits);
        (void)pthread_attr_getschedpolicy(attributes, &created.policy);
        (void)pthread_attr_getschedparam(attributes, &parameters);
        created.priority = parameters.sched_priority;
    }
    return created;
}

std::chrono::microseconds left_until(const timespec &deadline) {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(deadline.tv_sec - now.tv_sec) +
           std::chrono::microseconds((deadline.tv_nsec - now.tv_nsec) / 1000);
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, Body body,
                          void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, Body body,
                          void *argument);
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest);

// Real-time scheduling is not given to what runs.
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, Body body,
                          void *argument) {
    if (body != RawMsgRecv && body != RawMsgAckReadCheck) {
        return __real_pthread_create(thread, attributes, body, argument);
    }
    Threads &t = threads();
    const std::lock_guard guard(t.lock);
    t.created.push_back(describe(attributes, body, argument));
    if (body == t.failing) {
        if (t.meanwhile) {
            t.meanwhile();
        }
        errno = EAGAIN; // as left behind by the system call below it
        return t.error;
    }
    return __real_pthread_create(thread, nullptr, body, argument);
}

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *rest) {
    const auto left = left_until(*until);
    {
        Threads &t = threads();
        const std::lock_guard guard(t.lock);
        t.sleeps.push_back(left);
    }
    return __real_clock_nanosleep(clock, flags, until, rest);
}
}
#pragma GCC visibility pop

namespace {

class Module : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        (void)sem_init(&sem_test, 0, 0);
        for (int index = 0; index < MAX_ETH; index++) {
            wire_open(index); // forgets the frames of the case before
            wire_close(index);
        }
        netdev_reset();
        Threads &t = threads();
        const std::lock_guard guard(t.lock);
        t.created.clear();
        t.sleeps.clear();
        t.failing = nullptr;
        t.meanwhile = nullptr;
    }
    void TearDown() override {
        for (const pthread_t thread : running) {
            EXPECT_EQ(pthread_cancel(thread), 0);
            EXPECT_EQ(pthread_join(thread, nullptr), 0);
        }
        for (int index = 0; index < MAX_ETH; index++) {
            EXPECT_EQ(RawMsgModuleUnInit(index), -1);
            wire_open(index);
            wire_close(index);
        }
    }

    void start(int index) {
        receive = {};
        check = {};
        (void)test::output_of([&] { EXPECT_EQ(RawMsgModuleInit(index, &receive, &check), 0); });
        for (const pthread_t thread : {receive, check}) {
            if (thread != pthread_t{}) {
                running.push_back(thread);
            }
        }
    }

    static void thread_fails(Body body, int error) {
        threads().failing = body;
        threads().error = error;
    }

    // Sends one plain write; how many frames went out.
    static size_t frames_of_one_write(int index) {
        const uint8_t value = 1;
        const size_t before = wire_sent().size();
        testing::internal::CaptureStderr();
        EXPECT_EQ(RawSockSendMsg(index, 1, 3, 0x1000, 1, &value, 1), 0);
        (void)testing::internal::GetCapturedStderr();
        return wire_sent().size() - before;
    }

    pthread_t receive{};
    pthread_t check{};
    std::vector<pthread_t> running;
};

TEST_F(Module, StartsARealTimeReceiverAndAnOrdinaryChecker) {
    start(2);
    const std::vector<Created> &created = threads().created;
    ASSERT_EQ(created.size(), 2U);
    EXPECT_EQ(created[0].body, RawMsgRecv);
    EXPECT_EQ(created[0].argument, reinterpret_cast<void *>(2));
    EXPECT_EQ(created[0].inherits, PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(created[0].policy, SCHED_FIFO);
    EXPECT_EQ(created[0].priority, 90);
    EXPECT_EQ(created[1].body, RawMsgAckReadCheck);
    EXPECT_EQ(created[1].argument, reinterpret_cast<void *>(2));
    EXPECT_FALSE(created[1].has_attributes);
    EXPECT_EQ(frames_of_one_write(2), 1U);
}

// A plain write needs nobody to wait for an answer, but a link is up as a whole or not at all.
TEST_F(Module, ALinkWithoutItsCheckThreadIsNotUp) {
    thread_fails(RawMsgAckReadCheck, EPERM);
    errno = 0;
    start(0);
    EXPECT_EQ(errno, EPERM); // the reason, not what the failure has left in errno
    EXPECT_EQ(check, pthread_t{});
    EXPECT_FALSE(link_is_up(0));
    EXPECT_TRUE(is_unwatched(0));
    EXPECT_EQ(frames_of_one_write(0), 0U);
    thread_fails(nullptr, 0);
    start(0);
    EXPECT_TRUE(link_is_up(0));
    EXPECT_FALSE(is_unwatched(0));
    EXPECT_EQ(frames_of_one_write(0), 1U);
}

TEST_F(Module, WhatWasSentWhileTheCheckThreadFailedToStartEnds) {
    thread_fails(RawMsgAckReadCheck, EAGAIN);
    threads().meanwhile = [] {
        const uint8_t value = 1;
        errno = 0;
        EXPECT_EQ(RawSockSendOneMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, &value, 1), 0);
    };
    start(0);
    EXPECT_EQ(wire_sent().size(), 1U);
    EXPECT_EQ(queue_get(0, ACK_QUEUE), nullptr);
    EXPECT_EQ(sem_trywait(&sem_test), 0);
    EXPECT_EQ(sem_trywait(&sem_test), -1);
}

TEST_F(Module, ALinkWithoutAReceiverIsUpAndSendsNothingTwice) {
    thread_fails(RawMsgRecv, EPERM);
    start(0);
    EXPECT_EQ(errno, 0); // EAGAIN would send the next frame twice
    EXPECT_EQ(receive, pthread_t{});
    EXPECT_NE(check, pthread_t{});
    EXPECT_EQ(frames_of_one_write(0), 1U);
}

TEST_F(Module, AReceiverReportsWhetherItWasStarted) {
    thread_fails(RawMsgRecv, EPERM);
    EXPECT_EQ(test::log_of([&] { EXPECT_EQ(RawMsgRecvTaskCreate(2, &receive), -1); }),
              "|index=2\n|failed to create thread \n");
    EXPECT_EQ(receive, pthread_t{});
    thread_fails(nullptr, 0);
    EXPECT_EQ(RawMsgRecvTaskCreate(2, &receive), 0);
    ASSERT_NE(receive, pthread_t{});
    running.push_back(receive);
}

TEST_F(Module, WithoutABoundSocketNoThreadIsStarted) {
    netdev_fails("bind", ENETDOWN);
    start(0);
    EXPECT_EQ(errno, ENETDOWN);
    EXPECT_TRUE(threads().created.empty());
    EXPECT_EQ(frames_of_one_write(0), 0U);
}

TEST_F(Module, AnIndexOutOfRangeStartsNothing) {
    for (const int index : {-1, 3, 99}) {
        start(index);
    }
    EXPECT_TRUE(threads().created.empty());
    EXPECT_EQ(netdev_calls(), std::vector<std::string>{});
}

TEST_F(Module, TakingALinkDownClosesItOnce) {
    start(0);
    EXPECT_EQ(RawMsgModuleUnInit(0), -1);
    EXPECT_EQ(netdev_sockets(), std::vector<int>{});
    (void)netdev_calls();
    EXPECT_EQ(RawMsgModuleUnInit(0), -1);
    EXPECT_EQ(netdev_calls(), std::vector<std::string>{});
}

TEST_F(Module, EachReceiverHasABufferOfItsOwn) {
    start(0);
    start(1);
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (wire_receive_buffers().size() < 2 && std::chrono::steady_clock::now() < give_up) {
        std::this_thread::yield();
    }
    const auto buffers = wire_receive_buffers();
    ASSERT_EQ(buffers.size(), 2U);
    EXPECT_NE(buffers[0], buffers[1]);
    EXPECT_NE(buffers[0], gRecvBuffer);
    EXPECT_NE(buffers[1], gRecvBuffer);
}

// Nobody answers, and no tick passes: only the taking down ends what is under way.
TEST_F(Module, IsLoadedAgainAndAgainWhileOthersSend) {
    std::atomic<bool> end{false};
    std::atomic<int> returned{0};
    const auto send = [&] {
        const uint8_t value = 1;
        uint8_t data[1400];
        uint32_t len = 0;
        uint8_t status = 0;
        while (!end) {
            (void)RawSockSendMsg(0, 1, 3, 0x1000, 1, &value, 1);
            (void)RawSockSendMsgWithReadWait(0, 1, 3, 0x1000, 0, 4, data, &len, 6);
            (void)RawSockSendOneMsgWithAck(0, 0, 1, 3, 0x1000, 0x11, &value, 1);
            (void)RawSockSendMsgWithAckWait(0, 1, 3, 0x1000, 0x11, &value, 1, &status, 6);
            returned += 1;
        }
    };
    testing::internal::CaptureStderr(); // the sends that fail
    std::thread one(send);
    std::thread other(send);
    for (int round = 0; round < 20; round++) {
        start(0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        for (const pthread_t thread : running) {
            EXPECT_EQ(pthread_cancel(thread), 0);
            EXPECT_EQ(pthread_join(thread, nullptr), 0);
        }
        running.clear();
        EXPECT_EQ(RawMsgModuleUnInit(0), -1);
    }
    end = true;
    one.join();
    other.join();
    (void)testing::internal::GetCapturedStderr();
    EXPECT_GT(returned, 20);
    for (const int queue : {ACK_QUEUE, ACK_WAIT_QUEUE, READ_WAIT_QUEUE}) {
        EXPECT_EQ(queue_get(0, queue), nullptr) << queue;
    }
}

TEST_F(Module, ACheckThreadPausesBetweenTwoPasses) {
    thread_fails(RawMsgRecv, EPERM); // it sleeps where nothing comes
    start(0);
    std::vector<std::chrono::microseconds> sleeps;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (sleeps.size() < 3 && std::chrono::steady_clock::now() < give_up) {
        std::this_thread::yield();
        const std::lock_guard guard(threads().lock);
        sleeps = threads().sleeps;
    }
    ASSERT_GE(sleeps.size(), 3U);
    for (const auto sleep : sleeps) {
        EXPECT_LE(sleep.count(), 10000);
    }
    // From the asking of the time to here a busy machine may take its own.
    EXPECT_GT(std::ranges::max(sleeps).count(), 8000);
}

} // namespace
