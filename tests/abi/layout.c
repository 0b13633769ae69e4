/* layout.c - the records that host programs share with the library, as a C compiler sees them.
 *
 * Pointers, semaphores and mutexes differ in size between targets, so each offset is given for
 * 64-bit and for 32-bit pointers; the board is the latter. */
#include "eth_raw/bus_block.h"
#include "eth_raw/eth_raw.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/counters.h"
#include "timer/timer.h"

#include <stddef.h>
#include <stdio.h>

#define IS_WIDE (sizeof(void *) == 8)
#define AT(record, member, wide, narrow)                                                           \
    _Static_assert(offsetof(record, member) == (IS_WIDE ? (wide) : (narrow)),                      \
                   #record "." #member " has moved")
#define SIZE(type, wide, narrow)                                                                   \
    _Static_assert(sizeof(type) == (IS_WIDE ? (wide) : (narrow)), #type " has another size")
#define MEMBER(record, member) ((record *)0)->member
/* As wide as the target's own type, directly or after its padding behind the member before it. */
#define FOLLOWS(record, member, before)                                                            \
    _Static_assert(offsetof(record, member) >=                                                     \
                           offsetof(record, before) + sizeof(MEMBER(record, before)) &&            \
                       offsetof(record, member) <                                                  \
                           offsetof(record, before) + sizeof(MEMBER(record, before)) + 8,          \
                   #record "." #member " does not follow " #before)
#define IS_TYPE(record, member, type)                                                              \
    _Static_assert(_Generic(MEMBER(record, member), type : 1, default : 0),                        \
                   #record "." #member " is no " #type)

AT(Timer, period, 0, 0);
AT(Timer, remaining, 4, 4);
AT(Timer, expired, 8, 8);
SIZE(Timer, 12, 12);
IS_TYPE(Timer, period, int32_t);
IS_TYPE(Timer, remaining, int32_t);
IS_TYPE(Timer, expired, int32_t);

AT(mem_block, self, 0, 0);
AT(mem_block, type, 8, 4);
AT(mem_block, data, 16, 8);
AT(mem_block, size, 24, 12);
AT(mem_block, used, 28, 16);
AT(mem_block, next, 32, 20);
SIZE(mem_block, 40, 24);
IS_TYPE(mem_block, self, void *);
IS_TYPE(mem_block, type, uint32_t);
IS_TYPE(mem_block, data, void *);
IS_TYPE(mem_block, size, uint32_t);
IS_TYPE(mem_block, used, uint32_t);
IS_TYPE(mem_block, next, mem_block *);

AT(EthRawTrans, sock_fd, 0, 0);
AT(EthRawTrans, addr, 8, 4);
SIZE(EthRawTrans, 16, 8);
IS_TYPE(EthRawTrans, sock_fd, int32_t);
IS_TYPE(EthRawTrans, addr, struct sockaddr_ll *);

AT(RawMsgQueueNode, buf, 0, 0);
AT(RawMsgQueueNode, timer, 8, 4);
AT(RawMsgQueueNode, index, 20, 16);
AT(RawMsgQueueNode, addr, 24, 20);
AT(RawMsgQueueNode, ack, 28, 24);
AT(RawMsgQueueNode, recv_len, 32, 28);
AT(RawMsgQueueNode, send_len, 36, 32);
AT(RawMsgQueueNode, read_buf, 40, 36);
AT(RawMsgQueueNode, seq, 48, 40);
FOLLOWS(RawMsgQueueNode, sem, seq);
FOLLOWS(RawMsgQueueNode, count, sem);
FOLLOWS(RawMsgQueueNode, requester, count);
FOLLOWS(RawMsgQueueNode, next, requester);
IS_TYPE(RawMsgQueueNode, buf, uint8_t *);
IS_TYPE(RawMsgQueueNode, timer, Timer);
IS_TYPE(RawMsgQueueNode, index, uint32_t);
IS_TYPE(RawMsgQueueNode, addr, uint32_t);
IS_TYPE(RawMsgQueueNode, ack, uint32_t);
IS_TYPE(RawMsgQueueNode, recv_len, uint32_t);
IS_TYPE(RawMsgQueueNode, send_len, uint32_t);
IS_TYPE(RawMsgQueueNode, read_buf, uint8_t *);
IS_TYPE(RawMsgQueueNode, seq, uint16_t);
IS_TYPE(RawMsgQueueNode, sem, sem_t);
IS_TYPE(RawMsgQueueNode, count, uint32_t);
IS_TYPE(RawMsgQueueNode, requester, uint32_t);
IS_TYPE(RawMsgQueueNode, next, RawMsgQueueNode *);
_Static_assert(ACK_QUEUE == 0 && ACK_WAIT_QUEUE == 1 && READ_QUEUE == 2 && READ_WAIT_QUEUE == 3,
               "a queue has another number");

AT(eth_init, index, 0, 0);
AT(eth_init, name, 4, 4);
AT(eth_init, flag, 24, 24);
AT(eth_init, sock_fd, 28, 28);
AT(eth_init, addr, 32, 32);
FOLLOWS(eth_init, send_lock, addr);
IS_TYPE(eth_init, index, uint32_t);
IS_TYPE(eth_init, flag, int32_t);
IS_TYPE(eth_init, sock_fd, int32_t);
IS_TYPE(eth_init, addr, struct sockaddr_ll);
IS_TYPE(eth_init, send_lock, pthread_mutex_t);
_Static_assert(sizeof(MEMBER(eth_init, name)) == 20, "eth_init.name has another size");
_Static_assert(sizeof(eth_init) < offsetof(eth_init, send_lock) + sizeof(pthread_mutex_t) + 8,
               "eth_init has more fields");
_Static_assert(MAX_ETH == 3, "another number of interfaces");

/* The same on all targets; fields are only ever added behind these. */
AT(ruk_counter_set, size, 0, 0);
AT(ruk_counter_set, reserved, 4, 4);
AT(ruk_counter_set, frames_sent, 8, 8);
AT(ruk_counter_set, bytes_sent, 32, 32);
AT(ruk_counter_set, send_errors, 56, 56);
AT(ruk_counter_set, resends, 80, 80);
AT(ruk_counter_set, timeouts, 104, 104);
AT(ruk_counter_set, unanswered, 128, 128);
AT(ruk_counter_set, queue_overflows, 152, 152);
AT(ruk_counter_set, frames_received, 176, 176);
AT(ruk_counter_set, bytes_received, 200, 200);
AT(ruk_counter_set, receive_errors, 224, 224);
AT(ruk_counter_set, foreign_frames, 248, 248);
AT(ruk_counter_set, checksum_errors, 272, 272);
AT(ruk_counter_set, replies, 296, 296);
AT(ruk_counter_set, unmatched_replies, 320, 320);
AT(ruk_counter_set, refusals, 344, 344);
AT(ruk_counter_set, queued, 368, 368);
AT(ruk_counter_set, pool_in_use, 464, 464);
AT(ruk_counter_set, pool_free, 472, 472);
AT(ruk_counter_set, pool_failed, 480, 480);
SIZE(ruk_counter_set, 488, 488);
IS_TYPE(ruk_counter_set, size, uint32_t);
IS_TYPE(ruk_counter_set, pool_in_use, uint64_t);
_Static_assert(RUK_COUNTED_LINKS == 3 && RUK_COUNTED_QUEUES == 4, "another number of counters");

int main(void) {
    return puts("layout: compiled, so it holds") == EOF;
}
