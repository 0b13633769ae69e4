// queue.h - requests that wait for their answer: 3 interfaces x 6 queues.
//
// The receive thread searches the queues to match a reply to its request, the check thread scans
// them for time-outs. Queue kinds per interface: see enum; 4 and 5 are spare and never filled.
// Threads: any.  Locks: one per queue (mtx), then mutex_find around reply callbacks and mutex_check
// around time-out callbacks; no queue lock is held while a callback runs, because the callbacks
// take it again to delete the record.
// Indices out of range make every operation return -1 (or null) and touch nothing.
#ifndef RUK_QUEUE_QUEUE_H
#define RUK_QUEUE_QUEUE_H

#include "base/export.h"
#include "timer/timer.h"

#include <semaphore.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ACK_QUEUE = 0,       /* acknowledged write, the sender goes on */
    ACK_WAIT_QUEUE = 1,  /* acknowledged write, the sender waits */
    READ_QUEUE = 2,      /* read, the sender goes on */
    READ_WAIT_QUEUE = 3, /* read, the sender waits */
};

/** The status of a request that nobody has answered. */
#define RUK_NO_REPLY 255

/**
 * One outstanding request. Comes from mem_alloc, zeroed before use; released by queue_del or
 * queue_empty. A reply belongs to it when both addr and seq are equal; they stay as they are while
 * it is queued.
 */
typedef struct RawMsgQueueNode {
    uint8_t *buf;       /* payload of the request's frame buffer, kept to send the frame again */
    Timer timer;        /* the request's time-out */
    uint32_t index;     /* interface, 0..2 */
    uint32_t addr;      /* FPGA address */
    uint32_t ack;       /* status of the reply, or RUK_NO_REPLY */
    uint32_t recv_len;  /* length field of the reply, bytes */
    uint32_t send_len;  /* frame length for a resend, bytes */
    uint8_t *read_buf;  /* where read data go, 1400 bytes; null for writes */
    uint16_t seq;       /* sequence number */
    sem_t sem;          /* posted once when a waiting request ends */
    uint32_t count;     /* time-outs seen; starts at 1 for non-waiting, 0 for waiting requests */
    uint32_t requester; /* service peer that wants the report, 0 = the command line */
    struct RawMsgQueueNode *next;

    /* Private to the queues and the send operations; zero in a new record. */
    struct RawMsgQueueNode *prev;
    struct RawMsgQueueNode *next_due; /* next record on a check pass's list */
    struct RawMsgQueueNode *older;    /* next record whose seq ends alike */
    struct RawMsgQueueNode **newer;   /* where that list points to this record */
    const void *home;                 /* the queue that links the record, null = none */
    void *owned_block;                /* pool block that is released together with the record */
    void (*when_dropped)(void); /* tells who counts its end that it was dropped; may be null */
    uint32_t completions;       /* completions at work on the record */
    uint8_t has_sender;         /* its sender still holds it */
    uint8_t is_enqueuing;       /* its sender has not got it into the queue yet */
    uint8_t is_waited_for;      /* its sender sleeps on sem */
    uint8_t is_done;            /* ended: no further reply or time-out is for it */
    uint8_t is_due;             /* on a check pass's list */
    uint8_t is_retired;         /* released as soon as nobody holds it */
} RawMsgQueueNode;

/** Called with the record, the reply's data (null = time-out) and the length from its header. */
typedef void (*queue_callback)(RawMsgQueueNode *record, void *data, uint32_t length);

/** Empty all queues, forgetting what they held. Call once before the transaction layer starts. */
RUK_API void queue_init(void);

/**
 * Append a record. A queue is full from 65536 records on; the record that fills it is linked and
 * counted all the same, and adding it again neither links nor counts it twice.
 *
 * Returns 0, or -1: full (logged), null, linked in another queue, or taken out by another thread
 * while its sender was waiting for room.
 */
RUK_API int queue_add(int i, int j, RawMsgQueueNode *node);

/**
 * Take *pnode out of its queue and release it, at once or when its last user lets go. The count
 * falls by one whether or not the record was found. *pnode is not cleared. The frame buffer in buf
 * is the caller's to release, before or after; only that of a request whose sender waits is
 * released by its sender, who wakes up without an answer.
 *
 * Returns 0, or -1: the count went below zero (logged).
 */
RUK_API int queue_del(int i, int j, RawMsgQueueNode **pnode);

/**
 * Find the oldest open record with this addr and seq, store ack and recv_len into it and call
 * callback(record, data, recv_len). Without a match nothing happens. A null callback only stores.
 */
RUK_API int queue_find(int i, int j, uint32_t addr, uint32_t ack, uint16_t seq, uint32_t recv_len,
                       queue_callback callback, void *data);

/**
 * For each record whose timer has expired, oldest first: raise count by one and call
 * callback(record, null, 0). Returns 0.
 */
RUK_API int queue_check(int i, int j, queue_callback callback);

/** The oldest record, or null. Read without a lock: only to look whether there is one. */
RUK_API RawMsgQueueNode *queue_get(int i, int j);

/**
 * Take out and release all records, except those that a completion on another thread is working on
 * and those that their senders are still waiting to get in. A sender that waits for an answer wakes
 * up without one; a request of the library that nobody waits for posts sem_test, as at any end.
 * Frame buffers that a record does not own are left alone.
 */
RUK_API int queue_empty(int i, int j);

/**
 * Take out and release the oldest record whose buf is this; the count stays. The buffer and a
 * waiting sender as in queue_del. Returns null.
 */
RUK_API void *queue_del_buf(int i, int j, uint8_t *buf);

#ifdef __cplusplus
}
#endif
#endif
