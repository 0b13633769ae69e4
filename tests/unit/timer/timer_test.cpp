// timer_test.cpp - countdowns of queued records, and the tick that drives them.
#include "timer/timer.h"

#include "base/relaxed.h"
#include "queue/record_holders.h"
#include "timer/last_alarm.h"
#include "timer/ticks.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <thread>
#include <vector>

namespace {

constexpr int kInterfaces = 3;
constexpr int kKinds = 6;

void expect_timer(const Timer &timer, int32_t period, int32_t remaining, int32_t expired) {
    EXPECT_EQ(timer.period, period);
    EXPECT_EQ(timer.remaining, remaining);
    EXPECT_EQ(timer.expired, expired);
}

// ---------------------------------------------------------------------------------------------

// Taken before anything in this process counts.
const int32_t g_elapsed_at_start = elapsed;

TEST(TimerStart, FindsNoTicksAtProgramStart) {
    EXPECT_EQ(g_elapsed_at_start, 0);
}

TEST(TimerStart, SetsPeriodAndRestAndForgetsAnExpiry) {
    Timer timer{.period = 9, .remaining = 1, .expired = 1};
    timerStart(3, &timer);
    expect_timer(timer, 3, 3, 0);
    timerStart(UINT16_MAX, &timer);
    expect_timer(timer, 65535, 65535, 0);
    timerStart(0, &timer);
    expect_timer(timer, 0, 0, 0);
}

TEST(TimerStart, RunsATimerOfOneTick) {
    Timer timer{};
    timerStart(1, &timer);
    timer_age(timer, 1);
    expect_timer(timer, 1, 1, 1);
}

TEST(TimerStop, ClearsThePeriodOnly) {
    Timer timer{.period = 9, .remaining = 4, .expired = 1};
    timerStop(&timer);
    expect_timer(timer, 0, 4, 1);
}

TEST(TimerExpired, ConsumesAnExpiryOnce) {
    Timer timer{.period = 3, .remaining = 2, .expired = 1};
    EXPECT_EQ(timerExpired(&timer), 1);
    EXPECT_EQ(timerExpired(&timer), 0);
    expect_timer(timer, 3, 2, 0);
}

// ---------------------------------------------------------------------------------------------

// One record in each queue; they belong to the test and never reach the pool.
class TimerUpdate : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        store_relaxed(elapsed, 0);
        for (int i = 0; i < kInterfaces; i++) {
            for (int j = 0; j < kKinds; j++) {
                ASSERT_EQ(queue_add(i, j, &record(i, j)), 0);
            }
        }
    }

    void TearDown() override {
        queue_init(); // forgets the records
        store_relaxed(elapsed, 0);
    }

    RawMsgQueueNode &record(int i, int j) {
        return records_.at(static_cast<size_t>(i)).at(static_cast<size_t>(j));
    }

    Timer &timer(int i = 0, int j = 0) {
        return record(i, j).timer;
    }

    static void update(int32_t ticks, uint32_t index = 0, int32_t nqueues = kKinds) {
        store_relaxed(elapsed, ticks);
        timerUpdate(index, nqueues);
    }

private:
    std::array<std::array<RawMsgQueueNode, kKinds>, kInterfaces> records_{};
};

TEST_F(TimerUpdate, ExpiresAfterAsManyTicksAsStarted) {
    timerStart(3, &timer());
    update(1);
    expect_timer(timer(), 3, 2, 0);
    update(1);
    expect_timer(timer(), 3, 1, 0);
    update(1);
    expect_timer(timer(), 3, 3, 1);
}

TEST_F(TimerUpdate, ReloadsInFullWhenMoreTicksPassed) {
    timerStart(3, &timer());
    update(5);
    expect_timer(timer(), 3, 3, 1);
}

TEST_F(TimerUpdate, ReportsSeveralExpiriesAsOne) {
    timerStart(2, &timer());
    update(1000);
    EXPECT_EQ(timerExpired(&timer()), 1);
    EXPECT_EQ(timerExpired(&timer()), 0);
}

TEST_F(TimerUpdate, KeepsAnExpiryThatNobodyConsumed) {
    timerStart(2, &timer());
    update(2);
    update(1);
    expect_timer(timer(), 2, 1, 1);
}

