// stdout_guard.h - standard output, held by a scope in which nobody logs.
//
// A log call may open the log file, or flush every stream while there is none; for both the C
// library locks its list of streams. Another thread's flush holds that list while it waits for
// standard output: whoever logs with standard output in hand waits for that thread, and it for him,
// for ever.
#ifndef BASE_STDOUT_GUARD_H
#define BASE_STDOUT_GUARD_H

#include "base/locks.h"

#include <cstdio>

/** How often the calling thread holds standard output at this moment. */
extern constinit thread_local int t_stdout_holds;

/**
 * Keeps what a scope prints together on standard output: other threads' lines come before or behind
 * it. Nor is a thread cancelled in the middle of it. No log call may stand in such a scope: builds
 * with assertions end there.
 */
class StdoutGuard {
public:
    StdoutGuard() {
        flockfile(stdout);
        t_stdout_holds += 1;
    }
    ~StdoutGuard() {
        t_stdout_holds -= 1;
        funlockfile(stdout);
    }
    StdoutGuard(const StdoutGuard &) = delete;
    StdoutGuard &operator=(const StdoutGuard &) = delete;

private:
    CancelOff whole_;
};

#endif
