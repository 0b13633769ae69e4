#include "main/commands/throughput_writes.h"

#include "base/locks.h"
#include "eth_raw/eth_raw.h"
#include "log/write.h"
#include "main/commands/source.h"
#include "main/commands/throughput.h"
#include "main/one_frame.h"
#include "raw_msg/raw_msg.h"
#include "timer/sleep.h"

#include <cstring>

namespace {

constexpr uint32_t kMoreAddresses = 5; // between ADDR and the test word
constexpr size_t kArgBehindAddresses = kArgOwn + kMoreAddresses;
constexpr uint8_t kForcedSlot = 1;

// Byte i holds the low 8 bits of i: what is shifted or cut shows.
void fill_pattern(std::span<uint8_t> data) {
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<uint8_t>(i);
    }
}

FrameBuffer take_full_frame() {
    FrameBuffer buf(RawMsgBuffGet(kCommandBuffer));
    if (buf == nullptr) {
        LOG("RawMsgBuffGet fail\n");
    }
    return buf;
}

void send_pattern(const CommandLine &line, const WriteForm &form, uint8_t *buf) {
    const std::span<uint8_t> data(buf, kCommandBuffer);
    announce_write(line, data.size());
    LOG("\n");
    fill_pattern(data);
    form.send(line, data);
}

Outcome send_once(const CommandLine &line, const WriteForm &form) {
    const FrameBuffer buf = take_full_frame();
    if (buf == nullptr) {
        return Outcome::kAbandoned;
    }
    send_pattern(line, form, buf.get());
    if (form.posts) {
        wait_full(sem_test);
    }
    return Outcome::kDone;
}

Outcome send_to_six_addresses(const CommandLine &line, const WriteForm &form) {
    const FrameBuffer buf = take_full_frame();
    if (buf == nullptr) {
        return Outcome::kAbandoned;
    }
    CommandLine to = line;
    send_pattern(to, form, buf.get());
    for (const char *address : line.argv.subspan(kArgOwn, kMoreAddresses)) {
        to.addr = parse_hex(address);
        send_pattern(to, form, buf.get());
    }
    if (form.is_pipelined) {
        sleep_full(kLongClosingSleep);
    }
    return Outcome::kDone;
}

Outcome send_to_six_addresses_of_slot_1(const CommandLine &line, const WriteForm &form) {
    CommandLine to = line;
    to.slot = kForcedSlot;
    return send_to_six_addresses(to, form);
}

// A load that lasts.
struct WriteLoad {
    const char *begin;
    uint32_t len;
    const Measurement &measurement;
    uint32_t bytes_per_packet;
};
constexpr WriteLoad kSmallWrites{"test4 begin\n", 1, kTwoSeconds, kSmallPacket};
constexpr WriteLoad kFullWrites{"test6 begin\n", kCommandBuffer, kTwelveHours, kFullPacket};

Outcome send_load(const WriteLoad &load, const CommandLine &line, const WriteForm &form) {
    LOG("%s", load.begin);
    const FrameBuffer buf(RawMsgBuffGet(load.len));
    if (buf == nullptr) {
        return Outcome::kAbandoned;
    }
    const std::span<uint8_t> data(buf.get(), load.len);
    fill_pattern(data);
    const Throughput result = measure(load.measurement, [&] { form.send(line, data); });
    load.measurement.log_result("write", result, load.bytes_per_packet);
    if (form.is_pipelined) {
        sleep_full(kLongClosingSleep);
    }
    if (form.posts) {
        wait_full(sem_test);
    }
    return Outcome::kDone;
}

Outcome send_small_writes(const CommandLine &line, const WriteForm &form) {
    return send_load(kSmallWrites, line, form);
}

Outcome send_full_writes(const CommandLine &line, const WriteForm &form) {
    return send_load(kFullWrites, line, form);
}

// The first row that fits is run.
struct WriteTest {
    const char *word;
    size_t position; // on the command line
    Outcome (*run)(const CommandLine &line, const WriteForm &form);
};
constexpr WriteTest kWriteTests[] = {
    {"test1", kArgOwn, send_once},
    {"test2", kArgBehindAddresses, send_to_six_addresses},
    {"test3", kArgBehindAddresses, send_to_six_addresses_of_slot_1},
    {"test4", kArgOwn, send_small_writes},
    {"test6", kArgOwn, send_full_writes},
};

} // namespace

std::optional<Outcome> run_write_test(const CommandLine &line, const WriteForm &form) {
    for (const WriteTest &test : kWriteTests) {
        if (line.argv.size() > test.position && strcmp(line.argv[test.position], test.word) == 0) {
            return test.run(line, form);
        }
    }
    return std::nullopt;
}
