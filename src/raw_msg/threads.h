// threads.h - how the threads of links and services start, and how their end is awaited.
#ifndef RAW_MSG_THREADS_H
#define RAW_MSG_THREADS_H

#include <chrono>
#include <pthread.h>

/**
 * Pin the process to the interface's processor, as both threads do when they start.
 * The name goes into the message of a failure.
 */
void pin_to_processor(int index, const char *name);

/**
 * Start a SCHED_FIFO thread, whatever the caller's own scheduling is.
 * Returns 0, or -1: not created (logged), *tid untouched.
 */
int start_realtime_thread(void *(*body)(void *), void *argument, int priority, pthread_t *tid);

/** Wait until so many cancelled threads of this layer have ended. False: not within the time. */
bool await_thread_ends(int count, std::chrono::milliseconds at_most);

/** Announces the end of the thread on whose stack it stands, also when the thread is cancelled. */
class ThreadEnd {
public:
    ThreadEnd() = default;
    ~ThreadEnd();
    ThreadEnd(const ThreadEnd &) = delete;
    ThreadEnd &operator=(const ThreadEnd &) = delete;
};

#endif
