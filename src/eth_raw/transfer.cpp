#include "eth_raw/eth_raw.h"

#include "base/locks.h"
#include "eth_raw/frame_layout.h"
#include "eth_raw/link_counts.h"
#include "eth_raw/link_state.h"
#include "eth_raw/received_frame.h"
#include "log/write.h"
#include "timer/sleep.h"

#include <cerrno>
#include <cstdio>
#include <sys/socket.h>

uint8_t gRecvBuffer[1450];

namespace {

using namespace std::chrono_literals;

constexpr auto kSendAgainPause = 1000us;

// Only frames that are no intact reply are looked at a second time.
void count_received(int index, const uint8_t *frame, size_t size, bool is_intact_reply) {
    count(index, Count::kFramesReceived);
    count(index, Count::kBytesReceived, size);
    if (is_intact_reply) {
        count(index, Count::kReplies);
    } else {
        count(index, is_from_card({frame, size}) ? Count::kChecksumErrors : Count::kForeignFrames);
    }
}

// A signal that ends the wait is no failure of the link.
void count_failed_receive(int index) {
    if (errno != EINTR) {
        count(index, Count::kReceiveErrors);
    }
}

ssize_t send_frame(int index, const eth_init &link, const uint8_t *frame, uint32_t frame_len) {
    const ssize_t sent = sendto(link.sock_fd, frame, frame_len, 0,
                                reinterpret_cast<const sockaddr *>(&link.addr), sizeof link.addr);
    if (sent == static_cast<ssize_t>(frame_len)) {
        count(index, Count::kFramesSent);
        count(index, Count::kBytesSent, frame_len);
    }
    return sent;
}

// errno alone decides whether the frame goes out once more, not the result of the first send.
ssize_t send_locked(int index, eth_init &link, const uint8_t *frame, uint32_t frame_len) {
    const CancelOff whole_frame; // sendto and the pause must not leave a locked lock behind
    const MutexGuard guard(link.send_lock);
    if (!link_is_up(index)) {
        errno = EBADF;
        return -1;
    }
    print_msg(frame, static_cast<int>(frame_len));
    ssize_t sent = send_frame(index, link, frame, frame_len);
    if (errno == EAGAIN) {
        LOG("need send again\n");
        sleep_full(kSendAgainPause);
        sent = send_frame(index, link, frame, frame_len);
    }
    return sent;
}

int transmit(int index, const uint8_t *frame, uint32_t frame_len) {
    eth_init *link = link_record(index);
    ssize_t sent = -1;
    if (link == nullptr) {
        errno = ENODEV;
    } else {
        sent = send_locked(index, *link, frame, frame_len);
    }
    if (sent == static_cast<ssize_t>(frame_len)) {
        return static_cast<int>(frame_len);
    }
    count(index, Count::kSendErrors);
    perror("sendto fail:");
    return -1;
}

// Not to be cancelled in the middle of it: what is printed about a frame is printed whole.
Received take_frame(int index, const uint8_t *frame, ssize_t size, RawMsgHeader &header,
                    uint8_t *&payload) {
    const CancelOff whole_frame;
    dump_frame("recv", frame, static_cast<int>(size));
    if (size < 0) {
        count_failed_receive(index);
        return Received::kNothing;
    }
    payload =
        RawMsgHeaderUnpack(frame, static_cast<uint32_t>(size), &header.ack, &header.model,
                           &header.slot, &header.code, &header.addr, &header.seq, &header.len);
    count_received(index, frame, static_cast<size_t>(size), payload != nullptr);
    return payload != nullptr ? Received::kReply : Received::kRefused;
}

} // namespace

int RawSockMsgSend(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                   uint16_t seq, uint8_t *buf, uint32_t len) {
    if (index >= MAX_ETH || buf == nullptr || len == 0 || len > kMaxPayload) {
        return -1;
    }
    const uint32_t frame_len =
        RawMsgHeaderPack(model, slot, code, addr, seq, &buf, static_cast<uint16_t>(len));
    return transmit(index, buf, frame_len);
}

int RawSockMsgSendAgain(int index, uint8_t *buf, uint32_t frame_len) {
    if (index >= MAX_ETH || buf == nullptr || frame_len > request_frame_len(kMaxPayload)) {
        return -1;
    }
    return transmit(index, RawMsgBuffHeadGet(buf), frame_len);
}

// Threads are cancelled while it receives. The address sanitizer would not notice the end of a
// variable that it watches, so there is none here.
Received raw_sock_recv(int index, ReceiveBuffer &buffer, RawMsgHeader &header, uint8_t *&payload) {
    const int sock_fd = link_receiving_socket(index);
    if (sock_fd < 0) {
        return Received::kNothing;
    }
    const ssize_t size = recvfrom(sock_fd, buffer, sizeof buffer, 0, nullptr, nullptr);
    return take_frame(index, buffer, size, header, payload);
}

uint8_t *RawSockMsgRecv(int index, uint8_t *ack, uint16_t *model, uint8_t *slot, uint32_t *addr,
                        uint8_t *code, uint16_t *seq, uint16_t *len) {
    RawMsgHeader header{.model = *model,
                        .slot = *slot,
                        .code = *code,
                        .addr = *addr,
                        .seq = *seq,
                        .len = *len,
                        .ack = *ack};
    uint8_t *payload = nullptr;
    const Received received = raw_sock_recv(index, gRecvBuffer, header, payload);
    *ack = header.ack;
    *model = header.model;
    *slot = header.slot;
    *addr = header.addr;
    *code = header.code;
    *seq = header.seq;
    *len = header.len;
    return received == Received::kReply ? payload : nullptr;
}
