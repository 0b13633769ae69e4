#include "queue/queue.h"

#include "base/locks.h"
#include "base/relaxed.h"
#include "log/write.h"
#include "mem/mem.h"
#include "queue/record_holders.h"
#include "timer/sleep.h"
#include "timer/ticks.h"

#include <atomic>

namespace {

struct RecordList {
    RawMsgQueueNode *head;
    RawMsgQueueNode *tail; // meaningless while head is null
};

// Thousands of requests may be under way, and every reply looks for its own. Numbers are given out
// in turn, so their low bits spread the records evenly.
constexpr size_t kSeqEndings = 1024;
struct SeqIndex {
    RawMsgQueueNode *newest[kSeqEndings];
};

RecordList Qlist[kQueueInterfaces][kQueueKinds];         // each guarded by its mtx
SeqIndex Qindex[kQueueInterfaces][kQueueKinds];          // likewise, of the same records
int32_t Qcount[kQueueInterfaces][kQueueKinds];           // likewise; queue_depth takes no lock
pthread_mutex_t mtx[kQueueInterfaces][kQueueKinds];      // only mutex_mem is taken under one
pthread_mutex_t mutex_find = PTHREAD_MUTEX_INITIALIZER;  // reply callbacks; mtx is taken under it
pthread_mutex_t mutex_check = PTHREAD_MUTEX_INITIALIZER; // time-out callbacks; likewise

std::atomic_ref<RawMsgQueueNode *> head_of(RecordList &list) {
    return std::atomic_ref<RawMsgQueueNode *>(list.head); // queue_get reads it without the lock
}

bool is_linked_locked(const RecordList &list, const RawMsgQueueNode *record) {
    return record->home == &list;
}

bool is_any_queue(const void *home) {
    for (const auto &interface : Qlist) {
        for (const RecordList &list : interface) {
            if (home == &list) {
                return true;
            }
        }
    }
    return false;
}

void add_to_index_locked(SeqIndex &index, RawMsgQueueNode *record) {
    RawMsgQueueNode *&newest = index.newest[record->seq % kSeqEndings];
    record->older = newest;
    record->newer = &newest;
    if (newest != nullptr) {
        newest->newer = &record->older;
    }
    newest = record;
}

void remove_from_index_locked(RawMsgQueueNode *record) {
    *record->newer = record->older;
    if (record->older != nullptr) {
        record->older->newer = record->newer;
    }
}

// The oldest of several matches stands last.
RawMsgQueueNode *oldest_match_locked(const SeqIndex &index, uint32_t addr, uint16_t seq) {
    RawMsgQueueNode *match = nullptr;
    for (RawMsgQueueNode *record = index.newest[seq % kSeqEndings]; record != nullptr;
         record = record->older) {
        if (record->addr == addr && record->seq == seq && record->is_done == 0 &&
            record->is_enqueuing == 0) { // nothing answers what has not been sent
            match = record;
        }
    }
    return match;
}

void link_locked(RecordList &list, RawMsgQueueNode *record) {
    record->next = nullptr;
    record->home = &list;
    if (list.head == nullptr) {
        record->prev = nullptr;
        head_of(list).store(record, std::memory_order_relaxed);
    } else {
        record->prev = list.tail;
        list.tail->next = record;
    }
    list.tail = record;
}

void unlink_locked(RecordList &list, RawMsgQueueNode *record) {
    if (record->prev == nullptr) {
        head_of(list).store(record->next, std::memory_order_relaxed);
    } else {
        record->prev->next = record->next;
    }
    if (record->next == nullptr) {
        list.tail = record->prev;
    } else {
        record->next->prev = record->prev;
    }
    record->home = nullptr;
    remove_from_index_locked(record);
}

// The marks are cleared because the pool hands blocks out again as they are.
void release(RawMsgQueueNode *record) {
    mem_free(record->owned_block);
    (void)sem_destroy(&record->sem); // nobody sleeps on it: the waiting sender was a holder
    record->owned_block = nullptr;
    record->when_dropped = nullptr;
    record->home = nullptr;
    record->completions = 0;
    record->has_sender = 0;
    record->is_enqueuing = 0;
    record->is_retired = 0;
    record->is_done = 0;
    record->is_due = 0;
    record->is_waited_for = 0;
    mem_free(record);
}

void release_if_unused_locked(RawMsgQueueNode *record) {
    if (record->is_retired != 0 && record->has_sender == 0 && record->completions == 0) {
        release(record);
    }
}

void retire_locked(RawMsgQueueNode *record) {
    record->is_retired = 1;
    release_if_unused_locked(record);
}

// Ends the hold of hold_match or hold_due when the callback has done its work.
class Held {
public:
    Held(int i, int j, RawMsgQueueNode *record) : i_(i), j_(j), record_(record) {
    }
    ~Held() {
        const MutexGuard guard(mtx[i_][j_]);
        record_->completions -= 1;
        release_if_unused_locked(record_);
    }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

private:
    int i_;
    int j_;
    RawMsgQueueNode *record_;
};

// The reply is stored under the lock that also lets a full queue be emptied: a request that has its
// answer is not dropped.
RawMsgQueueNode *hold_match(int i, int j, uint32_t addr, uint16_t seq, uint32_t ack,
                            uint32_t recv_len) {
    const MutexGuard guard(mtx[i][j]);
    RawMsgQueueNode *record = oldest_match_locked(Qindex[i][j], addr, seq);
    if (record != nullptr) {
        record->completions += 1;
        record->ack = ack;
        record->recv_len = recv_len;
    }
    return record;
}

bool has_expired(RawMsgQueueNode *record) {
    return timerExpired(&record->timer) != 0;
}

bool is_in_the_queue(RawMsgQueueNode *record) {
    return record->is_enqueuing == 0;
}

// Returns the open records that are due, held and chained through next_due, oldest first.
RawMsgQueueNode *hold_due(int i, int j, bool (*is_due)(RawMsgQueueNode *record)) {
    RawMsgQueueNode *first = nullptr;
    RawMsgQueueNode **link = &first;
    const MutexGuard guard(mtx[i][j]);
    for (RawMsgQueueNode *record = Qlist[i][j].head; record != nullptr; record = record->next) {
        if (record->is_done != 0 || record->is_due != 0 || !is_due(record)) {
            continue;
        }
        record->is_due = 1;
        record->completions += 1;
        record->next_due = nullptr;
        *link = record;
        link = &record->next_due;
    }
    return first;
}

// A record that was taken out or answered since it fell due has nothing to time out any more.
bool still_open(int i, int j, RawMsgQueueNode *record) {
    const MutexGuard guard(mtx[i][j]);
    record->is_due = 0;
    return is_linked_locked(Qlist[i][j], record) && record->is_done == 0;
}

// Calls back for each of the records that hold_due returned, unless it has ended meanwhile.
template <typename Count>
void time_out(int i, int j, RawMsgQueueNode *record, queue_callback callback, Count count) {
    const MutexGuard guard(mutex_check);
    while (record != nullptr) {
        const Held held(i, j, record);
        RawMsgQueueNode *next = record->next_due;
        if (still_open(i, j, record)) {
            record->count = count(record->count);
            if (callback != nullptr) {
                callback(record, nullptr, 0);
            }
        }
        record = next;
    }
}

void wake_without_answer_locked(RawMsgQueueNode *record) {
    if (record->is_done == 0) {
        record->is_done = 1;
        record->ack = kNoReply;
        record->recv_len = 0;
        (void)sem_post(&record->sem);
    }
}

// Nobody stays behind without a word: a waiting sender wakes up, of the others the end is counted.
void end_dropped_locked(RawMsgQueueNode *record) {
    if (record->is_waited_for != 0) {
        wake_without_answer_locked(record);
    } else if (record->when_dropped != nullptr) {
        record->when_dropped();
    }
}

// A host that takes out a record releases the frame buffer itself, often before: the block may have
// a new owner by now. A sender that waits for the record releases its buffer when it wakes up.
void take_out_for_host_locked(int i, int j, RawMsgQueueNode *record) {
    unlink_locked(Qlist[i][j], record);
    if (record->is_waited_for != 0) {
        wake_without_answer_locked(record);
    } else {
        record->owned_block = nullptr;
    }
    retire_locked(record);
}

// In a child, a thread that it does not have may have held a lock. queue_init renews the others.
[[maybe_unused]] const bool g_renews_locks = renew_in_child([] {
    mutex_find = PTHREAD_MUTEX_INITIALIZER;
    mutex_check = PTHREAD_MUTEX_INITIALIZER;
});

void count_down_locked(int i, int j, const char *message) {
    store_relaxed(Qcount[i][j], Qcount[i][j] - 1);
    if (Qcount[i][j] < 0) {
        LOG("%s", message);
    }
}

// From here on no reply and no time-out finds the record, and none that found it before ends it.
bool take_back(int i, int j, RawMsgQueueNode *record) {
    const MutexGuard guard(mtx[i][j]);
    const bool was_open = record->is_retired == 0 && record->is_done == 0;
    record->is_done = 1;
    if (is_linked_locked(Qlist[i][j], record)) {
        unlink_locked(Qlist[i][j], record);
        count_down_locked(i, j, "assert : del queue error -1\n");
    }
    return was_open;
}

bool is_being_completed(int i, int j, const RawMsgQueueNode *record) {
    const MutexGuard guard(mtx[i][j]);
    return record->completions != 0;
}

// Rare and short: the reply, or the last time-out, came in the moment of the withdrawal.
void await_completions(int i, int j, const RawMsgQueueNode *record) {
    constexpr auto kCompletionPoll = std::chrono::microseconds(100);
    while (is_being_completed(i, j, record)) {
        sleep_full(kCompletionPoll);
    }
}

} // namespace

