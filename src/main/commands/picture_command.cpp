#include "main/commands/command.h"

#include "ap_msg/ap_msg.h"

// With any other number of words nothing runs, as for an unknown command.
Outcome run_writepic(const CommandLine &line) {
    constexpr size_t kArgWidth = kArgOwn;
    constexpr size_t kArgHeight = kArgOwn + 1;
    constexpr size_t kArgFile = kArgOwn + 2;
    if (line.argv.size() == kArgFile + 1) {
        (void)write_file_handle_test(line.index, line.slot, line.model, line.addr,
                                     static_cast<int>(parse_decimal(line.argv[kArgWidth])),
                                     static_cast<int>(parse_decimal(line.argv[kArgHeight])),
                                     line.argv[kArgFile]); // a failure is logged
    }
    return Outcome::kDone;
}
