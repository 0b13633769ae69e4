// What a reply or a time-out does to the request that it belongs to.
#include "raw_msg/raw_msg.h"

#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"
#include "eth_raw/link_counts.h"
#include "log/write.h"
#include "queue/record_holders.h"
#include "raw_msg/request_rules.h"

#include <atomic>
#include <cstring>

namespace {

constexpr uint32_t kCarriedOut = 0;

std::atomic<ReadDump> g_read_dump{nullptr};

// A refusal is an answer with a status; 255 in an answer is indistinguishable from none.
bool is_refusal(const RawMsgQueueNode *record) {
    return record->ack != kCarriedOut && record->ack != kNoReply;
}

int interface_of(const RawMsgQueueNode *record) {
    return static_cast<int>(record->index);
}

void count_outcome(const RawMsgQueueNode *record, bool is_reply) {
    if (!is_reply) {
        count(interface_of(record), Count::kTimeouts);
    } else if (is_refusal(record)) {
        count(interface_of(record), Count::kRefusals);
    }
}

void count_end_without_answer(const RawMsgQueueNode *record) {
    count(interface_of(record), Count::kUnanswered);
}

// A failed resend is a lost frame: the timer runs.
void send_again(RawMsgQueueNode *record, int queue) {
    record->ack = kNoReply;
    if (RawSockMsgSendAgain(interface_of(record), record->buf, record->send_len) > 0) {
        count(interface_of(record), Count::kResends);
    }
    queue_timer_start(interface_of(record), queue, record, kResendTicks);
}

// The end of a non-waiting request. The frame buffer goes with the record, because the sender may
// still be on its way out of the send.
void finish(RawMsgQueueNode *record, int queue) {
    queue_timer_stop(interface_of(record), queue, record);
    record->count = 0;
    if (record->owned_block == nullptr && record->buf != nullptr) {
        record->owned_block = RawMsgBuffHeadGet(record->buf);
    }
    if (queue_retire(interface_of(record), queue, record)) {
        post_test();
    }
}

// The end of a waiting request. Marked done first: from the post on, the data belong to the sender.
void wake_sender(RawMsgQueueNode *record, int queue) {
    queue_mark_done(interface_of(record), queue, record);
    (void)sem_post(&record->sem); // overflow is impossible, a request is posted once
}

void stop_and_wake(RawMsgQueueNode *record, int queue) {
    queue_timer_stop(interface_of(record), queue, record);
    wake_sender(record, queue);
}

// A longer reply is no answer to any read: nothing of it is copied or shown.
bool fits_read_buffer(const RawMsgQueueNode *record) {
    return record->recv_len <= kMaxPayload;
}

void copy_read_data(RawMsgQueueNode *record, const void *data) {
    if (fits_read_buffer(record) && record->read_buf != nullptr) {
        memcpy(record->read_buf, data, record->recv_len);
    }
}

void show_read_data(const RawMsgQueueNode *record) {
    const ReadDump dump = g_read_dump.load(std::memory_order_relaxed);
    if (dump != nullptr && fits_read_buffer(record)) {
        dump(record->read_buf, record->addr, record->recv_len);
    }
}

} // namespace

void set_read_dump(ReadDump dump) {
    g_read_dump.store(dump, std::memory_order_relaxed);
}

void AckCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t /*length*/) {
    const bool is_reply = data != nullptr;
    count_outcome(record, is_reply);
    if (is_reply && record->ack == kCarriedOut) {
        finish(record, ACK_QUEUE);
    } else if (is_reply && is_refusal(record)) {
        LOG("wrong ack (0x%x), send msg again (%d)!\n", record->ack,
            static_cast<int>(record->count));
        send_again(record, ACK_QUEUE);
    } else if (!is_reply && record->count >= kLastCountUnwaited) {
        LOG("wrong ack (0x%x), send msg count (%d), not send again!\n", record->ack,
            static_cast<int>(record->count));
        count_end_without_answer(record);
        finish(record, ACK_QUEUE);
    } else if (!is_reply) {
        LOG("no ack msg (0x%x), send msg again (%d)!\n", record->ack,
            static_cast<int>(record->count));
        send_again(record, ACK_QUEUE);
    }
}

void ReadCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t /*length*/) {
    const bool is_reply = data != nullptr;
    count_outcome(record, is_reply);
    if (is_reply && record->ack == kCarriedOut && record->recv_len != 0) {
        copy_read_data(record, data);
        show_read_data(record);
        finish(record, READ_QUEUE);
    } else if (is_reply && is_refusal(record)) {
        LOG("wrong ack (0x%x), send msg again (%d)!\n", record->ack,
            static_cast<int>(record->count));
        send_again(record, READ_QUEUE);
    } else if (!is_reply && record->count >= kLastCountUnwaited) {
        count_end_without_answer(record);
        finish(record, READ_QUEUE);
    } else if (!is_reply) {
        LOG("no ack msg (0x%x), send msg again (%d)!\n", record->ack,
            static_cast<int>(record->count));
        send_again(record, READ_QUEUE);
    }
}

void AckWaitCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t /*length*/) {
    const bool is_reply = data != nullptr;
    count_outcome(record, is_reply);
    if (is_reply && record->ack == kCarriedOut) {
        stop_and_wake(record, ACK_WAIT_QUEUE);
    } else if (is_reply && is_refusal(record)) {
        LOG("wrong ack (0x%x)!\n", record->ack);
        stop_and_wake(record, ACK_WAIT_QUEUE);
    } else if (!is_reply && record->count >= kLastCountWaited) {
        LOG("no ack msg (0x%x) write error!\n", record->ack);
        count_end_without_answer(record);
        stop_and_wake(record, ACK_WAIT_QUEUE);
    }
}

void ReadWaitCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t /*length*/) {
    const bool is_reply = data != nullptr;
    count_outcome(record, is_reply);
    if (record->ack == kCarriedOut && is_reply && record->recv_len != 0) {
        copy_read_data(record, data);
        stop_and_wake(record, READ_WAIT_QUEUE);
    } else if (record->ack == kCarriedOut) {
        LOG("wrong msg and  recv_len, Read error!\n");
        wake_sender(record, READ_WAIT_QUEUE);
    } else if (is_reply && is_refusal(record)) {
        LOG("wrong ack (0x%x)!\n", record->ack);
        record->recv_len = 0; // whatever came with a refusal is no read data
        stop_and_wake(record, READ_WAIT_QUEUE);
    } else if (!is_reply && record->count >= kLastCountWaited) {
        record->recv_len = 0;
        LOG("no resp msg (0x%x) read error no msg!\n", record->ack);
        count_end_without_answer(record);
        stop_and_wake(record, READ_WAIT_QUEUE);
    }
}
