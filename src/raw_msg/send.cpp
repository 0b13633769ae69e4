#include "raw_msg/raw_msg.h"

#include "base/locks.h"
#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"
#include "eth_raw/link_counts.h"
#include "log/write.h"
#include "queue/record_holders.h"
#include "raw_msg/request.h"
#include "raw_msg/request_rules.h"
#include "raw_msg/watch.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr RequestKind kAck{.operation = "RawSockSendOneMsgWithAck",
                           .queue_name = nullptr,
                           .queue = ACK_QUEUE,
                           .is_waiting = false,
                           .waits_for_room = true,
                           .posts_at_end = true,
                           .no_record_text = nullptr};
constexpr RequestKind kAckWait{.operation = "RawSockSendOneMsgWithAckWait",
                               .queue_name = "ACK_WAIT_QUEUE",
                               .queue = ACK_WAIT_QUEUE,
                               .is_waiting = true,
                               .waits_for_room = false,
                               .posts_at_end = false,
                               .no_record_text = nullptr};
constexpr RequestKind kRead{.operation = "RawSockSendMsgWithRead",
                            .queue_name = "READ_QUEUE",
                            .queue = READ_QUEUE,
                            .is_waiting = false,
                            .waits_for_room = false,
                            .posts_at_end = true,
                            .no_record_text = nullptr};
constexpr RequestKind kReadWait{.operation = "RawSockSendMsgWithReadWait",
                                .queue_name = "READ_WAIT_QUEUE",
                                .queue = READ_WAIT_QUEUE,
                                .is_waiting = true,
                                .waits_for_room = false,
                                .posts_at_end = true,
                                .no_record_text = "malloc node fail\n"};

// One counter per form: the answers are matched by addr and seq within the form's own queue.
Sequence write_ack_seq{PTHREAD_MUTEX_INITIALIZER, 0};
Sequence write_ack_wait_seq{PTHREAD_MUTEX_INITIALIZER, 0};
Sequence read_ack_seq{PTHREAD_MUTEX_INITIALIZER, 0};
Sequence read_wait_seq{PTHREAD_MUTEX_INITIALIZER, 0};

[[maybe_unused]] const bool g_renews_locks = renew_in_child([] {
    for (Sequence *sequence :
         {&write_ack_seq, &write_ack_wait_seq, &read_ack_seq, &read_wait_seq}) {
        sequence->lock = PTHREAD_MUTEX_INITIALIZER;
    }
});

constexpr uint16_t kPlainWriteSeq = 0; // nothing answers a plain write, so nothing needs a number

// Given back also by a thread that is cancelled while it reports a failure.
struct GiveBack {
    void operator()(uint8_t *buf) const {
        RawMsgBuffFree(buf);
    }
};
using FrameBuffer = std::unique_ptr<uint8_t, GiveBack>;

// The n-th frame of a transfer: 1400 bytes each, the rest last, no empty one behind a full one.
struct Piece {
    uint32_t offset;
    uint32_t len;
};

uint32_t piece_count(uint32_t len) {
    return len / kMaxPayload + (len % kMaxPayload > 0 ? 1 : 0);
}

Piece piece_at(uint32_t len, uint32_t k) {
    const uint32_t offset = k * kMaxPayload;
    return {.offset = offset, .len = std::min(kMaxPayload, len - offset)};
}

// The record is queued before its frame goes out, so that no answer can come too early.
// Where nobody looks for time-outs any more nothing goes out: its sender might wait for ever.
int send_request(const RequestKind &kind, RawMsgQueueNode *record, int index, uint16_t model,
                 uint8_t slot, uint8_t code, uint32_t len, const CancelOff &off) {
    if (enqueue(kind, index, record, off) != 0) {
        return -1;
    }
    if (is_unwatched(index)) {
        count(index, Count::kSendErrors);
        return give_up_unsent(kind, index, record, -1);
    }
    const int sent =
        RawSockMsgSend(index, model, slot, record->addr, code, record->seq, record->buf, len);
    return sent > 0 ? 0 : give_up_unsent(kind, index, record, sent);
}

RawMsgQueueNode *new_write(const RequestKind &kind, int index, uint32_t addr, uint8_t code,
                           const uint8_t *data, uint32_t len) {
    RawMsgQueueNode *record = new_request(kind, index, addr, len);
    if (record == nullptr) {
        return nullptr;
    }
    if (len > 0) {
        memcpy(record->buf, data, len);
    }
    record->send_len = request_frame_len(padded_payload(code, len));
    return record;
}

RawMsgQueueNode *new_read(const RequestKind &kind, int index, uint32_t addr, uint8_t code,
                          uint32_t len, uint8_t *read_buf) {
    // 64 bytes for a read; a host that passes a write's code gets the room that its frame takes.
    const uint32_t payload = padded_payload(code, std::min(len, kMaxPayload));
    RawMsgQueueNode *record = new_request(kind, index, addr, payload);
    if (record == nullptr) {
        return nullptr;
    }
    record->read_buf = read_buf;
    // A waiting read is never sent again: its length for a resend has no meaning.
    record->send_len = kind.is_waiting ? kMinPayload : request_frame_len(payload);
    return record;
}

// Counts the end of an operation, also when its thread is cancelled.
class PostAtEnd {
public:
    PostAtEnd() = default;
    ~PostAtEnd() {
        post_test();
    }
    PostAtEnd(const PostAtEnd &) = delete;
    PostAtEnd &operator=(const PostAtEnd &) = delete;
};

