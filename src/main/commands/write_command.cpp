#include "main/commands/command.h"

#include "base/locks.h"
#include "log/write.h"
#include "main/commands/source.h"
#include "main/commands/throughput_writes.h"
#include "main/commands/usage.h"
#include "main/one_frame.h"
#include "raw_msg/raw_msg.h"

#include <cstring>

namespace {

uint32_t length_of(std::span<const uint8_t> data) {
    return static_cast<uint32_t>(data.size());
}

void send_plain(const CommandLine &line, std::span<const uint8_t> data) {
    (void)RawSockSendMsg(line.index, line.model, line.slot, line.addr, RAW_MSG_CODE_WRITE,
                         data.data(), length_of(data)); // a failure is logged
}

// Not every failure is logged below: a request without memory for its record ends in silence.
void send_with_ack(const CommandLine &line, std::span<const uint8_t> data) {
    if (RawSockSendMsgWithAck(0, line.index, line.model, line.slot, line.addr,
                              RAW_MSG_CODE_WRITE_ACK, data.data(), length_of(data)) != 0) {
        LOG("main: write with acknowledgement: fail, not all of it was sent\n");
    }
}

void send_with_ack_and_wait(const CommandLine &line, std::span<const uint8_t> data) {
    uint8_t status = 0;
    (void)RawSockSendMsgWithAckWait(line.index, line.model, line.slot, line.addr,
                                    RAW_MSG_CODE_WRITE_ACK, data.data(), length_of(data), &status,
                                    kWaitTicks); // a failure is logged
}

constexpr WriteForm kPlain{.send = send_plain, .posts = false, .is_pipelined = false};
constexpr WriteForm kWithAck{.send = send_with_ack, .posts = true, .is_pipelined = true};
constexpr WriteForm kWithAckAndWait{
    .send = send_with_ack_and_wait, .posts = true, .is_pipelined = false};

// Every frame posts when it ends. Whoever took the first post for the end of all would end the tool
// while later frames of a file still wait for their acknowledgement; a lost frame would not be sent
// again.
void await_all_ends(int index) {
    do {
        wait_full(sem_test);
    } while (queue_get(index, ACK_QUEUE) != nullptr);
}

void write_source(const CommandLine &line, const WriteForm &form, const Source &source) {
    form.send(line, {source.data(), source.len});
    if (!form.is_pipelined && form.posts) {
        wait_full(sem_test);
    } else if (form.is_pipelined && source.len > 0) { // of nothing, nothing will end
        await_all_ends(line.index);
    }
}

bool take_source(const CommandLine &line, Source &source) {
    constexpr char kValuePrefix[] = "0x";
    const bool has_values = strncmp(line.argv[kArgOwn], kValuePrefix, strlen(kValuePrefix)) == 0;
    return has_values ? source_from_values(line, source) : source_from_file(line, source);
}

Outcome write_once(const CommandLine &line, const WriteForm &form) {
    Source source;
    if (!take_source(line, source)) {
        return Outcome::kAbandoned;
    }
    write_source(line, form, source);
    return Outcome::kDone;
}

Outcome run_write_command(const CommandLine &line, const WriteForm &form) {
    if (line.argv.size() <= kArgOwn) {
        usage();
        return Outcome::kAbandoned;
    }
    const auto tested = run_write_test(line, form);
    const Outcome outcome = tested ? *tested : write_once(line, form);
    if (outcome == Outcome::kDone) {
        LOG("write register end\n");
    }
    return outcome;
}

} // namespace

Outcome run_write(const CommandLine &line) {
    return run_write_command(line, kPlain);
}

Outcome run_writea(const CommandLine &line) {
    return run_write_command(line, kWithAck);
}

Outcome run_writeaw(const CommandLine &line) {
    return run_write_command(line, kWithAckAndWait);
}
