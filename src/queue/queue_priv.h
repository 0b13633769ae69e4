// queue_priv.h - who keeps a record alive, for the send operations and their completions.
//
// A record has up to three users at once: its sender, a completion that runs on the receive or
// check thread, and whoever empties a full queue. The first two hold it; taking it out of its queue
// retires it, and the last one to let go releases it together with the pool block that it owns.
// Emptying passes over a record that a completion is working on: that request is ending anyway.
// So nobody ever touches a record that another has released, and nobody is woken twice.
#ifndef QUEUE_QUEUE_PRIV_H
#define QUEUE_QUEUE_PRIV_H

#include "queue/queue.h"

constexpr int kQueueInterfaces = 3;
constexpr int kQueueKinds = 6;
constexpr int32_t kQueueCapacity = 0x10000;
constexpr uint32_t kNoReply = 255; // ack of a request that nobody has answered

bool queue_is_valid(int i, int j);

/** As queue_find. Returns whether a record took the reply. */
bool queue_offer(int i, int j, uint32_t addr, uint32_t ack, uint16_t seq, uint32_t recv_len,
                 queue_callback callback, void *data);

/** The number of requests in a queue. Below zero when hosts deleted what was not in it. */
int32_t queue_depth(int i, int j);

/** Start the record's timer, unless the request has ended meanwhile. */
void queue_timer_start(int i, int j, RawMsgQueueNode *record, uint16_t ticks);

void queue_timer_stop(int i, int j, RawMsgQueueNode *record);

/** The request has ended: later replies and time-outs pass it by. Its sender may be woken now. */
void queue_mark_done(int i, int j, RawMsgQueueNode *record);

/** A completion's end of a request: as queue_del, but a record taken out meanwhile is no error. */
void queue_retire(int i, int j, RawMsgQueueNode *record);

/** The sender of a non-waiting request lets go of it after its frame is out. */
void queue_let_go(int i, int j, RawMsgQueueNode *record);

/** The sender takes its request back: out of the queue if it is still there, then let go. */
void queue_withdraw(int i, int j, RawMsgQueueNode *record);

/**
 * Empty a full queue except for one record. Waiting senders wake up without an answer; dropped
 * (may be null) is called once for every request that nobody waits for.
 */
void queue_drain(int i, int j, const RawMsgQueueNode *keep, void (*dropped)());

/** Age the timers of one queue. */
void queue_age(int i, int j, int32_t ticks);

#endif
