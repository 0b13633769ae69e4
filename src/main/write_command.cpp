#include "main/command.h"

#include "log/write.h"
#include "main/source.h"
#include "main/usage.h"
#include "mem/locks.h"
#include "raw_msg/raw_msg.h"

#include <cstring>

namespace {

using WriteOperation = void (*)(const CommandLine &line, const Source &source);

void write_plain(const CommandLine &line, const Source &source) {
    (void)RawSockSendMsg(line.index, line.model, line.slot, line.addr, RAW_MSG_CODE_WRITE,
                         source.data(),
                         source.len); // a failure is logged
}

// Every frame posts when it ends. The first post alone would end the tool while later frames of a
// file are still waiting for their acknowledgement, and a lost one would never be sent again.
void write_with_ack(const CommandLine &line, const Source &source) {
    (void)RawSockSendMsgWithAck(0, line.index, line.model, line.slot, line.addr,
                                RAW_MSG_CODE_WRITE_ACK, source.data(),
                                source.len); // a failure is logged
    if (source.len == 0) {
        return; // nothing was sent, so nothing will end
    }
    do {
        wait_full(sem_test);
    } while (queue_get(line.index, ACK_QUEUE) != nullptr);
}

void write_with_ack_and_wait(const CommandLine &line, const Source &source) {
    uint8_t status = 0;
    (void)RawSockSendMsgWithAckWait(line.index, line.model, line.slot, line.addr,
                                    RAW_MSG_CODE_WRITE_ACK, source.data(), source.len, &status,
                                    kWaitTicks); // a failure is logged
    wait_full(sem_test);
}

Outcome run_write_command(const CommandLine &line, WriteOperation operation) {
    if (line.argv.size() <= kArgOwn) {
        usage();
        return Outcome::kAbandoned;
    }
    constexpr char kValuePrefix[] = "0x";
    const bool has_values = strncmp(line.argv[kArgOwn], kValuePrefix, strlen(kValuePrefix)) == 0;
    Source source;
    if (has_values ? !source_from_values(line, source) : !source_from_file(line, source)) {
        return Outcome::kAbandoned;
    }
    operation(line, source);
    LOG("write register end\n");
    return Outcome::kDone;
}

} // namespace

Outcome run_write(const CommandLine &line) {
    return run_write_command(line, write_plain);
}

Outcome run_writea(const CommandLine &line) {
    return run_write_command(line, write_with_ack);
}

Outcome run_writeaw(const CommandLine &line) {
    return run_write_command(line, write_with_ack_and_wait);
}
