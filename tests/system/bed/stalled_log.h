// stalled_log.h - standard output of which nobody takes anything.
#ifndef TESTS_SYSTEM_BED_STALLED_LOG_H
#define TESTS_SYSTEM_BED_STALLED_LOG_H

#include "tests/system/bed/bed.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace bed {

/** A log that nobody reads: the pipe fills, and so stands still whoever prints. */
class StalledLog {
public:
    StalledLog() {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
        EXPECT_GT(fcntl(ends_[1], F_SETPIPE_SZ, kRoom), 0);
    }
    StalledLog(const StalledLog &) = delete;
    StalledLog &operator=(const StalledLog &) = delete;
    ~StalledLog() {
        (void)close(ends_[0]);
        (void)close(ends_[1]);
    }
    [[nodiscard]] Launch as_output_of(Launch launch) const {
        launch.in_child = [inner = launch.in_child, end = ends_[1]] {
            if (inner) {
                inner();
            }
            (void)dup2(end, STDOUT_FILENO);
        };
        return launch;
    }
    [[nodiscard]] bool read_up_to(std::string_view text) const {
        std::string log;
        char piece[kRoom];
        ssize_t got = 1;
        while (got > 0 && log.find(text) == std::string::npos) {
            got = read(ends_[0], piece, sizeof piece);
            log.append(piece, got > 0 ? static_cast<size_t>(got) : 0);
        }
        return got > 0;
    }
    /** Bytes that wait to be read; a line that has no room any more waits as a whole. */
    [[nodiscard]] int held() const {
        int bytes = -1;
        EXPECT_EQ(ioctl(ends_[0], FIONREAD, &bytes), 0);
        return bytes;
    }

    static constexpr int kRoom = 4096;

private:
    int ends_[2] = {-1, -1};
};

} // namespace bed

#endif
