// queue_test.cpp - the queues of outstanding requests: order, matching, time-outs, who releases.
#include "queue/queue.h"

#include "base/locks.h"
#include "base/relaxed.h"
#include "helpers/output.h"
#include "log/log.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "queue/record_holders.h"
#include "stand_ins/lock_count.h"
#include "timer/ticks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr char kFull[] = "queue is full\n";
constexpr char kDelError[] = "assert : del queue error -1\n";
constexpr char kEmptyError[] = "assert : empty queue error \n";

struct Place {
    int i;
    int j;
};
constexpr Place kNoQueues[] = {{-1, 0}, {3, 0},  {99, 0}, {INT_MAX, 0}, {INT_MIN, 0},
                               {0, -1}, {0, 6},  {0, 99}, {0, INT_MAX}, {0, INT_MIN},
                               {-1, 6}, {2, 18}, {-1, -1}};

RawMsgQueueNode *new_record(uint32_t addr = 0, uint16_t seq = 0) {
    auto *record = new (mem_alloc(sizeof(RawMsgQueueNode))) RawMsgQueueNode{};
    (void)sem_init(&record->sem, 0, 0);
    record->addr = addr;
    record->seq = seq;
    record->ack = kNoReply;
    return record;
}

RawMsgQueueNode *new_waiting_record(uint32_t addr = 0, uint16_t seq = 0) {
    RawMsgQueueNode *record = new_record(addr, seq);
    record->has_sender = 1;
    record->is_waited_for = 1;
    return record;
}

int posts_of(RawMsgQueueNode *record) {
    int value = -1;
    (void)sem_getvalue(&record->sem, &value);
    return value;
}

using Records = std::vector<RawMsgQueueNode *>;

constexpr size_t kMostRecords = 70000; // a list or count beyond it runs in a circle

Records content(int i = 0, int j = 0) {
    Records records;
    RawMsgQueueNode *record = queue_get(i, j);
    while (record != nullptr && records.size() < kMostRecords) {
        records.push_back(record);
        record = record->next;
    }
    return records;
}

void delete_record(RawMsgQueueNode *record, int i = 0, int j = 0) {
    EXPECT_EQ(queue_del(i, j, &record), 0);
}

// The count is not published; it is as many as deletions of nothing succeed. The queue is spent.
int count_out(int i = 0, int j = 0) {
    RawMsgQueueNode stranger{};
    RawMsgQueueNode *pointer = &stranger;
    int count = 0;
    while (count < static_cast<int>(kMostRecords) && queue_del(i, j, &pointer) == 0) {
        count += 1;
    }
    return count;
}

// What the callbacks of the test under way were called with.
struct Call {
    RawMsgQueueNode *record;
    void *data;
    uint32_t length;
    uint32_t count; // of the record, at that time
};
std::vector<Call> g_calls;
std::function<void(RawMsgQueueNode *)> g_reaction;

void note_call(RawMsgQueueNode *record, void *data, uint32_t length) {
    g_calls.push_back({record, data, length, record->count});
    if (g_reaction) {
        g_reaction(record);
    }
}

Records called_records() {
    Records records;
    for (const Call &call : g_calls) {
        records.push_back(call.record);
    }
    return records;
}

int find(uint32_t addr, uint16_t seq, queue_callback callback = note_call) {
    return queue_find(0, 0, addr, 0, seq, 0, callback, nullptr);
}

int g_dropped = 0;

void count_drop() {
    g_dropped += 1;
}

class QueueTest : public testing::Test {
protected:
    void SetUp() override {
        queue_init();
        g_dropped = 0;
        g_calls.clear();
        g_reaction = nullptr;
        handed_out_before_ = mem_handed_out();
    }

    void TearDown() override {
        log_debug = 0;
        for (int i = 0; i < kQueueInterfaces; i++) {
            for (int j = 0; j < kQueueKinds; j++) {
                EXPECT_EQ(queue_empty(i, j), 0);
            }
        }
        EXPECT_EQ(out(), 0) << "records lost";
        (void)mem_uinit();
    }

    /** Records of the test that the pool has not got back. */
    int64_t out() const {
        return mem_handed_out() - handed_out_before_;
    }

    static Records add_records(int count) {
        Records records;
        for (int n = 0; n < count; n++) {
            records.push_back(new_record(static_cast<uint32_t>(n)));
            EXPECT_EQ(queue_add(0, 0, records.back()), 0);
        }
        return records;
    }

    template <typename Action>
    static std::string log_of(Action action) {
        log_debug = 1;
        std::string text = test::output_of(action);
        log_debug = 0;
        return text;
    }

private:
    int64_t handed_out_before_ = 0;
};

// ---------------------------------------------------------------------------------------------

using QueueAdd = QueueTest;

TEST_F(QueueAdd, MakesTheFirstRecordTheHeadAndLinksLaterOnesBehind) {
    EXPECT_EQ(queue_get(0, 0), nullptr);
    RawMsgQueueNode *first = new_record();
    first->next = first; // whatever stood there
    EXPECT_EQ(queue_add(0, 0, first), 0);
    EXPECT_EQ(queue_get(0, 0), first);
    EXPECT_EQ(first->next, nullptr);
    RawMsgQueueNode *second = new_record();
    EXPECT_EQ(queue_add(0, 0, second), 0);
    EXPECT_EQ(queue_get(0, 0), first);
    EXPECT_EQ(first->next, second);
    EXPECT_EQ(second->next, nullptr);
}

TEST_F(QueueAdd, KeepsTheOrderOfArrival) {
    const Records records = add_records(20);
    EXPECT_EQ(content(), records);
    EXPECT_EQ(count_out(), 20);
}

TEST_F(QueueAdd, KeepsTheQueuesApart) {
    std::array<std::array<RawMsgQueueNode *, kQueueKinds>, kQueueInterfaces> heads{};
    for (int i = 0; i < kQueueInterfaces; i++) {
        for (int j = 0; j < kQueueKinds; j++) {
            heads.at(static_cast<size_t>(i)).at(static_cast<size_t>(j)) = new_record();
            EXPECT_EQ(queue_add(i, j, heads.at(static_cast<size_t>(i)).at(static_cast<size_t>(j))),
                      0);
        }
    }
    for (int i = 0; i < kQueueInterfaces; i++) {
        for (int j = 0; j < kQueueKinds; j++) {
            EXPECT_EQ(content(i, j),
                      Records{heads.at(static_cast<size_t>(i)).at(static_cast<size_t>(j))});
        }
    }
}

TEST_F(QueueAdd, RefusesNullAndARecordOfAnotherQueue) {
    EXPECT_EQ(queue_add(0, 0, nullptr), -1);
    RawMsgQueueNode *record = new_record();
    EXPECT_EQ(queue_add(0, 0, record), 0);
    EXPECT_EQ(queue_add(0, 1, record), -1);
    EXPECT_EQ(queue_add(1, 0, record), -1);
    EXPECT_EQ(content(0, 0), Records{record});
    EXPECT_EQ(content(0, 1), Records{});
    EXPECT_EQ(count_out(0, 1), 0);
}

TEST_F(QueueAdd, LinksAndCountsARecordOnce) {
    const Records records = add_records(2);
    EXPECT_EQ(queue_add(0, 0, records[0]), 0);
    EXPECT_EQ(queue_add(0, 0, records[1]), 0);
    EXPECT_EQ(content(), records);
    EXPECT_EQ(count_out(), 2);
}