void queue_init(void) {
    for (int i = 0; i < kQueueInterfaces; i++) {
        queue_stop_ageing(i);
        for (int j = 0; j < kQueueKinds; j++) {
            (void)pthread_mutex_init(&mtx[i][j], nullptr); // cannot fail with default attributes
            const MutexGuard guard(mtx[i][j]);
            Qlist[i][j] = {};
            Qindex[i][j] = {};
            store_relaxed(Qcount[i][j], 0);
        }
    }
}

int queue_add(int i, int j, RawMsgQueueNode *node) {
    if (!queue_is_valid(i, j) || node == nullptr) {
        return -1;
    }
    const MutexGuard guard(mtx[i][j]);
    if (!is_linked_locked(Qlist[i][j], node)) {
        if (is_any_queue(node->home) || node->is_retired != 0) {
            return -1;
        }
        link_locked(Qlist[i][j], node);
        add_to_index_locked(Qindex[i][j], node);
        store_relaxed(Qcount[i][j], Qcount[i][j] + 1);
    }
    if (Qcount[i][j] >= kQueueCapacity) {
        LOG("queue is full\n");
        return -1;
    }
    node->is_enqueuing = 0;
    return 0;
}

int queue_del(int i, int j, RawMsgQueueNode **pnode) {
    if (!queue_is_valid(i, j) || pnode == nullptr) {
        return -1;
    }
    const MutexGuard guard(mtx[i][j]);
    RawMsgQueueNode *record = *pnode;
    if (record != nullptr && is_linked_locked(Qlist[i][j], record)) {
        take_out_for_host_locked(i, j, record);
    }
    count_down_locked(i, j, "assert : del queue error -1\n");
    return Qcount[i][j] < 0 ? -1 : 0;
}