TEST_F(TimerUpdate, RunsATimerAgainAfterItsExpiry) {
    timerStart(2, &timer());
    for (int round = 0; round < 3; round++) {
        update(1);
        EXPECT_EQ(timerExpired(&timer()), 0);
        update(1);
        EXPECT_EQ(timerExpired(&timer()), 1);
    }
}

TEST_F(TimerUpdate, StartsOverAfterARestart) {
    timerStart(3, &timer());
    update(2);
    timerStart(3, &timer());
    update(2);
    expect_timer(timer(), 3, 1, 0);
}

TEST_F(TimerUpdate, DoesNotAgeAStoppedTimer) {
    timerStart(3, &timer());
    update(1);
    timerStop(&timer());
    update(1000);
    expect_timer(timer(), 0, 2, 0);
    timer(0, 1) = {.period = -1, .remaining = 1, .expired = 0};
    update(1000);
    expect_timer(timer(0, 1), -1, 1, 0);
}

TEST_F(TimerUpdate, DoesNotRememberTicksForAStoppedTimer) {
    update(100);
    timerStart(3, &timer());
    update(1);
    expect_timer(timer(), 3, 2, 0);
}

TEST_F(TimerUpdate, TouchesNothingWithoutTicks) {
    timer() = {.period = 3, .remaining = 0, .expired = 0}; // would expire by any ageing
    update(0);
    expect_timer(timer(), 3, 0, 0);
    update(-5);
    expect_timer(timer(), 3, 0, 0);
    EXPECT_EQ(load_relaxed(elapsed), 0);
}

TEST_F(TimerUpdate, TakesTheTicks) {
    timerStart(100, &timer());
    update(7);
    EXPECT_EQ(load_relaxed(elapsed), 0);
    timerUpdate(0, kKinds);
    expect_timer(timer(), 100, 93, 0);
}

TEST_F(TimerUpdate, AgesOnlyTheFirstQueuesOfItsInterface) {
    for (int nqueues = -1; nqueues <= 9; nqueues++) {
        for (int i = 0; i < kInterfaces; i++) {
            for (int j = 0; j < kKinds; j++) {
                timerStart(10, &timer(i, j));
            }
        }
        update(1, 1, nqueues);
        for (int i = 0; i < kInterfaces; i++) {
            for (int j = 0; j < kKinds; j++) {
                const bool is_aged = i == 1 && j < nqueues;
                EXPECT_EQ(timer(i, j).remaining, is_aged ? 9 : 10) << nqueues << i << j;
            }
        }
    }
    update(1, 1, INT32_MAX);
    update(1, 1, INT32_MIN);
    EXPECT_EQ(timer(1, 5).remaining, 8);
}

TEST_F(TimerUpdate, AgesEveryRecordOfAQueue) {
    RawMsgQueueNode second{};
    RawMsgQueueNode third{};
    ASSERT_EQ(queue_add(0, 3, &second), 0);
    ASSERT_EQ(queue_add(0, 3, &third), 0);
    timerStart(5, &timer(0, 3));
    timerStart(2, &third.timer);
    update(2);
    expect_timer(timer(0, 3), 5, 3, 0);
    expect_timer(second.timer, 0, 0, 0);
    expect_timer(third.timer, 2, 2, 1);
}

TEST_F(TimerUpdate, TakesNoTicksForAnInterfaceOutOfRange) {
    timerStart(10, &timer());
    for (const uint32_t index : {3U, 99U, 0x80000000U, UINT32_MAX}) {
        update(4, index);
        EXPECT_EQ(load_relaxed(elapsed), 4);
    }
    expect_timer(timer(), 10, 10, 0);
}

TEST_F(TimerUpdate, SurvivesTheLargestCounts) {
    timer() = {.period = INT32_MAX, .remaining = INT32_MIN, .expired = 0};
    update(INT32_MAX);
    expect_timer(timer(), INT32_MAX, INT32_MAX, 1);
}

// ---------------------------------------------------------------------------------------------
// The count

TEST(CatchAlarm, CountsOneTickForAnySignalNumber) {
    store_relaxed(elapsed, 0);
    for (const int signo : {SIGALRM, 0, -1}) {
        catch_alarm(signo);
    }
    EXPECT_EQ(load_relaxed(elapsed), 3);
    store_relaxed(elapsed, 0);
}

constexpr int kTicks = 300000;
constexpr int kCounters = 2;