class FullQueue : public QueueTest {
protected:
    void SetUp() override {
        QueueTest::SetUp();
        first_ = new_record(1, 1);
        ASSERT_EQ(queue_add(0, 0, first_), 0);
        for (int n = 1; n < kCapacity - 1; n++) {
            ASSERT_EQ(queue_add(0, 0, new_record()), 0);
        }
        last_ = new_record(0xABCD, 7);
    }

    static constexpr int kCapacity = 65536;
    RawMsgQueueNode *first_ = nullptr;
    RawMsgQueueNode *last_ = nullptr; // not added yet: the 65536th
};

TEST_F(FullQueue, RefusesThe65536thRecordAndYetHoldsIt) {
    int result = 0;
    const std::string text = log_of([&] { result = queue_add(0, 0, last_); });
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(test::ends_as_log_line(text, kFull));
    EXPECT_EQ(test::occurrences(text, kFull), 1);
    const Records records = content();
    EXPECT_EQ(records.size(), static_cast<size_t>(kCapacity));
    EXPECT_EQ(records.back(), last_);
    (void)find(0xABCD, 7);
    EXPECT_EQ(called_records(), Records{last_});
    EXPECT_EQ(count_out(), kCapacity);
}

TEST_F(FullQueue, RefusesARepeatedAddWithoutLinkingOrCountingTwice) {
    std::string text;
    for (int attempt = 0; attempt < 3; attempt++) {
        text += log_of([&] { EXPECT_EQ(queue_add(0, 0, last_), -1); });
    }
    EXPECT_EQ(test::occurrences(text, kFull), 3);
    EXPECT_EQ(last_->next, nullptr);
    EXPECT_EQ(content().size(), static_cast<size_t>(kCapacity));
    EXPECT_EQ(count_out(), kCapacity);
}

TEST_F(FullQueue, AcceptsTheRepeatedAddOnceThereIsRoom) {
    (void)queue_add(0, 0, last_);
    delete_record(first_);
    EXPECT_EQ(queue_add(0, 0, last_), 0);
    EXPECT_EQ(content().size(), static_cast<size_t>(kCapacity - 1));
    EXPECT_EQ(count_out(), kCapacity - 1);
}

TEST_F(FullQueue, IsEmptiedForTheRecordThatFilledIt) {
    last_->has_sender = 1;
    last_->is_enqueuing = 1;
    (void)queue_add(0, 0, last_);
    for (RawMsgQueueNode *record : content()) {
        record->when_dropped = count_drop;
    }
    EXPECT_EQ(queue_empty(0, 0), 0);
    EXPECT_EQ(g_dropped, kCapacity - 1);
    EXPECT_EQ(content(), Records{last_});
    EXPECT_EQ(out(), 1);
    EXPECT_EQ(queue_add(0, 0, last_), 0);
    EXPECT_EQ(content(), Records{last_});
    EXPECT_TRUE(queue_withdraw(0, 0, last_));
    EXPECT_EQ(count_out(), 0);
    EXPECT_EQ(g_dropped, kCapacity - 1);
}

// Two senders have found the queue full. What one of them empties, the other one is still adding.
TEST_F(FullQueue, IsNotEmptiedOfARecordThatAnotherSenderIsStillAdding) {
    RawMsgQueueNode *other = new_record(0xABCE, 8);
    for (RawMsgQueueNode *record : {last_, other}) {
        record->has_sender = 1;
        record->is_enqueuing = 1;
        record->when_dropped = count_drop;
        EXPECT_EQ(queue_add(0, 0, record), -1);
    }
    EXPECT_EQ(queue_empty(0, 0), 0);
    EXPECT_EQ(content(), (Records{last_, other}));
    EXPECT_EQ(g_dropped, 0);
    EXPECT_EQ(queue_add(0, 0, last_), 0);
    EXPECT_EQ(queue_add(0, 0, other), 0);
    EXPECT_EQ(queue_empty(0, 0), 0); // now both are in, and go
    EXPECT_EQ(content(), Records{});
    EXPECT_EQ(g_dropped, 2);
    EXPECT_EQ(out(), 2); // their senders still hold them
    EXPECT_FALSE(queue_withdraw(0, 0, last_));
    EXPECT_FALSE(queue_withdraw(0, 0, other));
    EXPECT_EQ(out(), 0);
}

// A reply to an older request with the same number must not end one that has not been sent.
TEST_F(FullQueue, KeepsRepliesAndTimeOutsFromARecordThatIsStillBeingAdded) {
    last_->is_enqueuing = 1;
    EXPECT_EQ(queue_add(0, 0, last_), -1);
    (void)find(0xABCD, 7);
    queue_time_out_all(0, 0, 4, note_call);
    EXPECT_EQ(g_calls.size(), static_cast<size_t>(kCapacity - 1));
    EXPECT_EQ(content().back(), last_);
    EXPECT_EQ(last_->count, 0U);
    last_->is_enqueuing = 0;
}

TEST_F(FullQueue, DoesNotTakeBackARecordThatAHostHasTakenOut) {
    last_->has_sender = 1;
    last_->is_enqueuing = 1;
    EXPECT_EQ(queue_add(0, 0, last_), -1);
    delete_record(last_);
    EXPECT_TRUE(queue_is_retired(0, 0, last_));
    EXPECT_EQ(queue_add(0, 0, last_), -1);
    EXPECT_EQ(content().size(), static_cast<size_t>(kCapacity - 1));
    EXPECT_FALSE(queue_withdraw(0, 0, last_));
}

TEST_F(FullQueue, ReportsEveryExpiredRecord) {
    (void)queue_add(0, 0, last_);
    for (RawMsgQueueNode *record : content()) {
        timerStart(1, &record->timer);
    }
    queue_age(0, 0, 1);
    EXPECT_EQ(queue_check(0, 0, note_call), 0);
    EXPECT_EQ(called_records(), content());
}

// ---------------------------------------------------------------------------------------------

using QueueIndices = QueueTest;

