#include "main/command.h"

#include "eth_raw/eth_raw.h"
#include "log/write.h"
#include "main/main.h"
#include "mem/locks.h"
#include "raw_msg/raw_msg_priv.h"

#include <algorithm>

namespace {

// The read data's place. It stays out of the pool until the process ends: its release is the one of
// the min-buffer table, which keeps it.
uint8_t *g_read_buf = nullptr;

using ReadOperation = void (*)(const CommandLine &line, uint32_t len, uint8_t *buf);

void read_without_waiting(const CommandLine &line, uint32_t len, uint8_t *buf) {
    uint32_t received = 0;
    set_read_dump(process_recvbuf); // the reply shows its data when it completes the read
    (void)RawSockSendMsgWithRead(0, line.index, line.model, line.slot, line.addr, RAW_MSG_CODE_READ,
                                 len, buf, &received); // a failure shows as a missing dump
}

void read_and_wait(const CommandLine &line, uint32_t len, uint8_t *buf) {
    uint32_t received = 0;
    (void)RawSockSendMsgWithReadWait(line.index, line.model, line.slot, line.addr,
                                     RAW_MSG_CODE_READ, len, buf, &received,
                                     kWaitTicks); // a failure is logged
    process_recvbuf(buf, line.addr, std::min(received, kCommandBuffer));
}

Outcome run_read_command(const CommandLine &line, ReadOperation operation) {
    const bool has_len = line.argv.size() == kArgOwn + 1;
    const uint32_t len = has_len ? parse_decimal(line.argv[kArgOwn]) : 1;

    g_read_buf = RawMsgBuffGet(kCommandBuffer);
    if (g_read_buf == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        return Outcome::kAbandoned;
    }
    operation(line, len, g_read_buf);
    wait_full(sem_test);
    RawMsgMinBuffFree(g_read_buf);
    LOG("read register end\n");
    return Outcome::kDone;
}

} // namespace

Outcome run_read(const CommandLine &line) {
    return run_read_command(line, read_without_waiting);
}

Outcome run_readw(const CommandLine &line) {
    return run_read_command(line, read_and_wait);
}
