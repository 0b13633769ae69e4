#include "raw_msg/request.h"

#include "base/locks.h"
#include "eth_raw/eth_raw.h"
#include "eth_raw/link_counts.h"
#include "log/write.h"
#include "mem/mem.h"
#include "queue/record_holders.h"
#include "timer/sleep.h"

#include <algorithm>
#include <new>

namespace {

using namespace std::chrono_literals;

constexpr auto kFullQueuePause = 1000us;
constexpr auto kRoomPause = 10000us;

// Takes a request back when its sender is cancelled in a wait: no late answer is written into the
// memory that the sender leaves behind.
class TakenBackOnCancel {
public:
    TakenBackOnCancel(const RequestKind &kind, int index, RawMsgQueueNode *record)
        : kind_(kind), index_(index), record_(record) {
    }
    ~TakenBackOnCancel() {
        if (record_ != nullptr && queue_withdraw(index_, kind_.queue, record_) &&
            kind_.posts_at_end) {
            post_test();
        }
    }
    void was_not_cancelled() {
        record_ = nullptr;
    }
    TakenBackOnCancel(const TakenBackOnCancel &) = delete;
    TakenBackOnCancel &operator=(const TakenBackOnCancel &) = delete;

private:
    const RequestKind &kind_;
    int index_;
    RawMsgQueueNode *record_;
};

// Requests end by answer or time-out, so a full queue gets room again. Whoever has taken the record
// out of the queue meanwhile does not want it there.
int add_when_there_is_room(int index, int queue, RawMsgQueueNode *record, const CancelOff &off) {
    while (queue_add(index, queue, record) != 0) {
        if (queue_is_retired(index, queue, record)) {
            return -1;
        }
        const CancelAsBefore cancel_point(off);
        sleep_full(kRoomPause);
    }
    return 0;
}

// A full queue means that far more requests went out than a link can answer: the old ones are
// dropped to let the new one through.
int add_or_make_room(const RequestKind &kind, int index, RawMsgQueueNode *record,
                     const CancelOff &off) {
    if (queue_add(index, kind.queue, record) == 0) {
        return 0;
    }
    LOG("%s : queue_add %s fail\n", kind.operation, kind.queue_name);
    {
        const CancelAsBefore cancel_point(off);
        sleep_full(kFullQueuePause);
    }
    if (queue_add(index, kind.queue, record) == 0) {
        return 0;
    }
    LOG("queue_add fail again after 1ms, empty queue and send again\n");
    count(index, Count::kOverflows);
    (void)queue_empty(index, kind.queue); // the index is valid
    if (queue_add(index, kind.queue, record) == 0) {
        return 0;
    }
    LOG("assert queue_add fail again after empty queue\n");
    return -1;
}

} // namespace

uint16_t take_number(Sequence &sequence) {
    const MutexGuard guard(sequence.lock);
    return sequence.next++;
}

RawMsgQueueNode *new_request(const RequestKind &kind, int index, uint32_t addr, uint32_t payload) {
    uint8_t *buf = RawMsgBuffGet(payload);
    if (buf == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        post_test();
        return nullptr;
    }
    void *block = mem_alloc(sizeof(RawMsgQueueNode));
    if (block == nullptr) {
        RawMsgBuffFree(buf);
        if (kind.no_record_text != nullptr) {
            LOG("%s", kind.no_record_text);
        }
        post_test();
        return nullptr;
    }
    auto *record = new (block) RawMsgQueueNode{};
    record->buf = buf;
    record->index = static_cast<uint32_t>(index);
    record->addr = addr;
    record->ack = kNoReply;
    record->count = kind.is_waiting ? 0 : 1;
    record->owned_block = RawMsgBuffHeadGet(buf);
    record->when_dropped = post_test;
    record->has_sender = 1;
    record->is_enqueuing = 1;
    record->is_waited_for = kind.is_waiting ? 1 : 0;
    (void)sem_init(&record->sem, 0, 0); // cannot fail with this value
    return record;
}

int enqueue(const RequestKind &kind, int index, RawMsgQueueNode *record, const CancelOff &off) {
    if (!queue_is_valid(index, kind.queue)) {
        return 0; // no such interface: the send finds that out
    }
    TakenBackOnCancel on_cancel(kind, index, record);
    const int added = kind.waits_for_room ? add_when_there_is_room(index, kind.queue, record, off)
                                          : add_or_make_room(kind, index, record, off);
    on_cancel.was_not_cancelled();
    if (added == 0) {
        return 0;
    }
    (void)queue_withdraw(index, kind.queue, record); // it never was under way
    post_test();
    return -1;
}

void start_and_wait(const RequestKind &kind, int index, RawMsgQueueNode *record, int32_t ticks,
                    const CancelOff &off) {
    queue_timer_start(index, kind.queue, record, timer_ticks(ticks));
    TakenBackOnCancel on_cancel(kind, index, record);
    {
        const CancelAsBefore cancel_point(off);
        wait_full(record->sem);
    }
    on_cancel.was_not_cancelled();
}

int give_up_unsent(const RequestKind &kind, int index, RawMsgQueueNode *record, int result) {
    LOG("%s : send fail\n", kind.operation);
    const bool was_open = queue_withdraw(index, kind.queue, record);
    if (was_open || kind.is_waiting) { // else its end has been counted: the queue was emptied
        post_test();
    }
    return result;
}

uint16_t timer_ticks(int32_t ticks) {
    return static_cast<uint16_t>(std::clamp(ticks, int32_t{1}, int32_t{UINT16_MAX}));
}
