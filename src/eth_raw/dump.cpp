#include "eth_raw/eth_raw.h"

#include "log/errno_keeper.h"
#include "log/relaxed.h"
#include "mem/locks.h"

#include <cstdio>

int print_flag = 0;

namespace {

constexpr int kBytesPerLine = 16;

// Dumps of the sending and the receiving thread must not mix on the screen.
class StdoutLock {
public:
    StdoutLock() {
        flockfile(stdout);
    }
    ~StdoutLock() {
        funlockfile(stdout);
    }
    StdoutLock(const StdoutLock &) = delete;
    StdoutLock &operator=(const StdoutLock &) = delete;
};

} // namespace

void print_msg(const uint8_t *buf, int n) {
    if (load_relaxed(print_flag) == 0) {
        return;
    }
    const ErrnoKeeper keep_errno;
    const CancelOff whole_dump;
    const StdoutLock lock;
    printf("%s: \n", buf == gRecvBuffer ? "recv" : "send");
    for (int i = 0; i < n; i++) {
        if (i % kBytesPerLine == 0) {
            printf("\n");
        }
        printf("%02x ", buf[i]);
    }
    printf("\n");
}
