#include "main/commands/command.h"

#include "ap_msg/ap_msg.h"
#include "base/clock.h"
#include "log/write.h"

namespace {

// In single precision, which has always been what the log shows. Microseconds are counted in 32
// bits: an update that takes more than 35 minutes shows a time that has wrapped.
float shown_seconds(const Stopwatch &watch) {
    constexpr float kMicrosecondsPerSecond = 1e6F;
    return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(watch.microseconds()))) /
           kMicrosecondsPerSecond;
}

} // namespace

// The place of the address is the file name's. With any other number of words nothing runs.
Outcome run_update(const CommandLine &line) {
    constexpr size_t kArgFile = kArgAddr;
    if (line.argv.size() != kArgFile + 1) {
        return Outcome::kDone;
    }
    const char *file = line.argv[kArgFile];
    const Stopwatch watch;
    (void)update_firmware(line.slot, line.model, file); // it has said how it went
    LOG("update slot:%d type:0x%x file:%s cost: %fs \n", line.slot, line.model, file,
        static_cast<double>(shown_seconds(watch)));
    return Outcome::kDone;
}
