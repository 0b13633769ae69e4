// raw_msg_priv.h - what the files of the transaction layer share, and its switches for the tool.
#ifndef RAW_MSG_RAW_MSG_PRIV_H
#define RAW_MSG_RAW_MSG_PRIV_H

#include "queue/queue_priv.h"
#include "raw_msg/raw_msg.h"

#include <chrono>

constexpr int kInterfaces = kQueueInterfaces;
constexpr uint16_t kResendTicks = 3; // 90 ms between the transmissions of a non-waiting request

// The time-out that ends a request, by its count: after three transmissions (the count starts at
// 1), or the third one of a request that its sender waits for.
constexpr uint32_t kLastCountUnwaited = 4;
constexpr uint32_t kLastCountWaited = 3;

/**
 * Shows the data of a non-waiting read when its reply completes it. Null (the start value) shows
 * nothing; the "read" command sets it to its hex dump.
 */
using ReadDump = void (*)(const uint8_t *data, uint32_t addr, uint32_t len);
void set_read_dump(ReadDump dump);

/** Lock that keeps matching and time-outs of an interface apart. index must be 0..2. */
pthread_mutex_t &find_check_lock(int index);

/**
 * End every request of an interface as its last time-out does: nobody will answer it any more, or
 * nobody will time it out. An index out of range has none.
 */
void end_all_requests(int index);

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
