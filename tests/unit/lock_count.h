// lock_count.h - sees which mutexes a piece of code takes.
//
// Linked with --wrap=pthread_mutex_lock,pthread_mutex_unlock. What a lock keeps apart shows only
// when two threads meet, which no short test can rely on; that a call takes it shows at once.
#ifndef TESTS_UNIT_LOCK_COUNT_H
#define TESTS_UNIT_LOCK_COUNT_H

#include <functional>

namespace test {

struct LockUse {
    int taken;   // locks taken, in all
    int deepest; // held at the same time
    int kept;    // still held at the end
};

/** What the calling thread does with mutexes while it does this. */
LockUse locks_of(const std::function<void()> &work);

/** Mutexes that the calling thread holds. */
int locks_held();

} // namespace test

#endif
