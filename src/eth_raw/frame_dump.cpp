#include "eth_raw/eth_raw.h"

#include "base/errno_keeper.h"
#include "base/hex_dump.h"
#include "base/relaxed.h"
#include "base/stdout_guard.h"
#include "eth_raw/received_frame.h"

#include <algorithm>
#include <cstdio>

int print_flag = 0;

namespace {

constexpr size_t kBytesPerLine = 16;

} // namespace

void print_msg(const uint8_t *buf, int n) {
    dump_frame(buf == gRecvBuffer ? "recv" : "send", buf, n);
}

void dump_frame(const char *word, const uint8_t *frame, int n) {
    if (load_relaxed(print_flag) == 0) {
        return;
    }
    const ErrnoKeeper keep_errno;
    const StdoutGuard whole_dump; // the other thread's would mix with it on the screen
    printf("%s: \n", word);
    print_hex({frame, static_cast<size_t>(std::max(n, 0))}, kBytesPerLine);
    printf("\n");
}
