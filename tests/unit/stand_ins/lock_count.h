// lock_count.h - sees which mutexes a piece of code takes.
//
// Linked with --wrap=pthread_mutex_lock,pthread_mutex_unlock. What a lock keeps apart shows only
// when two threads meet, which no short test can rely on; that a call takes it shows at once.
#ifndef TESTS_UNIT_STAND_INS_LOCK_COUNT_H
#define TESTS_UNIT_STAND_INS_LOCK_COUNT_H

#include <functional>

namespace test {

struct LockUse {
    int taken;       // locks taken, in all
    int deepest;     // held at the same time
    int kept;        // still held at the end
    int cancellable; // of those taken: where pthread_cancel could have ended the thread meanwhile
};

/** What the calling thread does with mutexes while it does this. */
LockUse locks_of(const std::function<void()> &work);

/** The same for what cannot be called as a whole: from here on, and up to here. */
void locks_begin();
LockUse locks_since();

/** Mutexes that the calling thread holds. */
int locks_held();

/**
 * Fork while another thread, doing this work, is about to give back the mutex of so many, and do
 * something in the child, which has no such thread. Returns the child's wait status: 0 when it came
 * to its end, SIGALRM when it waited for what nobody gives back.
 */
int fork_amid(const std::function<void()> &work, int of_so_many,
              const std::function<void()> &in_child);

} // namespace test

#endif