TEST_F(QueueIndices, OutOfRangeAreRefusedAndTouchNothing) {
    RawMsgQueueNode *linked = new_record(5, 5);
    ASSERT_EQ(queue_add(0, 0, linked), 0);
    linked->timer.expired = 1;
    uint8_t buf[1];
    linked->buf = buf;
    RawMsgQueueNode *stranger = new_record(5, 5);
    const std::string text = log_of([&] {
        for (const Place at : kNoQueues) {
            EXPECT_EQ(queue_add(at.i, at.j, stranger), -1);
            EXPECT_EQ(queue_del(at.i, at.j, &linked), -1);
            EXPECT_EQ(queue_find(at.i, at.j, 5, 0, 5, 0, note_call, nullptr), -1);
            EXPECT_EQ(queue_check(at.i, at.j, note_call), -1);
            EXPECT_EQ(queue_get(at.i, at.j), nullptr);
            EXPECT_EQ(queue_empty(at.i, at.j), -1);
            EXPECT_EQ(queue_del_buf(at.i, at.j, buf), nullptr);
        }
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(content(), Records{linked});
    EXPECT_EQ(linked->timer.expired, 1);
    EXPECT_EQ(out(), 2);
    mem_free(stranger);
    EXPECT_EQ(count_out(), 1);
}

TEST_F(QueueIndices, OutOfRangeAreNoPlaceForARequestEither) {
    RawMsgQueueNode *record = new_waiting_record();
    for (const Place at : kNoQueues) {
        EXPECT_FALSE(queue_is_valid(at.i, at.j));
        queue_timer_start(at.i, at.j, record, 5);
        queue_timer_stop(at.i, at.j, record);
        queue_mark_done(at.i, at.j, record);
        EXPECT_TRUE(queue_retire(at.i, at.j, record));
        EXPECT_FALSE(queue_is_retired(at.i, at.j, record));
        EXPECT_FALSE(queue_offer(at.i, at.j, 0, 0, 0, 0, note_call, nullptr));
        queue_let_go(at.i, at.j, record);
    }
    EXPECT_EQ(record->timer.period, 0);
    EXPECT_EQ(record->is_done, 0);
    EXPECT_EQ(out(), 1);
    EXPECT_TRUE(queue_withdraw(99, 0, record)); // never linked: its sender's word is enough
    EXPECT_EQ(out(), 0);
}

// ---------------------------------------------------------------------------------------------

using QueueDel = QueueTest;

TEST_F(QueueDel, KeepsTheOrderWhereverTheRecordStood) {
    for (size_t at = 0; at < 5; at++) {
        Records records = add_records(5);
        delete_record(records[at]);
        records.erase(records.begin() + static_cast<ptrdiff_t>(at));
        EXPECT_EQ(content(), records) << at;
        // The next one goes behind the one that is last now.
        records.push_back(new_record());
        EXPECT_EQ(queue_add(0, 0, records.back()), 0);
        EXPECT_EQ(content(), records) << at;
        for (RawMsgQueueNode *record : records) {
            delete_record(record);
        }
        EXPECT_EQ(queue_get(0, 0), nullptr);
    }
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueDel, LeavesAQueueThatWorksWhenTheOnlyRecordGoes) {
    for (int round = 0; round < 3; round++) {
        const Records records = add_records(1);
        EXPECT_EQ(content(), records);
        delete_record(records[0]);
        EXPECT_EQ(content(), Records{});
    }
}

TEST_F(QueueDel, EmptiesTheQueueFromEitherEnd) {
    Records records = add_records(3);
    delete_record(records[2]);
    delete_record(records[1]);
    records.resize(1);
    EXPECT_EQ(content(), records);
    delete_record(records[0]);
    EXPECT_EQ(content(), Records{});
    records = add_records(3);
    EXPECT_EQ(content(), records);
    delete_record(records[0]);
    delete_record(records[1]);
    EXPECT_EQ(content(), Records{records[2]});
}

TEST_F(QueueDel, ReleasesTheRecordButNotItsBufferNorTheCallersPointer) {
    uint8_t buf[4] = {1, 2, 3, 4};
    RawMsgQueueNode *record = new_record();
    record->buf = buf;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    RawMsgQueueNode *const was = record;
    EXPECT_EQ(out(), 1);
    EXPECT_EQ(queue_del(0, 0, &record), 0);
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(record, was);
    EXPECT_EQ(mem_alloc(sizeof(RawMsgQueueNode)), was); // it is the pool's next block
    mem_free(was);
}

TEST_F(QueueDel, CountsDownForARecordThatIsNotInTheQueue) {
    const Records records = add_records(3);
    RawMsgQueueNode stranger{};
    RawMsgQueueNode *pointer = &stranger;
    EXPECT_EQ(queue_del(0, 0, &pointer), 0);
    pointer = nullptr;
    EXPECT_EQ(queue_del(0, 0, &pointer), 0);
    EXPECT_EQ(content(), records);
    EXPECT_EQ(out(), 3);
    EXPECT_EQ(count_out(), 1);
}

TEST_F(QueueDel, OfARecordOfAnotherQueueLeavesItThere) {
    const Records records = add_records(2);
    RawMsgQueueNode *other = new_record();
    ASSERT_EQ(queue_add(0, 1, other), 0);
    EXPECT_EQ(queue_del(0, 0, &other), 0);
    EXPECT_EQ(content(0, 1), Records{other});
    EXPECT_EQ(content(0, 0), records);
    EXPECT_EQ(count_out(0, 0), 1);
    EXPECT_EQ(count_out(0, 1), 1);
}

TEST_F(QueueDel, FailsWhenTheCountGoesBelowZero) {
    RawMsgQueueNode stranger{};
    RawMsgQueueNode *pointer = &stranger;
    for (int attempt = 0; attempt < 2; attempt++) {
        int result = 0;
        const std::string text = log_of([&] { result = queue_del(0, 0, &pointer); });
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(test::ends_as_log_line(text, kDelError));
        EXPECT_EQ(test::occurrences(text, "\n"), 1);
    }
}

TEST_F(QueueDel, StillReleasesTheRecordWhenTheCountGoesBelowZero) {
    const Records records = add_records(1);
    RawMsgQueueNode *nobody = nullptr;
    EXPECT_EQ(queue_del(0, 0, &nobody), 0);
    RawMsgQueueNode *record = records[0];
    EXPECT_EQ(queue_del(0, 0, &record), -1);
    EXPECT_EQ(content(), Records{});
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueDel, RefusesANullPointer) {
    const Records records = add_records(1);
    EXPECT_EQ(queue_del(0, 0, nullptr), -1);
    EXPECT_EQ(content(), records);
}

TEST_F(QueueDel, WaitsWithTheReleaseForTheSender) {
    RawMsgQueueNode *record = new_record();
    record->has_sender = 1;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    delete_record(record);
    EXPECT_EQ(content(), Records{});
    EXPECT_EQ(out(), 1);
    queue_let_go(0, 0, record);
    EXPECT_EQ(out(), 0);
}

// ---------------------------------------------------------------------------------------------

using QueueFind = QueueTest;

TEST_F(QueueFind, MatchesAddressAndSequenceNumber) {
    RawMsgQueueNode *wanted = new_record(0x1000, 7);
    for (RawMsgQueueNode *record : {new_record(0x1000, 6), new_record(0x1001, 7), wanted,
                                    new_record(7, 0x1000), new_record(0x1000, 8)}) {
        ASSERT_EQ(queue_add(0, 0, record), 0);
    }
    EXPECT_EQ(find(0x1000, 7), 0);
    EXPECT_EQ(called_records(), Records{wanted});
}

TEST_F(QueueFind, ComparesAllBitsOfTheKey) {
    ASSERT_EQ(queue_add(0, 0, new_record(0x80001000, 0x8001)), 0);
    (void)find(0x00001000, 0x8001);
    (void)find(0x80001000, 0x0001);
    (void)find(0x80001000, 0x8000);
    EXPECT_TRUE(g_calls.empty());
    (void)find(0x80001000, 0x8001);
    EXPECT_EQ(g_calls.size(), 1U);
}

TEST_F(QueueFind, TakesTheOlderOfTwoEqualRequests) {
    RawMsgQueueNode *older = new_record(1, 1);
    RawMsgQueueNode *younger = new_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, older), 0);
    ASSERT_EQ(queue_add(0, 0, younger), 0);
    (void)find(1, 1);
    (void)find(1, 1);
    EXPECT_EQ(called_records(), (Records{older, older}));
}

TEST_F(QueueFind, TellsNumbersThatEndAlikeApart) {
    const uint16_t numbers[] = {5, 5 + 0x400, 5 + 0x800, 5 + 0x1000, 5 + 0x8000, 5 + 0xF000};
    for (size_t gone = 0; gone < std::size(numbers); gone++) {
        Records records;
        for (const uint16_t number : numbers) {
            records.push_back(new_record(1, number));
            ASSERT_EQ(queue_add(0, 0, records.back()), 0);
        }
        delete_record(records[gone]);
        records.erase(records.begin() + static_cast<std::ptrdiff_t>(gone));
        g_calls.clear();
        for (const uint16_t number : numbers) {
            (void)find(1, number);
        }
        EXPECT_EQ(called_records(), records) << numbers[gone];
        (void)queue_empty(0, 0);
    }
}

