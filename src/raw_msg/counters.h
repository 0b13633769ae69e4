// counters.h - what the links, the requests and the memory pool have been through, as numbers.
//
// Threads: any number at once.  Locks: the pool's, briefly.
// Signal handlers: no; let the handler wake a thread that calls this.
#ifndef RUK_RAW_MSG_COUNTERS_H
#define RUK_RAW_MSG_COUNTERS_H

#include "base/export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RUK_COUNTED_LINKS 3
#define RUK_COUNTED_QUEUES 4

/**
 * Arrays have one number for each interface, by index. Numbers of events start at 0 with the
 * process, survive the end and the new start of a link, and only grow; those marked "now" are as
 * large as they are at the moment. A forked child goes on from its parent's numbers. Block
 * transfers (bus_block.h) use sockets of their own and are not counted.
 *
 * Later versions add fields at the end.
 */
typedef struct ruk_counter_set {
    uint32_t size;     /* in: bytes of the caller's record; out: bytes filled in */
    uint32_t reserved; /* 0 */

    uint64_t frames_sent[RUK_COUNTED_LINKS];       /* frames that the kernel took whole */
    uint64_t bytes_sent[RUK_COUNTED_LINKS];        /* in these, 94..1430 each */
    uint64_t send_errors[RUK_COUNTED_LINKS];       /* frames that did not go out */
    uint64_t resends[RUK_COUNTED_LINKS];           /* of frames_sent: sent again by themselves */
    uint64_t timeouts[RUK_COUNTED_LINKS];          /* waits for an answer that ran out */
    uint64_t unanswered[RUK_COUNTED_LINKS];        /* requests that ended without an answer */
    uint64_t queue_overflows[RUK_COUNTED_LINKS];   /* full queues that were emptied */
    uint64_t frames_received[RUK_COUNTED_LINKS];   /* frames of any kind */
    uint64_t bytes_received[RUK_COUNTED_LINKS];    /* in these, at most 1450 of each */
    uint64_t receive_errors[RUK_COUNTED_LINKS];    /* failed receives: the interface went down */
    uint64_t foreign_frames[RUK_COUNTED_LINKS];    /* of frames_received: no replies of cards */
    uint64_t checksum_errors[RUK_COUNTED_LINKS];   /* of frames_received: damaged replies */
    uint64_t replies[RUK_COUNTED_LINKS];           /* of frames_received: intact replies */
    uint64_t unmatched_replies[RUK_COUNTED_LINKS]; /* of replies: no request waited for it */
    uint64_t refusals[RUK_COUNTED_LINKS];          /* of replies: the card says that it did not */

    uint64_t queued[RUK_COUNTED_LINKS][RUK_COUNTED_QUEUES]; /* now: requests, by queue kind */

    uint64_t pool_in_use; /* now: blocks of the memory pool that are handed out */
    uint64_t pool_free;   /* now: blocks that wait to be handed out again */
    uint64_t pool_failed; /* blocks that could not be had, as the system gave no memory */
} ruk_counter_set;

/**
 * Read all counters. Each number is exact; together they may be a frame apart, as nothing stops
 * meanwhile.
 *
 *   counters  in: size = sizeof *counters; out: the record as far as caller and library know it,
 *             size says how far. What lies behind is untouched.
 *
 * Returns 0, or -1 with the record untouched: null, or a size below its first two fields.
 */
RUK_API int ruk_counters(ruk_counter_set *counters);

#ifdef __cplusplus
}
#endif
#endif