// The answer may have ended the request before its frame has left this thread: the timer starts
// only if there is still something to wait for.
void start_and_let_go(const RequestKind &kind, int index, RawMsgQueueNode *record) {
    queue_timer_start(index, kind.queue, record, kResendTicks);
    queue_let_go(index, kind.queue, record);
}

} // namespace

int RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                   const uint8_t *data, uint32_t len) {
    for (uint32_t k = 0; k < piece_count(len); k++) {
        const Piece piece = piece_at(len, k);
        const FrameBuffer buf(RawMsgBuffGet(piece.len));
        if (buf == nullptr) {
            LOG("RawMsgBuffGet fail\n");
            return -1;
        }
        memcpy(buf.get(), data + piece.offset, piece.len);
        const int sent = RawSockMsgSend(index, model, slot, addr + piece.offset, code,
                                        kPlainWriteSeq, buf.get(), piece.len);
        if (sent < 1) {
            LOG("#######error %s : index:%d addr:0x%x length:%d send fail\n", "RawSockSendMsg",
                index, addr, static_cast<int>(len));
        }
    }
    return 0;
}

int RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                          uint32_t addr, uint8_t code, const uint8_t *data, uint32_t len) {
    for (uint32_t k = 0; k < piece_count(len); k++) {
        const Piece piece = piece_at(len, k);
        const int result =
            RawSockSendOneMsgWithAck(requester, index, model, slot, addr + piece.offset, code,
                                     data + piece.offset, piece.len);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

int RawSockSendOneMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                             uint32_t addr, uint8_t code, const uint8_t *data, uint32_t len) {
    const CancelOff off; // but for the waits: a request is begun and ended whole
    RawMsgQueueNode *record = new_write(kAck, index, addr, code, data, len);
    if (record == nullptr) {
        return -1;
    }
    record->seq = take_number(write_ack_seq);
    record->requester = requester;
    const int result = send_request(kAck, record, index, model, slot, code, len, off);
    if (result != 0) {
        return result;
    }
    start_and_let_go(kAck, index, record);
    return 0;
}

int RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                              const uint8_t *data, uint32_t len, uint8_t *ack, int32_t ticks) {
    const PostAtEnd post_at_end;
    int result = 0;
    for (uint32_t k = 0; k < piece_count(len); k++) {
        const Piece piece = piece_at(len, k);
        *ack = static_cast<uint8_t>(kNoReply);
        result = RawSockSendOneMsgWithAckWait(index, model, slot, addr + piece.offset, code,
                                              data + piece.offset, piece.len, ack, ticks);
        if (*ack != 0) {
            LOG("write ack wait error: ack wrong index:%d model:%d slot:%d addr:0x%x len:%d "
                "ack:0x%x\n",
                index, model, slot, addr + piece.offset, static_cast<int>(piece.len), *ack);
        }
    }
    return result;
}

int RawSockSendOneMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                 uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                 int32_t ticks) {
    const CancelOff off; // but for the waits: a request is begun and ended whole
    RawMsgQueueNode *record = new_write(kAckWait, index, addr, code, data, len);
    if (record == nullptr) {
        return -1;
    }
    record->seq = take_number(write_ack_wait_seq);
    const int result = send_request(kAckWait, record, index, model, slot, code, len, off);
    if (result != 0) {
        return result;
    }
    start_and_wait(kAckWait, index, record, ticks, off);
    *ack = static_cast<uint8_t>(record->ack);
    (void)queue_withdraw(index, kAckWait.queue, record);
    if (*ack == kNoReply) {
        LOG("ack failed, no ack\n");
        return -1;
    }
    return 0;
}

int RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot,
                           uint32_t addr, uint8_t code, uint32_t len, uint8_t *read_buf,
                           uint32_t * /*out_len*/) {
    const CancelOff off; // but for the waits: a request is begun and ended whole
    RawMsgQueueNode *record = new_read(kRead, index, addr, code, len, read_buf);
    if (record == nullptr) {
        return -1;
    }
    record->seq = take_number(read_ack_seq);
    record->requester = requester;
    const int result = send_request(kRead, record, index, model, slot, code, len, off);
    if (result != 0) {
        return result;
    }
    start_and_let_go(kRead, index, record);
    return 0;
}

int RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                               uint32_t len, uint8_t *read_buf, uint32_t *out_len, int32_t ticks) {
    const CancelOff off; // but for the waits: a request is begun and ended whole
    RawMsgQueueNode *record = new_read(kReadWait, index, addr, code, len, read_buf);
    if (record == nullptr) {
        return -1;
    }
    record->seq = take_number(read_wait_seq);
    const int result = send_request(kReadWait, record, index, model, slot, code, len, off);
    if (result != 0) {
        return result;
    }
    start_and_wait(kReadWait, index, record, ticks, off);
    *out_len = record->recv_len;
    (void)queue_withdraw(index, kReadWait.queue, record);
    if (*out_len == 0 || *out_len > kMaxPayload) {
        LOG("#######error read index:%d slot:%d model:%d addr:0x%x length:%d failed:*length=%d, "
            "timeout or ack error\n",
            index, slot, model, addr, static_cast<int>(len), static_cast<int>(*out_len));
        post_test();
        return -1;
    }
    post_test();
    return 0;
}
