#include "main/commands/command.h"

#include "base/locks.h"
#include "eth_raw/eth_raw.h"
#include "log/write.h"
#include "main/commands/throughput_reads.h"
#include "main/main.h"
#include "main/one_frame.h"
#include "raw_msg/request_rules.h"

namespace {

// The read data's place. It stays out of the pool until the process ends: its release is the one of
// the min-buffer table, which keeps it.
uint8_t *g_read_buf = nullptr;

uint32_t read_without_waiting(const CommandLine &line, uint32_t len, uint8_t *buf) {
    uint32_t received = 0;
    (void)RawSockSendMsgWithRead(0, line.index, line.model, line.slot, line.addr, RAW_MSG_CODE_READ,
                                 len, buf, &received); // a failure shows as a missing dump
    return received;
}

uint32_t read_and_wait(const CommandLine &line, uint32_t len, uint8_t *buf) {
    uint32_t received = 0;
    (void)RawSockSendMsgWithReadWait(line.index, line.model, line.slot, line.addr,
                                     RAW_MSG_CODE_READ, len, buf, &received,
                                     kWaitTicks); // a failure is logged
    return received;
}

constexpr ReadForm kWithoutWaiting{.request = read_without_waiting, .is_pipelined = true};
constexpr ReadForm kAndWait{.request = read_and_wait, .is_pipelined = false};

Outcome read_once(const CommandLine &line, const ReadForm &form) {
    const bool has_len = line.argv.size() == kArgOwn + 1;
    const uint32_t len = has_len ? parse_decimal(line.argv[kArgOwn]) : 1;

    g_read_buf = RawMsgBuffGet(kCommandBuffer);
    if (g_read_buf == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        return Outcome::kAbandoned;
    }
    if (form.is_pipelined) {
        set_read_dump(process_recvbuf); // the reply shows its data when it completes the read
    }
    const uint32_t received = form.request(line, len, g_read_buf);
    if (!form.is_pipelined) {
        process_recvbuf(g_read_buf, line.addr, bytes_brought(received));
    }
    wait_full(sem_test);
    RawMsgMinBuffFree(g_read_buf);
    return Outcome::kDone;
}

Outcome run_read_command(const CommandLine &line, const ReadForm &form) {
    const auto tested = run_read_test(line, form);
    const Outcome outcome = tested ? *tested : read_once(line, form);
    if (outcome == Outcome::kDone) {
        LOG("read register end\n");
    }
    return outcome;
}

} // namespace

Outcome run_read(const CommandLine &line) {
    return run_read_command(line, kWithoutWaiting);
}

Outcome run_readw(const CommandLine &line) {
    return run_read_command(line, kAndWait);
}
