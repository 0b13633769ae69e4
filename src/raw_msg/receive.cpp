#include "raw_msg/raw_msg.h"

#include "base/locks.h"
#include "eth_raw/frame_layout.h"
#include "eth_raw/link_counts.h"
#include "eth_raw/received_frame.h"
#include "log/write.h"
#include "queue/record_holders.h"
#include "raw_msg/request_rules.h"
#include "raw_msg/threads.h"
#include "timer/sleep.h"

#include <span>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Taker {
    int queue;
    queue_callback complete;
};

// Each form numbers its requests apart from the others, so a reply may fit one of either form.
constexpr Taker kWriteTakers[] = {{ACK_QUEUE, AckCompleteMsg},
                                  {ACK_WAIT_QUEUE, AckWaitCompleteMsg}};
constexpr Taker kReadTakers[] = {{READ_QUEUE, ReadCompleteMsg},
                                 {READ_WAIT_QUEUE, ReadWaitCompleteMsg}};

std::span<const Taker> takers_of(uint8_t code) {
    switch (code) {
    case RAW_MSG_CODE_WRITE_ACK:
    case RAW_MSG_CODE_ACK:
        return kWriteTakers;
    case RAW_MSG_CODE_READ:
        return kReadTakers;
    default: // no request of ours has such an answer
        return {};
    }
}

void dispatch_reply(int index, const RawMsgHeader &header, uint8_t *payload) {
    const MutexGuard guard(find_check_lock(index));
    bool is_taken = false;
    for (const Taker &taker : takers_of(header.code)) {
        is_taken |= queue_offer(index, taker.queue, header.addr, header.ack, header.seq, header.len,
                                taker.complete, payload);
    }
    if (!is_taken) {
        count(index, Count::kUnmatchedReplies);
    }
}

} // namespace

void AckRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
               uint8_t *data) {
    (void)queue_find(index, ACK_QUEUE, addr, ack, seq, recv_len, AckCompleteMsg, data);
}

void AckWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                   uint8_t *data) {
    (void)queue_find(index, ACK_WAIT_QUEUE, addr, ack, seq, recv_len, AckWaitCompleteMsg, data);
}

void ReadRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                uint8_t *data) {
    (void)queue_find(index, READ_QUEUE, addr, ack, seq, recv_len, ReadCompleteMsg, data);
}

void ReadWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                    uint8_t *data) {
    (void)queue_find(index, READ_WAIT_QUEUE, addr, ack, seq, recv_len, ReadWaitCompleteMsg, data);
}

void *RawMsgRecv(void *index_value) {
    const int index = static_cast<int>(reinterpret_cast<intptr_t>(index_value));
    const ThreadEnd announce_end;
    pin_to_processor(index, "RawMsgRecv");
    LOG("thread id : %d index = %d\n", static_cast<int>(syscall(SYS_gettid)), index);
    ReceiveBuffer frame; // its own: each interface may have such a thread
    for (;;) {
        RawMsgHeader header{};
        uint8_t *payload = nullptr;
        switch (raw_sock_recv(index, frame, header, payload)) {
        case Received::kReply: {
            const CancelOff whole_reply;
            dispatch_reply(index, header, payload);
            break;
        }
        case Received::kRefused:
            break;
        case Received::kNothing:
            sleep_full(kDeadLinkPause);
            break;
        }
    }
}