TEST_F(QueueFind, FindsTheOldestOfWhateverIsLeft) {
    std::mt19937 random(1);
    Records left;
    for (int step = 0; step < 20000; step++) {
        const auto addr = static_cast<uint32_t>(random() % 2);
        const auto seq = static_cast<uint16_t>(random() % 4 * 0x400 + random() % 3);
        if (random() % 4 == 0 && !left.empty()) {
            const auto gone = left.begin() + static_cast<std::ptrdiff_t>(random() % left.size());
            delete_record(*gone);
            left.erase(gone);
        } else if (random() % 2 == 0 && left.size() < 50) {
            left.push_back(new_record(addr, seq));
            ASSERT_EQ(queue_add(0, 0, left.back()), 0);
        } else {
            const auto expected = std::find_if(left.begin(), left.end(), [=](const auto *record) {
                return record->addr == addr && record->seq == seq;
            });
            g_calls.clear();
            (void)find(addr, seq);
            ASSERT_EQ(called_records(), expected == left.end() ? Records{} : Records{*expected});
        }
    }
    (void)queue_empty(0, 0);
}

TEST_F(QueueFind, StoresStatusAndLengthAndHandsTheDataOn) {
    RawMsgQueueNode *record = new_record(1, 1);
    ASSERT_EQ(queue_add(2, 3, record), 0);
    g_reaction = [](RawMsgQueueNode *called) {
        EXPECT_EQ(called->ack, 0x42U);
        EXPECT_EQ(called->recv_len, 1400U);
    };
    int data = 0;
    EXPECT_EQ(queue_find(2, 3, 1, 0x42, 1, 1400, note_call, &data), 0);
    ASSERT_EQ(called_records(), Records{record});
    EXPECT_EQ(g_calls[0].data, &data);
    EXPECT_EQ(g_calls[0].length, 1400U);
    EXPECT_EQ(g_calls[0].count, 0U); // a reply is no time-out
}

TEST_F(QueueFind, OnlyStoresWithoutACallback) {
    RawMsgQueueNode *record = new_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    EXPECT_EQ(queue_find(0, 0, 1, 9, 1, 8, nullptr, nullptr), 0);
    EXPECT_EQ(record->ack, 9U);
    EXPECT_EQ(record->recv_len, 8U);
    EXPECT_EQ(content(), Records{record});
}

