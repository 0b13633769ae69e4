#include "main/command.h"

#include "ap_msg/ap_msg.h"
#include "log/write.h"

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

// In single precision, which has always been what the log shows. Microseconds are counted in 32
// bits: an update that takes more than 35 minutes shows a time that has wrapped.
float seconds_since(Clock::time_point start) {
    constexpr float kMicrosecondsPerSecond = 1e6F;
    const auto took =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(took))) /
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
    const auto start = Clock::now();
    (void)update_firmware(line.slot, line.model, file); // it has said how it went
    LOG("update slot:%d type:0x%x file:%s cost: %fs \n", line.slot, line.model, file,
        static_cast<double>(seconds_since(start)));
    return Outcome::kDone;
}
