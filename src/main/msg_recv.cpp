#include "main/main.h"

#include "eth_raw/received_frame.h"
#include "timer/sleep.h"

void (*read_buffer)(const uint8_t *data, uint32_t addr, uint32_t length) = nullptr;

int msg_recv(void) {
    for (;;) {
        RawMsgHeader header{};
        uint8_t *payload = nullptr;
        const Received received = raw_sock_recv(0, gRecvBuffer, header, payload);
        if (received == Received::kReply && read_buffer != nullptr) {
            read_buffer(payload, header.addr, header.len);
            return 0;
        }
        if (received == Received::kNothing) {
            sleep_full(kDeadLinkPause);
        }
    }
}