int queue_find(int i, int j, uint32_t addr, uint32_t ack, uint16_t seq, uint32_t recv_len,
               queue_callback callback, void *data) {
    if (!queue_is_valid(i, j)) {
        return -1;
    }
    (void)queue_offer(i, j, addr, ack, seq, recv_len, callback, data); // 0, found or not
    return 0;
}

int queue_check(int i, int j, queue_callback callback) {
    if (!queue_is_valid(i, j)) {
        return -1;
    }
    time_out(i, j, hold_due(i, j, has_expired), callback, [](uint32_t count) { return count + 1; });
    return 0;
}

RawMsgQueueNode *queue_get(int i, int j) {
    if (!queue_is_valid(i, j)) {
        return nullptr;
    }
    return head_of(Qlist[i][j]).load(std::memory_order_relaxed);
}

int queue_empty(int i, int j) {
    if (!queue_is_valid(i, j)) {
        return -1;
    }
    const MutexGuard guard(mtx[i][j]);
    RawMsgQueueNode *next = nullptr;
    for (RawMsgQueueNode *record = Qlist[i][j].head; record != nullptr; record = next) {
        next = record->next;
        if (record->completions != 0 || record->is_enqueuing != 0) {
            continue;
        }
        unlink_locked(Qlist[i][j], record);
        count_down_locked(i, j, "assert : empty queue error \n");
        end_dropped_locked(record);
        retire_locked(record);
    }
    return 0;
}

