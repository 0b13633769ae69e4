// A register read and a register write in one call each, for hosts.
#include "main/main.h"

#include "eth_raw/eth_raw.h"
#include "log/write.h"
#include "main/one_frame.h"
#include "raw_msg/raw_msg.h"

void read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint32_t len) {
    LOG("read reg 0x%x\n", addr);
    uint8_t *buffer = RawMsgBuffGet(kCommandBuffer);
    if (buffer == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        return;
    }
    uint32_t received = 0;
    (void)RawSockSendMsgWithReadWait(index, model, slot, addr, RAW_MSG_CODE_READ, len, buffer,
                                     &received, kWaitTicks); // a failure is logged
    process_recvbuf(buffer, addr, bytes_brought(received));
    RawMsgMinBuffFree(buffer); // does nothing: the block stays out of the pool
}

void write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr) {
    constexpr uint32_t kWritten = 1; // byte, 0 in a fresh buffer
    uint8_t *buffer = RawMsgBuffGet(kCommandBuffer);
    if (buffer == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        return;
    }
    uint8_t status = 0;
    (void)RawSockSendMsgWithAckWait(index, model, slot, addr, RAW_MSG_CODE_WRITE_ACK, buffer,
                                    kWritten, &status, kWaitTicks); // a failure is logged
    RawMsgBuffFree(buffer);
}
