// locks.h - mutexes, semaphores and cancellation, each held by a scope.
#ifndef BASE_LOCKS_H
#define BASE_LOCKS_H

#include <cerrno>
#include <pthread.h>
#include <semaphore.h>

/** Holds a mutex for a scope; a cancelled thread gives it back while it unwinds. */
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(mutex) {
        (void)pthread_mutex_lock(&mutex_); // cannot fail on a default mutex
    }
    ~MutexGuard() {
        (void)pthread_mutex_unlock(&mutex_);
    }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t &mutex_;
};

/** Keeps pthread_cancel waiting for a scope: work under a lock is finished once it is begun. */
class CancelOff {
public:
    CancelOff() {
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
    }
    ~CancelOff() {
        (void)pthread_setcancelstate(before_, nullptr);
    }
    CancelOff(const CancelOff &) = delete;
    CancelOff &operator=(const CancelOff &) = delete;

    [[nodiscard]] int before() const {
        return before_;
    }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

/** For a wait in the scope of a CancelOff: the thread can be cancelled if it could be before. */
class CancelAsBefore {
public:
    explicit CancelAsBefore(const CancelOff &off) {
        (void)pthread_setcancelstate(off.before(), &here_);
    }
    ~CancelAsBefore() {
        (void)pthread_setcancelstate(here_, nullptr);
    }
    CancelAsBefore(const CancelAsBefore &) = delete;
    CancelAsBefore &operator=(const CancelAsBefore &) = delete;

private:
    int here_ = PTHREAD_CANCEL_DISABLE;
};

/**
 * Call a function in every child of this process before fork returns there. Another thread of the
 * parent may hold a lock at that moment; the child has no such thread that could give it back, so
 * the function makes the lock anew.
 */
inline bool renew_in_child(void (*renew)()) {
    return pthread_atfork(nullptr, nullptr, renew) == 0;
}

/** Wait for a post, however many signals (one tick every 30 ms) interrupt the wait. */
inline void wait_full(sem_t &semaphore) {
    while (sem_wait(&semaphore) == -1 && errno == EINTR) {
    }
}

#endif