std::vector<std::thread> start_counting(std::atomic<int> &at_work) {
    at_work = kCounters;
    std::vector<std::thread> threads;
    threads.reserve(kCounters);
    for (int id = 0; id < kCounters; id++) {
        threads.emplace_back([&at_work] {
            for (int i = 0; i < kTicks; i++) {
                catch_alarm(SIGALRM);
            }
            at_work -= 1;
        });
    }
    return threads;
}

TEST(TakeElapsed, LosesNoTickThatArrivesMeanwhile) {
    store_relaxed(elapsed, 0);
    std::atomic<int> at_work{0};
    std::vector<std::thread> threads = start_counting(at_work);
    int64_t taken = 0;
    while (at_work != 0) {
        taken += timer_take_elapsed();
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    taken += timer_take_elapsed();
    EXPECT_EQ(taken, int64_t{kTicks} * kCounters);
    EXPECT_EQ(load_relaxed(elapsed), 0);
}

TEST_F(TimerUpdate, LosesNoTickThatArrivesMeanwhile) {
    constexpr int32_t kLong = 1 << 30;
    timer() = {.period = kLong, .remaining = kLong, .expired = 0};
    std::atomic<int> at_work{0};
    std::vector<std::thread> threads = start_counting(at_work);
    while (at_work != 0) {
        timerUpdate(0, kKinds);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    timerUpdate(0, kKinds);
    expect_timer(timer(), kLong, kLong - kTicks * kCounters, 0);
}

TEST_F(TimerUpdate, AgesEveryInterfaceByAllTicks) {
    for (int i = 0; i < kInterfaces; i++) {
        timerStart(100, &timer(i));
        timerUpdate(static_cast<uint32_t>(i), kKinds); // each takes part from here on
    }
    update(4, 0);
    update(3, 1);
    expect_timer(timer(0), 100, 96, 0);
    expect_timer(timer(1), 100, 93, 0);
    expect_timer(timer(2), 100, 100, 0);
    timerUpdate(0, kKinds);
    timerUpdate(2, kKinds);
    timerUpdate(1, kKinds);
    for (int i = 0; i < kInterfaces; i++) {
        expect_timer(timer(i), 100, 93, 0);
    }
    update(1, 2); // a single tick, too
    timerUpdate(0, kKinds);
    expect_timer(timer(0), 100, 92, 0);
}

TEST_F(TimerUpdate, KeepsNoTicksForAnInterfaceThatTakesNoPart) {
    update(1000, 0);
    timerStart(100, &timer(1));
    update(2, 1); // its first one
    expect_timer(timer(1), 100, 98, 0);
    update(50, 0);
    queue_stop_ageing(1); // its thread has ended
    update(1000, 0);
    update(2, 1);
    expect_timer(timer(1), 100, 96, 0);
    update(1000, 0);
    queue_init(); // starts anew
    RawMsgQueueNode record{};
    timerStart(100, &record.timer);
    ASSERT_EQ(queue_add(1, 0, &record), 0);
    update(1, 1);
    expect_timer(record.timer, 100, 99, 0);
    queue_init();
    queue_stop_ageing(-1);
    queue_stop_ageing(3);
}

TEST_F(TimerUpdate, LosesNoTickAmongInterfacesThatUpdateAtOnce) {
    constexpr int32_t kLong = 1 << 30;
    for (int i = 0; i < kInterfaces; i++) {
        timer(i) = {.period = kLong, .remaining = kLong, .expired = 0};
        timerUpdate(static_cast<uint32_t>(i), kKinds);
    }
    std::atomic<int> at_work{0};
    std::vector<std::thread> threads = start_counting(at_work);
    for (uint32_t i = 0; i < kInterfaces; i++) {
        threads.emplace_back([i, &at_work] {
            while (at_work != 0) {
                timerUpdate(i, kKinds);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (int round = 0; round < 2; round++) { // what one takes the others still have to get
        for (uint32_t i = 0; i < kInterfaces; i++) {
            timerUpdate(i, kKinds);
        }
    }
    for (int i = 0; i < kInterfaces; i++) {
        expect_timer(timer(i), kLong, kLong - kTicks * kCounters, 0);
    }
}

// ---------------------------------------------------------------------------------------------
// The signal

class InitTimer : public testing::Test {
protected:
    void TearDown() override {
        const itimerval off{};
        (void)setitimer(ITIMER_REAL, &off, nullptr);
        (void)signal(SIGALRM, SIG_DFL);
        store_relaxed(elapsed, 0);
    }
};

// Blocks SIGALRM for the calling thread; returns the mask before.
sigset_t block_alarm() {
    sigset_t alarm;
    sigset_t before;
    (void)sigemptyset(&alarm);
    (void)sigaddset(&alarm, SIGALRM);
    (void)pthread_sigmask(SIG_BLOCK, &alarm, &before);
    return before;
}

bool is_alarm_blocked() {
    sigset_t now;
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &now);
    return sigismember(&now, SIGALRM) == 1;
}

TEST_F(InitTimer, ClearsTheCountAndTicksEvery30Milliseconds) {
    using clock = std::chrono::steady_clock;
    clock::duration taken{};
    int32_t counted = -1;
    itimerval running{};
    do { // until no tick came in while the settings were looked at
        const clock::time_point start = clock::now();
        store_relaxed(elapsed, 1234);
        EXPECT_EQ(initTimer(), 0);
        counted = load_relaxed(elapsed);
        ASSERT_EQ(getitimer(ITIMER_REAL, &running), 0);
        taken = clock::now() - start;
    } while (taken > std::chrono::milliseconds(20));
    EXPECT_EQ(counted, 0);
    EXPECT_EQ(running.it_interval.tv_sec, 0);
    EXPECT_EQ(running.it_interval.tv_usec, 30000);
    EXPECT_EQ(running.it_value.tv_sec, 0);
    EXPECT_LE(running.it_value.tv_usec, 30000);

    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGALRM, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, catch_alarm);
}

// Its parent may have left the signal blocked.
TEST_F(InitTimer, TicksAlsoWhereTheSignalWasBlocked) {
    const sigset_t before = block_alarm();
    ASSERT_TRUE(is_alarm_blocked());
    ASSERT_EQ(initTimer(), 0);
    EXPECT_FALSE(is_alarm_blocked());
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(InitTimer, CountsATickForEverySignal) {
    using clock = std::chrono::steady_clock;
    const clock::time_point start = clock::now();
    ASSERT_EQ(initTimer(), 0);
    constexpr int kWanted = 5;
    while (load_relaxed(elapsed) < kWanted) {
        (void)pause();
    }
    // Signals can come late, never early; a tick before the first whole period would be one.
    EXPECT_GE(clock::now() - start,
              std::chrono::milliseconds(30) * kWanted - std::chrono::milliseconds(1));
}

// A tick that is pending before the start, and how many are counted after it. Tried again when the
// machine was so slow that a tick of the new timer may have come.
int32_t ticks_counted_after_a_pending_one() {
    using clock = std::chrono::steady_clock;
    clock::duration taken{};
    int32_t counted = 0;
    do {
        (void)signal(SIGALRM, catch_alarm);
        const sigset_t before = block_alarm();
        (void)raise(SIGALRM);
        const clock::time_point start = clock::now();
        EXPECT_EQ(initTimer(), 0);
        const itimerval off{};
        (void)setitimer(ITIMER_REAL, &off, nullptr);
        taken = clock::now() - start;
        (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
        counted = load_relaxed(elapsed);
    } while (taken > std::chrono::milliseconds(20));
    return counted;
}

TEST_F(InitTimer, DropsATickThatWasStillPending) {
    EXPECT_EQ(ticks_counted_after_a_pending_one(), 0);
}

// ---------------------------------------------------------------------------------------------
// The end

std::atomic<int> g_last_alarms{0};

void count_last_alarm(int /*signo*/) {
    g_last_alarms += 1;
}

TEST_F(InitTimer, EndsWithALastAlarmForWhichNoTickPasses) {
    g_last_alarms = 0;
    EXPECT_EQ(initTimer(), 0);
    const sigset_t before = block_alarm();
    store_relaxed(elapsed, 0);
    (void)raise(SIGALRM);
    set_last_alarm(1, count_last_alarm);
    itimerval running{};
    EXPECT_EQ(getitimer(ITIMER_REAL, &running), 0);
    EXPECT_GT(running.it_value.tv_sec * 1000000 + running.it_value.tv_usec, 0);
    EXPECT_EQ(running.it_interval.tv_sec, 0);
    EXPECT_EQ(running.it_interval.tv_usec, 0);
    sigset_t waiting;
    EXPECT_EQ(sigpending(&waiting), 0);
    EXPECT_EQ(sigismember(&waiting, SIGALRM), 0);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    while (g_last_alarms == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(load_relaxed(elapsed), 0);
}

} // namespace