void *queue_del_buf(int i, int j, uint8_t *buf) {
    if (!queue_is_valid(i, j)) {
        return nullptr;
    }
    const MutexGuard guard(mtx[i][j]);
    RawMsgQueueNode *record = Qlist[i][j].head;
    while (record != nullptr && record->buf != buf) {
        record = record->next;
    }
    if (record != nullptr) {
        take_out_for_host_locked(i, j, record);
    }
    return nullptr;
}

bool queue_is_valid(int i, int j) {
    return i >= 0 && i < kQueueInterfaces && j >= 0 && j < kQueueKinds;
}

bool queue_offer(int i, int j, uint32_t addr, uint32_t ack, uint16_t seq, uint32_t recv_len,
                 queue_callback callback, void *data) {
    if (!queue_is_valid(i, j)) {
        return false;
    }
    RawMsgQueueNode *record = hold_match(i, j, addr, seq, ack, recv_len);
    if (record == nullptr) {
        return false;
    }
    const Held held(i, j, record);
    const MutexGuard guard(mutex_find);
    if (callback != nullptr) {
        callback(record, data, recv_len);
    }
    return true;
}

int32_t queue_depth(int i, int j) {
    return load_relaxed(Qcount[i][j]);
}

void queue_timer_start(int i, int j, RawMsgQueueNode *record, uint16_t ticks) {
    if (!queue_is_valid(i, j)) {
        return;
    }
    const MutexGuard guard(mtx[i][j]);
    if (record->is_done == 0 && record->is_retired == 0) {
        timerStart(ticks, &record->timer);
    }
}

void queue_timer_stop(int i, int j, RawMsgQueueNode *record) {
    if (!queue_is_valid(i, j)) {
        return;
    }
    const MutexGuard guard(mtx[i][j]);
    timerStop(&record->timer);
}

void queue_mark_done(int i, int j, RawMsgQueueNode *record) {
    if (!queue_is_valid(i, j)) {
        return;
    }
    const MutexGuard guard(mtx[i][j]);
    record->is_done = 1;
}

bool queue_retire(int i, int j, RawMsgQueueNode *record) {
    if (!queue_is_valid(i, j)) {
        return true;
    }
    const MutexGuard guard(mtx[i][j]);
    const bool was_open = record->is_done == 0;
    if (is_linked_locked(Qlist[i][j], record)) {
        unlink_locked(Qlist[i][j], record);
        count_down_locked(i, j, "assert : del queue error -1\n");
        retire_locked(record);
    }
    return was_open;
}

void queue_let_go(int i, int j, RawMsgQueueNode *record) {
    if (!queue_is_valid(i, j)) {
        return;
    }
    const MutexGuard guard(mtx[i][j]);
    record->has_sender = 0;
    release_if_unused_locked(record);
}

bool queue_withdraw(int i, int j, RawMsgQueueNode *record) {
    if (!queue_is_valid(i, j)) {
        release(record); // it never was in a queue, so nobody else knows it
        return true;
    }
    const bool was_open = take_back(i, j, record);
    if (was_open) { // else the completion, if one is still there, is done with the sender's memory
        await_completions(i, j, record);
    }
    const MutexGuard guard(mtx[i][j]);
    record->has_sender = 0;
    retire_locked(record);
    return was_open;
}

bool queue_is_retired(int i, int j, const RawMsgQueueNode *record) {
    if (!queue_is_valid(i, j)) {
        return false;
    }
    const MutexGuard guard(mtx[i][j]);
    return record->is_retired != 0;
}

void queue_time_out_all(int i, int j, uint32_t count, queue_callback callback) {
    if (!queue_is_valid(i, j)) {
        return;
    }
    time_out(i, j, hold_due(i, j, is_in_the_queue), callback,
             [count](uint32_t /*so_far*/) { return count; });
}

void queue_age(int i, int j, int32_t ticks) {
    const MutexGuard guard(mtx[i][j]);
    for (RawMsgQueueNode *record = Qlist[i][j].head; record != nullptr; record = record->next) {
        timer_age(record->timer, ticks);
    }
}
