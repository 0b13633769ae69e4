// request.h - the life of a request record as its sender sees it.
#ifndef RAW_MSG_REQUEST_H
#define RAW_MSG_REQUEST_H

#include "base/locks.h"
#include "raw_msg/raw_msg.h"

#include <optional>

/** What tells the four kinds of requests apart. */
struct RequestKind {
    const char *operation;  // named in failure messages
    const char *queue_name; // likewise, when it is full; null where room is waited for
    int queue;
    bool is_waiting;            // the sender sleeps until the request has ended
    bool waits_for_room;        // on a full queue: wait until there is room, do not empty it
    bool posts_at_end;          // its end is counted in sem_test; else the caller counts it
    const char *no_record_text; // logged when the pool has no record, or null
};

struct Sequence {
    pthread_mutex_t lock; // guards next; leaf
    uint16_t next;
};

/** The number of a new request; wraps from 65535 to 0. */
uint16_t take_number(Sequence &sequence);

/**
 * Take a frame buffer for payload bytes and a record that owns it, filled for an unsent request.
 * On failure logs, posts sem_test and returns null.
 */
RawMsgQueueNode *new_request(const RequestKind &kind, int index, uint32_t addr, uint32_t payload);

/**
 * Append to the kind's queue. Where it waits for room the caller can be cancelled as before off.
 * Returns 0; or -1 after the request has been given up (posted).
 */
int enqueue(const RequestKind &kind, int index, RawMsgQueueNode *record, const CancelOff &off);

/** Start the timer and wait for the end of the request, cancelled likewise. */
void start_and_wait(const RequestKind &kind, int index, RawMsgQueueNode *record, int32_t ticks,
                    const CancelOff &off);

/** Give up a request whose frame did not go out: log, release, post. Returns result. */
int give_up_unsent(const RequestKind &kind, int index, RawMsgQueueNode *record, int result);

/** A tick count in the width that a timer takes; never 0, which would wait for ever. */
uint16_t timer_ticks(int32_t ticks);

#endif
