// sleep_test.cpp - sleeps and waits last their full time although the tick interrupts them.
//
// Only lower bounds: a busy machine may be late at any time. One test plays the clock instead.
#include "timer/sleep.h"

#include "base/locks.h"
#include "base/relaxed.h"
#include "stand_ins/fake_clock.h"
#include "timer/timer.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <thread>

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

class WithTicks : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(initTimer(), 0);
    }

    void TearDown() override {
        const itimerval off{};
        (void)setitimer(ITIMER_REAL, &off, nullptr);
        (void)signal(SIGALRM, SIG_DFL);
    }
};

// The ticks must hit the thread under test, so the others keep them out.
template <typename Work>
std::thread start_without_ticks(Work work) {
    sigset_t alarm;
    sigset_t before;
    (void)sigemptyset(&alarm);
    (void)sigaddset(&alarm, SIGALRM);
    (void)pthread_sigmask(SIG_BLOCK, &alarm, &before);
    std::thread thread(work); // inherits the mask
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

using SleepFull = WithTicks;

TEST_F(SleepFull, LastsItsFullTime) {
    for (const auto duration : {100us, 10000us, 29000us, 31000us, 200000us}) {
        const steady::time_point start = steady::now();
        sleep_full(duration);
        EXPECT_GE(steady::now() - start, duration);
    }
}

TEST_F(SleepFull, IsInterruptedByTicksInTheseTests) {
    store_relaxed(elapsed, 0);
    sleep_full(200ms);
    EXPECT_GE(load_relaxed(elapsed), 1); // otherwise the others prove nothing
}

TEST_F(SleepFull, CarriesWholeSeconds) {
    const steady::time_point start = steady::now();
    sleep_full(1100ms); // passes a second's end wherever it starts
    EXPECT_GE(steady::now() - start, 1100ms);
}

// The kernel refuses a deadline with a whole second in its nanoseconds.
TEST(SleepFullUntil, IsTheClockAndTheTime) {
    struct Row {
        timespec now;
        std::chrono::microseconds duration;
        timespec deadline;
    };
    const Row rows[] = {
        {{.tv_sec = 5, .tv_nsec = 999998999}, 1us, {.tv_sec = 5, .tv_nsec = 999999999}},
        {{.tv_sec = 5, .tv_nsec = 999999000}, 1us, {.tv_sec = 6, .tv_nsec = 0}},
        {{.tv_sec = 5, .tv_nsec = 999999999}, 999999us, {.tv_sec = 6, .tv_nsec = 999998999}},
        {{.tv_sec = 5, .tv_nsec = 7}, 2300000us, {.tv_sec = 7, .tv_nsec = 300000007}},
    };
    for (const Row &row : rows) {
        const FakeClock clock(row.now);
        sleep_full(row.duration);
        EXPECT_EQ(clock.deadline().tv_sec, row.deadline.tv_sec) << row.duration.count();
        EXPECT_EQ(clock.deadline().tv_nsec, row.deadline.tv_nsec) << row.duration.count();
    }
}

int slack() {
    return prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
}

TEST(SleepsOnTimeTest, TakesTheSlackOfItsThreadForAScope) {
    std::thread([] { // its own, so that no other test sees the change
        for (const unsigned long before : {50000UL, 7UL}) {
            ASSERT_EQ(prctl(PR_SET_TIMERSLACK, before, 0, 0, 0), 0);
            {
                const SleepsOnTime scope;
                EXPECT_EQ(slack(), 1);
            }
            EXPECT_EQ(slack(), static_cast<int>(before));
        }
    })
        .join();
}

TEST_F(SleepFull, ReturnsForNoTimeAndForLessThanNone) {
    sleep_full(0us);
    sleep_full(-1us);
    sleep_full(-3s);
}

TEST_F(SleepFull, LeavesErrnoAlone) {
    for (const int value : {0, EAGAIN}) {
        errno = value;
        sleep_full(70ms);
        EXPECT_EQ(errno, value);
    }
}

class WaitFull : public WithTicks {
protected:
    void SetUp() override {
        WithTicks::SetUp();
        // A host may have a handler that does not restart the wait, unlike the timer's own.
        struct sigaction action {};
        action.sa_handler = catch_alarm;
        ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        ASSERT_EQ(sem_init(&semaphore_, 0, 0), 0);
    }

    void TearDown() override {
        WithTicks::TearDown();
        (void)sem_destroy(&semaphore_);
    }

    sem_t semaphore_{};
};

TEST_F(WaitFull, WaitsForThePost) {
    std::atomic<bool> is_posted{false};
    std::thread poster = start_without_ticks([&] {
        sleep_full(200ms);
        is_posted = true;
        (void)sem_post(&semaphore_);
    });
    store_relaxed(elapsed, 0);
    const steady::time_point start = steady::now();
    wait_full(semaphore_);
    EXPECT_TRUE(is_posted);
    EXPECT_GE(load_relaxed(elapsed), 1);
    EXPECT_GE(steady::now() - start, 100ms); // the poster may have started before us
    poster.join();
}

TEST_F(WaitFull, TakesOnePost) {
    (void)sem_post(&semaphore_);
    (void)sem_post(&semaphore_);
    wait_full(semaphore_);
    int left = -1;
    (void)sem_getvalue(&semaphore_, &left);
    EXPECT_EQ(left, 1);
}

} // namespace