TEST_F(QueueFind, DropsAReplyWithoutARequestSilently) {
    RawMsgQueueNode *record = new_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    const std::string text = log_of([] {
        EXPECT_EQ(find(1, 2), 0);
        EXPECT_EQ(find(2, 1), 0);
        EXPECT_EQ(queue_find(0, 1, 1, 0, 1, 0, note_call, nullptr), 0);
        EXPECT_EQ(queue_find(1, 0, 1, 0, 1, 0, note_call, nullptr), 0);
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(record->ack, kNoReply);
}

TEST_F(QueueFind, LetsTheCallbackDeleteTheRecordAndReleasesItAfterwards) {
    RawMsgQueueNode *record = new_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    int64_t out_in_callback = -1;
    g_reaction = [&](RawMsgQueueNode *called) {
        delete_record(called);
        EXPECT_EQ(content(), Records{});
        out_in_callback = out();
        called->recv_len = 5; // still ours
    };
    (void)find(1, 1);
    EXPECT_EQ(out_in_callback, 1);
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueFind, HoldsTheRecordWhileAnotherThreadDeletesIt) {
    RawMsgQueueNode *record = new_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    int64_t out_in_callback = -1;
    g_reaction = [&](RawMsgQueueNode *called) {
        std::thread([called] { delete_record(called); }).join();
        out_in_callback = out();
        called->recv_len = 5;
    };
    (void)find(1, 1);
    EXPECT_EQ(out_in_callback, 1);
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueFind, PassesByARequestThatHasEnded) {
    RawMsgQueueNode *ended = new_waiting_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, ended), 0);
    queue_mark_done(0, 0, ended);
    EXPECT_EQ(queue_find(0, 0, 1, 7, 1, 7, note_call, nullptr), 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(ended->ack, kNoReply);
    queue_withdraw(0, 0, ended);
}

// ---------------------------------------------------------------------------------------------

using QueueCheck = QueueTest;

TEST_F(QueueCheck, CallsForEachExpiredRecordOldestFirst) {
    const Records records = add_records(5);
    for (const size_t n : {4U, 0U, 2U}) {
        records[n]->timer.expired = 1;
    }
    EXPECT_EQ(queue_check(0, 0, note_call), 0);
    EXPECT_EQ(called_records(), (Records{records[0], records[2], records[4]}));
}

TEST_F(QueueCheck, RaisesTheCountBeforeTheCallAndGivesNoData) {
    const Records records = add_records(2);
    records[0]->count = 1;
    records[0]->timer.expired = 1;
    records[1]->timer.expired = 1;
    (void)queue_check(0, 0, note_call);
    ASSERT_EQ(g_calls.size(), 2U);
    EXPECT_EQ(g_calls[0].count, 2U);
    EXPECT_EQ(g_calls[1].count, 1U);
    EXPECT_EQ(g_calls[0].data, nullptr);
    EXPECT_EQ(g_calls[1].data, nullptr);
    EXPECT_EQ(records[0]->count, 2U);
    EXPECT_EQ(records[1]->count, 1U);
    EXPECT_EQ(records[0]->ack, kNoReply);
}

TEST_F(QueueCheck, ConsumesTheExpiryAndLeavesTheTimerRunning) {
    const Records records = add_records(1);
    timerStart(2, &records[0]->timer);
    queue_age(0, 0, 2);
    (void)queue_check(0, 0, note_call);
    (void)queue_check(0, 0, note_call);
    EXPECT_EQ(g_calls.size(), 1U);
    EXPECT_EQ(records[0]->timer.expired, 0);
    queue_age(0, 0, 2);
    (void)queue_check(0, 0, note_call);
    EXPECT_EQ(g_calls.size(), 2U);
    EXPECT_EQ(records[0]->count, 2U);
}

TEST_F(QueueCheck, ForgetsWhoFellDueTogether) {
    const Records records = add_records(2);
    records[0]->timer.expired = records[1]->timer.expired = 1;
    (void)queue_check(0, 0, note_call);
    records[0]->timer.expired = 1;
    (void)queue_check(0, 0, note_call);
    EXPECT_EQ(called_records(), (Records{records[0], records[1], records[0]}));
    EXPECT_EQ(records[1]->completions, 0U);
    for (const Call &call : g_calls) {
        EXPECT_EQ(call.length, 0U);
    }
}

// What another thread writes under a lock that a test cannot take; an old value does no harm.
__attribute__((noinline, no_sanitize("thread"))) uint32_t glance_at(const uint32_t &shared) {
    return *static_cast<const volatile uint32_t *>(&shared);
}

// Two threads may end requests at the same time: the check, and who takes the link down.
TEST_F(QueueCheck, LeavesToItWhatAnotherThreadHasBegun) {
    const Records records = add_records(2);
    records[0]->timer.expired = records[1]->timer.expired = 1;
    std::thread other;
    g_reaction = [&](RawMsgQueueNode *called) {
        if (called == records[0] && !other.joinable()) {
            other = std::thread([] { queue_time_out_all(0, 0, 3, note_call); });
            while (glance_at(records[0]->completions) < 2) { // until the other one has looked, too
                std::this_thread::yield();
            }
        }
    };
    (void)queue_check(0, 0, note_call);
    other.join();
    EXPECT_EQ(called_records(), (Records{records[0], records[1], records[0]}));
}

TEST_F(QueueCheck, OnlyCountsWithoutACallback) {
    const Records records = add_records(1);
    records[0]->timer.expired = 1;
    EXPECT_EQ(queue_check(0, 0, nullptr), 0);
    EXPECT_EQ(records[0]->count, 1U);
    EXPECT_EQ(records[0]->timer.expired, 0);
}

TEST_F(QueueCheck, LooksAtItsOwnQueueOnly) {
    const Records records = add_records(1);
    records[0]->timer.expired = 1;
    (void)queue_check(0, 1, note_call);
    (void)queue_check(1, 0, note_call);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(records[0]->timer.expired, 1);
}

TEST_F(QueueCheck, LetsTheCallbackDeleteItsRecordAndReleasesItAfterwards) {
    const Records records = add_records(3);
    for (RawMsgQueueNode *record : records) {
        record->timer.expired = 1;
    }
    std::vector<int64_t> out_in_callback;
    g_reaction = [&](RawMsgQueueNode *called) {
        delete_record(called);
        out_in_callback.push_back(out());
        called->recv_len = 5; // still ours
    };
    (void)queue_check(0, 0, note_call);
    EXPECT_EQ(called_records(), records);
    EXPECT_EQ(out_in_callback, (std::vector<int64_t>{3, 2, 1}));
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueCheck, PassesByWhatWasTakenOutOrAnsweredMeanwhile) {
    const Records records = add_records(4);
    for (RawMsgQueueNode *record : records) {
        record->timer.expired = 1;
    }
    records[2]->has_sender = 1;
    g_reaction = [&](RawMsgQueueNode *called) {
        if (called == records[0]) {
            delete_record(records[1]);
            queue_mark_done(0, 0, records[2]);
            EXPECT_EQ(out(), 4); // the pass still holds them
        }
    };
    (void)queue_check(0, 0, note_call);
    EXPECT_EQ(called_records(), (Records{records[0], records[3]}));
    EXPECT_EQ(out(), 3);
    EXPECT_EQ(records[2]->count, 0U);
    queue_withdraw(0, 0, records[2]);
}

TEST_F(QueueCheck, PassesByARequestThatHasEnded) {
    const Records records = add_records(1);
    records[0]->timer.expired = 1;
    queue_mark_done(0, 0, records[0]);
    (void)queue_check(0, 0, note_call);
    EXPECT_TRUE(g_calls.empty());
}

// ---------------------------------------------------------------------------------------------

using QueueEmpty = QueueTest;

TEST_F(QueueEmpty, ReleasesEveryRecordAndCountsItDown) {
    (void)add_records(10);
    RawMsgQueueNode *other = new_record();
    ASSERT_EQ(queue_add(0, 1, other), 0);
    EXPECT_EQ(log_of([] { EXPECT_EQ(queue_empty(0, 0), 0); }), "");
    EXPECT_EQ(queue_get(0, 0), nullptr);
    EXPECT_EQ(out(), 1);
    EXPECT_EQ(content(0, 1), Records{other});
    const Records records = add_records(3);
    EXPECT_EQ(content(), records);
    EXPECT_EQ(count_out(), 3);
}

TEST_F(QueueEmpty, OfAnEmptyQueueDoesNothing) {
    EXPECT_EQ(log_of([] { EXPECT_EQ(queue_empty(0, 0), 0); }), "");
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueEmpty, LeavesFrameBuffersAlone) {
    auto *buf = static_cast<uint8_t *>(mem_alloc(100));
    RawMsgQueueNode *record = new_record();
    record->buf = buf;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    (void)queue_empty(0, 0);
    EXPECT_EQ(out(), 1);
    mem_free(buf);
}

TEST_F(QueueEmpty, ReleasesABlockThatARecordOwns) {
    RawMsgQueueNode *record = new_record();
    record->owned_block = mem_alloc(100);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    EXPECT_EQ(out(), 2);
    (void)queue_empty(0, 0);
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueEmpty, ReportsEachStepBelowZeroAndGoesOn) {
    (void)add_records(3);
    RawMsgQueueNode *nobody = nullptr;
    EXPECT_EQ(queue_del(0, 0, &nobody), 0);
    EXPECT_EQ(queue_del(0, 0, &nobody), 0); // one is left on the count, three in the queue
    const std::string text = log_of([] { EXPECT_EQ(queue_empty(0, 0), 0); });
    EXPECT_EQ(test::occurrences(text, kEmptyError), 2);
    EXPECT_TRUE(test::ends_as_log_line(text, kEmptyError));
    EXPECT_EQ(content(), Records{});
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueEmpty, WakesAWaitingSenderOnceWithoutAnAnswer) {
    RawMsgQueueNode *record = new_waiting_record();
    record->ack = 3; // of a refusal before a resend, say
    record->recv_len = 100;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    (void)queue_empty(0, 0);
    (void)queue_empty(0, 0);
    EXPECT_EQ(posts_of(record), 1);
    EXPECT_EQ(record->ack, kNoReply);
    EXPECT_EQ(record->recv_len, 0U);
    EXPECT_EQ(content(), Records{});
    EXPECT_EQ(out(), 1); // the sender still looks at it
    EXPECT_EQ(log_of([=] { queue_withdraw(0, 0, record); }), "");
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueEmpty, WakesASenderThatSleeps) {
    RawMsgQueueNode *record = new_waiting_record();
    ASSERT_EQ(queue_add(0, 0, record), 0);
    uint32_t seen = 0;
    std::thread sender([&] {
        wait_full(record->sem);
        seen = record->ack;
        queue_withdraw(0, 0, record);
    });
    (void)queue_empty(0, 0);
    sender.join();
    EXPECT_EQ(seen, kNoReply);
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueEmpty, DoesNotWakeASenderASecondTime) {
    RawMsgQueueNode *record = new_waiting_record();
    record->ack = 0;
    record->recv_len = 100;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    queue_mark_done(0, 0, record);
    (void)sem_post(&record->sem); // its answer came, but the sender has not run yet
    (void)queue_empty(0, 0);
    EXPECT_EQ(posts_of(record), 1);
    EXPECT_EQ(record->ack, 0U);
    EXPECT_EQ(record->recv_len, 100U);
    queue_withdraw(0, 0, record);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueEmpty, DoesNotPostForARequestThatNobodyWaitsFor) {
    RawMsgQueueNode *record = new_record();
    record->has_sender = 1;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    (void)queue_empty(0, 0);
    EXPECT_EQ(posts_of(record), 0);
    queue_let_go(0, 0, record);
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueEmpty, LeavesARecordThatACompletionHolds) {
    const Records records = add_records(3);
    RawMsgQueueNode *held = records[1];
    held->has_sender = 1;
    held->is_waited_for = 1;
    g_reaction = [&](RawMsgQueueNode *called) {
        std::thread([] { (void)queue_empty(0, 0); }).join();
        EXPECT_EQ(content(), Records{called});
        EXPECT_EQ(posts_of(called), 0);
        EXPECT_EQ(out(), 1);
        queue_mark_done(0, 0, called);
        (void)sem_post(&called->sem);
    };
    (void)queue_find(0, 0, 1, 0, 0, 64, note_call, nullptr);
    EXPECT_EQ(called_records(), Records{held});
    EXPECT_EQ(content(), Records{held});
    EXPECT_EQ(held->ack, 0U); // its answer counts
    EXPECT_EQ(posts_of(held), 1);
    queue_withdraw(0, 0, held);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueEmpty, LeavesARecordWhoseTimeOutIsBeingHandled) {
    const Records records = add_records(3);
    records[0]->timer.expired = 1;
    records[2]->timer.expired = 1;
    g_reaction = [&](RawMsgQueueNode *called) {
        if (called == records[0]) {
            std::thread([] { (void)queue_empty(0, 0); }).join();
        }
    };
    (void)queue_check(0, 0, note_call);
    EXPECT_EQ(called_records(), (Records{records[0], records[2]}));
    EXPECT_EQ(content(), (Records{records[0], records[2]}));
    EXPECT_EQ(count_out(), 2);
}

// ---------------------------------------------------------------------------------------------

using QueueDelBuf = QueueTest;

TEST_F(QueueDelBuf, ReleasesTheOldestRecordWithTheBufferAndKeepsTheCount) {
    uint8_t buf[2];
    for (size_t at = 0; at < 3; at++) {
        queue_init();
        Records records = add_records(3);
        for (size_t n = at; n < 3; n++) {
            records[n]->buf = &buf[0];
        }
        EXPECT_EQ(queue_del_buf(0, 0, &buf[1]), nullptr);
        EXPECT_EQ(content(), records);
        EXPECT_EQ(queue_del_buf(0, 0, &buf[0]), nullptr);
        records.erase(records.begin() + static_cast<ptrdiff_t>(at));
        EXPECT_EQ(content(), records) << at;
        EXPECT_EQ(out(), 2);
        records.push_back(new_record());
        ASSERT_EQ(queue_add(0, 0, records.back()), 0);
        EXPECT_EQ(content(), records) << at;
        EXPECT_EQ(count_out(), 4); // three added, one deleted without counting, one added
        (void)queue_empty(0, 0);
    }
}

// ---------------------------------------------------------------------------------------------

using QueueInit = QueueTest;

TEST_F(QueueInit, ForgetsRecordsAndCounts) {
    RawMsgQueueNode record{};
    for (int i = 0; i < kQueueInterfaces; i++) {
        for (int j = 0; j < kQueueKinds; j++) {
            ASSERT_EQ(queue_add(i, j, &record), 0);
            queue_init();
            EXPECT_EQ(queue_get(i, j), nullptr);
            EXPECT_EQ(count_out(i, j), 0);
            queue_init();
            record = {};
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Locks: what they keep apart shows only where threads meet, that they are taken shows at once.

using QueueLocks = QueueTest;

// The pool's lock is counted too, where a record is released.
TEST_F(QueueLocks, AreTakenByEveryOperation) {
    RawMsgQueueNode *record = nullptr;
    const auto use_of = [&](const std::function<void()> &work) {
        record = new_record(1, 1);
        record->has_sender = 1;
        EXPECT_EQ(queue_add(0, 0, record), 0);
        const test::LockUse use = test::locks_of(work);
        EXPECT_EQ(use.kept, 0);
        queue_let_go(0, 0, record);
        EXPECT_EQ(queue_empty(0, 0), 0);
        return std::pair(use.taken, use.deepest);
    };
    struct Row {
        const char *what;
        std::function<void()> work;
        std::pair<int, int> locks; // taken in all, held at a time
    };
    const auto nothing = [](RawMsgQueueNode *, void *, uint32_t) {};
    const Row rows[] = {
        {"add", [&] { (void)queue_add(0, 0, record); }, {1, 1}},
        {"find none", [&] { (void)find(2, 2, nothing); }, {1, 1}},
        {"find", [&] { (void)find(1, 1, nothing); }, {3, 1}},
        {"none is due", [&] { (void)queue_check(0, 0, nothing); }, {2, 1}},
        {"one is due", [&] { queue_time_out_all(0, 0, 3, nothing); }, {4, 2}},
        {"start", [&] { queue_timer_start(0, 0, record, 3); }, {1, 1}},
        {"stop", [&] { queue_timer_stop(0, 0, record); }, {1, 1}},
        {"age", [] { queue_age(0, 0, 1); }, {1, 1}},
        {"mark done", [&] { queue_mark_done(0, 0, record); }, {1, 1}},
        {"is retired", [&] { (void)queue_is_retired(0, 0, record); }, {1, 1}},
        {"retire", [&] { (void)queue_retire(0, 0, record); }, {1, 1}},
        {"delete", [&] { (void)queue_del(0, 0, &record); }, {1, 1}},
        {"delete by buffer", [] { (void)queue_del_buf(0, 0, nullptr); }, {1, 1}},
        {"empty", [] { (void)queue_empty(0, 0); }, {1, 1}},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(use_of(row.work), row.locks) << row.what;
    }
    EXPECT_EQ(test::locks_of(queue_init).taken, kQueueInterfaces * kQueueKinds);
}

TEST_F(QueueLocks, AreTakenWhereARecordIsReleased) {
    RawMsgQueueNode *record = add_records(1)[0];
    record->has_sender = 1;
    record->is_retired = 1;
    test::LockUse use = test::locks_of([&] { queue_let_go(0, 0, record); });
    EXPECT_EQ(use.taken, 2); // the queue's and the pool's
    EXPECT_EQ(use.deepest, 2);

    queue_init();
    record = add_records(1)[0];
    record->has_sender = 1;
    use = test::locks_of([&] { (void)queue_withdraw(0, 0, record); });
    EXPECT_EQ(use.taken, 4); // the queue's to take it back, to look at it and to release it
    EXPECT_EQ(use.deepest, 2);
    EXPECT_EQ(use.kept, 0);
}

TEST_F(QueueLocks, AreFreeInAChildWhereverItsParentsThreadsWere) {
    const auto nothing = [](RawMsgQueueNode *, void *, uint32_t) {};
    RawMsgQueueNode *record = new_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    ASSERT_EQ(queue_add(0, 1, new_record(1, 1)), 0);
    const auto in_child = [=] {
        (void)queue_find(0, 1, 1, 0, 1, 0, nothing, nullptr);
        (void)queue_check(0, 1, nothing);
    };
    EXPECT_EQ(test::fork_amid([=] { (void)find(1, 1, nothing); }, 2, in_child), 0);
    EXPECT_EQ(test::fork_amid([=] { (void)queue_check(0, 0, nothing); }, 2, in_child), 0);
}

// ---------------------------------------------------------------------------------------------
// Who keeps a record alive

using QueueHolders = QueueTest;

TEST_F(QueueHolders, ReleaseARecordWithTheLastOneToLetGo) {
    RawMsgQueueNode *record = new_record(1, 1);
    record->has_sender = 1;
    record->owned_block = mem_alloc(100);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    g_reaction = [&](RawMsgQueueNode *called) {
        queue_retire(0, 0, called);
        queue_let_go(0, 0, called); // the sender is faster than the callback's end
        EXPECT_EQ(out(), 2);
    };
    (void)find(1, 1);
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueHolders, LeaveAnUnansweredRecordInTheQueueWhenTheSenderGoes) {
    RawMsgQueueNode *record = new_record(1, 1);
    record->has_sender = 1;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    queue_let_go(0, 0, record);
    EXPECT_EQ(content(), Records{record});
    queue_retire(0, 0, record);
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueHolders, RetireARecordOnce) {
    RawMsgQueueNode *record = new_record();
    record->has_sender = 1;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    EXPECT_EQ(log_of([=] {
                  queue_retire(0, 0, record);
                  queue_retire(0, 0, record);
                  queue_withdraw(0, 0, record);
              }),
              "");
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(), 0);
}

TEST_F(QueueHolders, GiveNoRecycledRecordTheMarksOfTheOldOne) {
    RawMsgQueueNode *record = new_waiting_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    queue_mark_done(0, 0, record);
    queue_withdraw(0, 0, record);
    // A frame buffer may get the block, and after it a record whose user only fills in the key.
    auto *again = static_cast<RawMsgQueueNode *>(mem_alloc(sizeof(RawMsgQueueNode)));
    ASSERT_EQ(again, record);
    ASSERT_EQ(queue_add(0, 0, again), 0);
    (void)find(1, 1);
    EXPECT_EQ(called_records(), Records{again});
}

TEST_F(QueueHolders, ClearEveryMarkOfARecordThatGoesBackToThePool) {
    RawMsgQueueNode *record = new_waiting_record(1, 1);
    int somewhere = 0;
    record->owned_block = mem_alloc(64);
    record->when_dropped = count_drop;
    record->home = &somewhere;
    record->completions = 1;
    record->is_enqueuing = 1;
    record->is_retired = 1;
    record->is_done = 1;
    record->is_due = 1;
    (void)queue_withdraw(99, 0, record);
    auto *again = static_cast<RawMsgQueueNode *>(mem_alloc(sizeof(RawMsgQueueNode)));
    ASSERT_EQ(again, record);
    EXPECT_EQ(again->owned_block, nullptr);
    EXPECT_EQ(again->when_dropped, nullptr);
    EXPECT_EQ(again->home, nullptr);
    EXPECT_EQ(again->completions, 0U);
    EXPECT_EQ(again->has_sender, 0);
    EXPECT_EQ(again->is_enqueuing, 0);
    EXPECT_EQ(again->is_retired, 0);
    EXPECT_EQ(again->is_done, 0);
    EXPECT_EQ(again->is_due, 0);
    EXPECT_EQ(again->is_waited_for, 0);
    mem_free(again);
}

TEST_F(QueueHolders, TellWhetherARequestWasOpenWhenItIsTakenBack) {
    RawMsgQueueNode *record = new_waiting_record();
    ASSERT_EQ(queue_add(0, 0, record), 0);
    queue_mark_done(0, 0, record);
    EXPECT_FALSE(queue_withdraw(0, 0, record));
    record = new_waiting_record(1, 1);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    EXPECT_TRUE(queue_retire(0, 0, record));
    EXPECT_EQ(record->is_retired, 1);
    queue_timer_start(0, 0, record, 6); // of one that is retired no timer starts
    EXPECT_EQ(record->timer.period, 0);
    EXPECT_FALSE(queue_withdraw(0, 0, record));
}

// Its sender wants its memory back: the completion, which is under way, must not end it any more.
TEST_F(QueueHolders, EndNoRequestThatItsSenderTakesBack) {
    RawMsgQueueNode *record = new_waiting_record(5, 5);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    std::thread sender;
    g_reaction = [&](RawMsgQueueNode *called) {
        sender = std::thread([&] { EXPECT_TRUE(queue_withdraw(0, 0, record)); });
        while (queue_get(0, 0) != nullptr) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(queue_retire(0, 0, called));
    };
    (void)find(5, 5);
    sender.join();
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueHolders, ReportACountBelowZeroWhoeverTakesTheRecordOut) {
    ASSERT_EQ(count_out(), 0); // it is at -1 now
    RawMsgQueueNode *record = new_waiting_record();
    (void)queue_add(0, 0, record);
    RawMsgQueueNode *none = nullptr;
    (void)queue_del(0, 0, &none); // -1 again
    EXPECT_TRUE(
        test::ends_as_log_line(log_of([&] { (void)queue_retire(0, 0, record); }), kDelError));
    (void)queue_withdraw(0, 0, record);
    record = new_waiting_record();
    (void)queue_add(0, 0, record);
    EXPECT_TRUE(
        test::ends_as_log_line(log_of([&] { (void)queue_withdraw(0, 0, record); }), kDelError));
}

TEST_F(QueueHolders, StartNoTimerOfARequestThatHasEnded) {
    RawMsgQueueNode *record = new_waiting_record();
    ASSERT_EQ(queue_add(0, 0, record), 0);
    queue_timer_start(0, 0, record, 6);
    EXPECT_EQ(record->timer.period, 6);
    queue_timer_stop(0, 0, record);
    EXPECT_EQ(record->timer.period, 0);
    queue_mark_done(0, 0, record);
    queue_timer_start(0, 0, record, 6);
    EXPECT_EQ(record->timer.period, 0);
    queue_withdraw(0, 0, record);
}

TEST_F(QueueHolders, AreToldOnceForEachDroppedRequestThatNobodyWaitsFor) {
    const Records records = add_records(3);
    RawMsgQueueNode *waiting = new_waiting_record();
    ASSERT_EQ(queue_add(0, 0, waiting), 0);
    for (RawMsgQueueNode *record : content()) {
        record->when_dropped = count_drop;
    }
    records[1]->is_enqueuing = 1;
    EXPECT_EQ(queue_empty(0, 0), 0);
    EXPECT_EQ(g_dropped, 2);
    EXPECT_EQ(posts_of(waiting), 1);
    EXPECT_EQ(content(), Records{records[1]});
    EXPECT_FALSE(queue_withdraw(0, 0, waiting));
    records[1]->is_enqueuing = 0;
    EXPECT_EQ(count_out(), 1);
}

// What a host's own completion does: the buffer first, then the record. The buffer may have a new
// owner in between.
TEST_F(QueueHolders, LeaveABufferAloneThatAHostsCompletionHasReleased) {
    RawMsgQueueNode *record = new_record(5, 5);
    uint8_t *buf = static_cast<uint8_t *>(mem_alloc(128));
    record->buf = buf;
    record->owned_block = buf;
    ASSERT_EQ(queue_add(0, 0, record), 0);
    void *new_owners = nullptr;
    g_reaction = [&](RawMsgQueueNode *found) {
        mem_free(found->buf);
        new_owners = mem_alloc(128);
        delete_record(found);
    };
    (void)find(5, 5);
    EXPECT_EQ(new_owners, buf) << "the test wants the block to be handed out again";
    EXPECT_EQ(out(), 1);
    void *another = mem_alloc(128);
    EXPECT_NE(another, new_owners);
    mem_free(another);
    mem_free(new_owners);
    EXPECT_EQ(out(), 0);
}

TEST_F(QueueHolders, WakeASenderWhoseRecordAHostTakesOut) {
    uint8_t buf[1];
    for (const bool by_buffer : {false, true}) {
        RawMsgQueueNode *record = new_waiting_record();
        record->buf = buf;
        record->owned_block = mem_alloc(64);
        ASSERT_EQ(queue_add(0, 0, record), 0);
        RawMsgQueueNode *pointer = record;
        if (by_buffer) {
            EXPECT_EQ(queue_del_buf(0, 0, buf), nullptr);
        } else {
            EXPECT_EQ(queue_del(0, 0, &pointer), 0);
        }
        EXPECT_EQ(posts_of(record), 1);
        EXPECT_EQ(record->ack, kNoReply);
        EXPECT_EQ(record->is_done, 1);
        EXPECT_FALSE(queue_withdraw(0, 0, record)); // releases record and buffer
        EXPECT_EQ(out(), 0);
    }
}

TEST_F(QueueHolders, TimeOutAllAtOnceWithTheCountOfTheLastTimeOut) {
    const Records records = add_records(3);
    timerStart(100, &records[1]->timer); // running or not
    queue_mark_done(0, 0, records[2]);
    queue_time_out_all(0, 0, 4, note_call);
    EXPECT_EQ(called_records(), (Records{records[0], records[1]}));
    EXPECT_EQ(g_calls[0].count, 4U);
    EXPECT_EQ(g_calls[1].count, 4U);
    EXPECT_EQ(g_calls[0].data, nullptr);
    for (const Place at : kNoQueues) {
        queue_time_out_all(at.i, at.j, 4, note_call);
    }
    queue_time_out_all(0, 0, 5, nullptr);
    EXPECT_EQ(g_calls.size(), 2U);
    EXPECT_EQ(records[0]->count, 5U);
}

// The reply is being copied into the sender's memory while the sender gives up.
TEST_F(QueueHolders, WithdrawARecordOnlyWhenItsCompletionIsThrough) {
    RawMsgQueueNode *record = new_waiting_record(5, 5);
    ASSERT_EQ(queue_add(0, 0, record), 0);
    std::atomic<bool> is_at_work{false};
    std::atomic<bool> may_end{false};
    std::atomic<bool> has_ended{false};
    std::atomic<bool> was_withdrawn{false};
    g_reaction = [&](RawMsgQueueNode *) {
        is_at_work = true;
        while (!may_end) {
            std::this_thread::yield();
        }
        has_ended = true;
        EXPECT_FALSE(was_withdrawn);
    };
    std::thread receiver([&] { (void)find(5, 5); });
    while (!is_at_work) {
        std::this_thread::yield();
    }
    std::thread sender([&] {
        EXPECT_TRUE(queue_withdraw(0, 0, record));
        was_withdrawn = true;
        EXPECT_TRUE(has_ended);
    });
    while (queue_get(0, 0) != nullptr) { // the sender has begun
        std::this_thread::yield();
    }
    may_end = true;
    receiver.join();
    sender.join();
    EXPECT_EQ(out(), 0);
}

// ---------------------------------------------------------------------------------------------
// Many threads

void finish_without_waiting(RawMsgQueueNode *record, void *data, uint32_t /*length*/) {
    if (data != nullptr || record->count > 2) {
        queue_timer_stop(0, ACK_QUEUE, record);
        queue_retire(0, ACK_QUEUE, record);
    } else {
        queue_timer_start(0, ACK_QUEUE, record, 1);
    }
}

void wake_the_sender(RawMsgQueueNode *record, void *data, uint32_t /*length*/) {
    if (data != nullptr || record->count >= 3) {
        queue_timer_stop(0, ACK_WAIT_QUEUE, record);
        queue_mark_done(0, ACK_WAIT_QUEUE, record);
        (void)sem_post(&record->sem);
    }
}

constexpr int kSenders = 3;
constexpr uint16_t kRequests = 400;
std::atomic<int> g_ended_wrongly{0};
// Replies and time-outs of an interface never interleave; the receive and the check thread see to
// it.
pthread_mutex_t g_find_check = PTHREAD_MUTEX_INITIALIZER;

void send_requests(uint32_t id, bool is_waiting) {
    const int queue = is_waiting ? ACK_WAIT_QUEUE : ACK_QUEUE;
    for (uint16_t seq = 0; seq < kRequests; seq++) {
        RawMsgQueueNode *record = new_record(id, seq);
        record->has_sender = 1;
        record->is_waited_for = is_waiting ? 1 : 0;
        record->owned_block = mem_alloc(100);
        if (queue_add(0, queue, record) != 0) {
            g_ended_wrongly += 1;
        }
        queue_timer_start(0, queue, record, 2);
        if (is_waiting) {
            wait_full(record->sem);
            g_ended_wrongly += record->ack == kNoReply || record->ack == id ? 0 : 1;
            g_ended_wrongly += posts_of(record) == 0 ? 0 : 1;
            queue_withdraw(0, queue, record);
        } else {
            queue_let_go(0, queue, record);
        }
    }
}

// Answers whatever may be outstanding, in no order, until told to stop.
void answer_requests(const std::atomic<bool> &stop) {
    std::minstd_rand random(5);
    char data = 0;
    while (!stop) {
        const auto id = static_cast<uint32_t>(random() % kSenders);
        const auto seq = static_cast<uint16_t>(random() % kRequests);
        const MutexGuard guard(g_find_check);
        (void)queue_find(0, ACK_QUEUE, id, id, seq, 1, finish_without_waiting, &data);
        (void)queue_find(0, ACK_WAIT_QUEUE, id, id, seq, 1, wake_the_sender, &data);
        (void)queue_get(0, ACK_QUEUE);
    }
}

void time_requests_out(const std::atomic<bool> &stop) {
    while (!stop) {
        catch_alarm(0);
        timerUpdate(0, kQueueKinds);
        {
            const MutexGuard guard(g_find_check);
            (void)queue_check(0, ACK_QUEUE, finish_without_waiting);
            (void)queue_check(0, ACK_WAIT_QUEUE, wake_the_sender);
        }
        std::this_thread::yield();
    }
}

void empty_queues(const std::atomic<bool> &stop) {
    while (!stop) {
        (void)queue_empty(0, ACK_QUEUE);
        (void)queue_empty(0, ACK_WAIT_QUEUE);
        std::this_thread::yield();
    }
}

using QueueThreads = QueueTest;

TEST_F(QueueThreads, EndEveryRequestOnceAndLoseNoRecord) {
    g_ended_wrongly = 0;
    std::atomic<bool> stop{false};
    const std::string text = log_of([&] {
        std::vector<std::thread> others;
        others.emplace_back([&] { answer_requests(stop); });
        others.emplace_back([&] { time_requests_out(stop); });
        others.emplace_back([&] { empty_queues(stop); });
        std::vector<std::thread> senders;
        for (uint32_t id = 0; id < kSenders; id++) {
            senders.emplace_back([id] { send_requests(id, false); });
            senders.emplace_back([id] { send_requests(id, true); });
        }
        for (std::thread &thread : senders) {
            thread.join();
        }
        stop = true;
        for (std::thread &thread : others) {
            thread.join();
        }
    });
    EXPECT_EQ(g_ended_wrongly, 0);
    EXPECT_EQ(text, ""); // no count went below zero, nothing was freed twice
    (void)queue_empty(0, ACK_QUEUE);
    EXPECT_EQ(content(0, ACK_WAIT_QUEUE), Records{});
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(0, ACK_QUEUE), 0);
    EXPECT_EQ(count_out(0, ACK_WAIT_QUEUE), 0);
    store_relaxed(elapsed, 0);
}

TEST_F(QueueThreads, AddFindAndDeleteInTheSameQueue) {
    g_ended_wrongly = 0;
    std::vector<std::thread> threads;
    for (uint32_t id = 0; id < 4; id++) {
        threads.emplace_back([id] {
            for (uint16_t seq = 0; seq < 1000; seq++) {
                RawMsgQueueNode *record = new_record(id, seq);
                (void)queue_add(1, 2, record);
                (void)queue_find(1, 2, id, id + 1, seq, seq, nullptr, nullptr);
                g_ended_wrongly += record->ack == id + 1 && record->recv_len == seq ? 0 : 1;
                g_ended_wrongly += queue_del(1, 2, &record) == 0 ? 0 : 1;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(g_ended_wrongly, 0);
    EXPECT_EQ(content(1, 2), Records{});
    EXPECT_EQ(out(), 0);
    EXPECT_EQ(count_out(1, 2), 0);
}

} // namespace
