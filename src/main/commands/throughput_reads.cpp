#include "main/commands/throughput_reads.h"

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

using namespace std::chrono_literals;

struct ReadTest {
    const char *word;
    const char *begin;
    uint32_t len;
    const Measurement &measurement;
    uint32_t bytes_per_packet;
    std::chrono::microseconds pipelined_sleep; // at the end
    std::chrono::microseconds waiting_sleep;
};
// The long one counts small packets, although each of its answers is a full one: so did all results
// before.
constexpr ReadTest kReadTests[] = {
    {"test5", "test5 begin\n", 1, kTwoSeconds, kSmallPacket, kLongClosingSleep, kLongClosingSleep},
    {"test7", "test7 begin\n", kCommandBuffer, kTwelveHours, kSmallPacket, kShortClosingSleep, 0us},
};

// All answers go into one buffer. A late one finds it after its release, too: the block stays in
// the pool, nobody takes one any more, and the pool outlives the receive thread.
Outcome read_load(const ReadTest &test, const CommandLine &line, const ReadForm &form) {
    LOG("%s", test.begin);
    // A full frame also for one byte: an answer may carry more than was asked for.
    const FrameBuffer buf(RawMsgBuffGet(kCommandBuffer));
    if (buf == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        return Outcome::kAbandoned;
    }
    const Throughput result =
        measure(test.measurement, [&] { (void)form.request(line, test.len, buf.get()); });
    test.measurement.log_result("read", result, test.bytes_per_packet);
    sleep_full(form.is_pipelined ? test.pipelined_sleep : test.waiting_sleep);
    wait_full(sem_test);
    return Outcome::kDone;
}

} // namespace

std::optional<Outcome> run_read_test(const CommandLine &line, const ReadForm &form) {
    if (line.argv.size() != kArgOwn + 1) {
        return std::nullopt;
    }
    for (const ReadTest &test : kReadTests) {
        if (strcmp(line.argv[kArgOwn], test.word) == 0) {
            return read_load(test, line, form);
        }
    }
    return std::nullopt;
}
