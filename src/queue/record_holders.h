// record_holders.h - who keeps a record alive, for the send operations and their completions.
//
// A record has up to three users at once: its sender, a completion that runs on the receive or
// check thread, and whoever empties a full queue. The first two hold it; taking it out of its queue
// retires it, and the last one to let go releases it together with the pool block that it owns.
// Emptying passes over a record that a completion is working on, for that request is ending anyway,
// and over one whose sender is still waiting for room: it would link what has been released.
// So nobody ever touches a record that another has released, and nobody is woken twice.
#ifndef QUEUE_RECORD_HOLDERS_H
#define QUEUE_RECORD_HOLDERS_H

#include "queue/queue.h"

constexpr int kQueueInterfaces = 3;
constexpr int kQueueKinds = 6;
constexpr int32_t kQueueCapacity = 0x10000;
constexpr uint32_t kNoReply = RUK_NO_REPLY; // ack of a request that nobody has answered

bool queue_is_valid(int i, int j);

/** As queue_find. Returns whether a record took the reply. */
bool queue_offer(int i, int j, uint32_t addr, uint32_t ack, uint16_t seq, uint32_t recv_len,
                 queue_callback callback, void *data);

/** The number of requests in a queue. Below zero when hosts deleted what was not in it. Takes no
 * lock. */
int32_t queue_depth(int i, int j);

/** Start the record's timer, unless the request has ended meanwhile. */
void queue_timer_start(int i, int j, RawMsgQueueNode *record, uint16_t ticks);

void queue_timer_stop(int i, int j, RawMsgQueueNode *record);

/** The request has ended: later replies and time-outs pass it by. Its sender may be woken now. */
void queue_mark_done(int i, int j, RawMsgQueueNode *record);

/**
 * A completion's end of a request: as queue_del, but a record taken out meanwhile is no error, and
 * its frame buffer goes with it.
 *
 * Returns whether the request was still open; false: its sender has given it up meanwhile.
 */
bool queue_retire(int i, int j, RawMsgQueueNode *record);

/** The sender of a non-waiting request lets go of it after its frame is out. */
void queue_let_go(int i, int j, RawMsgQueueNode *record);

/**
 * The sender takes its request back: out of the queue if it is still there, then let go. A
 * completion that is at work on it is awaited first, because it writes into the sender's buffer.
 *
 * Returns whether the request was still open; false: it has ended already.
 */
bool queue_withdraw(int i, int j, RawMsgQueueNode *record);

/** Whether somebody has taken out a record that its sender still holds. */
bool queue_is_retired(int i, int j, const RawMsgQueueNode *record);

/**
 * Time out every open request at once: set its count and call callback(record, null, 0), oldest
 * first. Requests whose senders are still waiting to get in are passed over.
 */
void queue_time_out_all(int i, int j, uint32_t count, queue_callback callback);

/** Age the timers of one queue. */
void queue_age(int i, int j, int32_t ticks);

/** No ticks are kept for the interface any more, until its next timerUpdate. */
void queue_stop_ageing(int i);

#endif
