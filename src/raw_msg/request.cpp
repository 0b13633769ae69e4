#include "raw_msg/request.h"

#include "eth_raw/eth_raw.h"
#include "eth_raw/link_counts.h"
#include "log/write.h"
#include "mem/locks.h"
#include "mem/mem.h"
#include "queue/queue_priv.h"
#include "timer/sleep.h"

#include <algorithm>
#include <new>

namespace {

using namespace std::chrono_literals;

constexpr auto kFullQueuePause = 1000us;
constexpr auto kRoomPause = 10000us;

// Requests end by answer or time-out, so a full queue gets room again.
void add_when_there_is_room(int index, int queue, RawMsgQueueNode *record) {
    while (queue_add(index, queue, record) != 0) {
        sleep_full(kRoomPause);
    }
}

// A full queue means that far more requests went out than a link can answer: the old ones are
// dropped to let the new one through.
int add_or_make_room(const RequestKind &kind, int index, RawMsgQueueNode *record) {
    if (queue_add(index, kind.queue, record) == 0) {
        return 0;
    }
    LOG("%s : queue_add %s fail\n", kind.operation, kind.queue_name);
    sleep_full(kFullQueuePause);
    if (queue_add(index, kind.queue, record) == 0) {
        return 0;
    }
    LOG("queue_add fail again after 1ms, empty queue and send again\n");
    count(index, Count::kOverflows);
    queue_drain(index, kind.queue, record, post_test);
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
    record->has_sender = 1;
    record->is_waited_for = kind.is_waiting ? 1 : 0;
    (void)sem_init(&record->sem, 0, 0); // cannot fail with this value
    return record;
}

int enqueue(const RequestKind &kind, int index, RawMsgQueueNode *record) {
    if (!queue_is_valid(index, kind.queue)) {
        return 0; // no such interface: the send finds that out
    }
    if (kind.waits_for_room) {
        add_when_there_is_room(index, kind.queue, record);
        return 0;
    }
    if (add_or_make_room(kind, index, record) == 0) {
        return 0;
    }
    queue_withdraw(index, kind.queue, record);
    post_test();
    return -1;
}

int give_up_unsent(const RequestKind &kind, int index, RawMsgQueueNode *record, int result) {
    LOG("%s : send fail\n", kind.operation);
    queue_withdraw(index, kind.queue, record);
    post_test();
    return result;
}

uint16_t timer_ticks(int32_t ticks) {
    return static_cast<uint16_t>(std::clamp(ticks, int32_t{1}, int32_t{UINT16_MAX}));
}
