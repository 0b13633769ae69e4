// raw_msg.h - the transaction layer: writes and reads of card registers and memory.
//
// Requests are numbered, kept in a queue until the card answers, sent again or timed out. Each form
// exists without waiting (the outcome comes through post_test) and, for acknowledged writes and
// reads, waiting (the caller sleeps until the answer or the time-out).
// Common arguments: index interface 0..2 · model, slot of the card · addr FPGA address · code
// message code (0 read, 1 write, 0x11 acknowledged write), passed through · len bytes · ticks of
// 30 ms, taken as 1 when below 1 and as 65535 when above.
// Threads: any number at once for the send operations.
// Locks:   find_check_mtx of the interface around matching and around time-outs, then the queues'
//          locks; each form's sequence lock is a leaf.
#ifndef RUK_RAW_MSG_RAW_MSG_H
#define RUK_RAW_MSG_RAW_MSG_H

#include "base/export.h"
#include "queue/queue.h"

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Counts ended operations: each posts once when it has ended, well or not. Set up by the host. */
extern RUK_API sem_t sem_test;

/** Post sem_test. */
RUK_API void post_test(void);

/** Does nothing; hosts that were written against it still find it. */
RUK_API void RawMsgWriteTest(void);

/**
 * Write data without asking for an answer, in frames of at most 1400 bytes at rising addresses. A
 * frame that cannot be sent is logged and the next one tried. Never posts sem_test.
 *
 * Returns 0, or -1: no frame buffer (logged).
 */
RUK_API int RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                           const uint8_t *data, uint32_t len);

/**
 * Write data in acknowledged frames of at most 1400 bytes without waiting. Each frame posts
 * sem_test when it ends; silence is answered by two resends 90 ms apart, an error status by a
 * resend at once, without limit.
 *
 *   requester  service peer for the report, 0 = none
 *
 * Returns 0, also for len 0, or the first frame's failure; later frames are then not sent.
 */
RUK_API int RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                  uint32_t addr, uint8_t code, const uint8_t *data, uint32_t len);

/** One frame of RawSockSendMsgWithAck, len 1..1400. Returns 0 when it is out, or -1 (posted). */
RUK_API int RawSockSendOneMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                     uint32_t addr, uint8_t code, const uint8_t *data,
                                     uint32_t len);

/**
 * Write data in acknowledged frames and wait for each. Nothing is resent: after three time-outs of
 * so many ticks a frame has failed, and the next one is tried all the same.
 *
 *   ack  out: the last frame's status: 0 carried out, 255 no answer, else the card's refusal
 *
 * Posts sem_test at the end. Returns the last frame's result: 0 = answered, whatever the status,
 * also for len 0; or -1. Blocks: 3 x ticks x 30 ms per frame at most.
 */
RUK_API int RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                      int32_t ticks);

/**
 * One frame of RawSockSendMsgWithAckWait, len 1..1400. Returns 0 when the card answered, or -1: no
 * answer (ack is 255), or nothing was sent (posted, ack untouched).
 */
RUK_API int RawSockSendOneMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                         uint8_t code, const uint8_t *data, uint32_t len,
                                         uint8_t *ack, int32_t ticks);

/**
 * Read len bytes, 1..1400, in one frame without waiting. Resends as RawSockSendMsgWithAck.
 *
 *   read_buf  1400 bytes, valid until the read has posted sem_test: a reply may carry more than
 *             was asked for
 *   out_len   ignored
 *
 * Returns 0 when the request is out, or -1 (posted).
 */
RUK_API int RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                   uint32_t addr, uint8_t code, uint32_t len, uint8_t *read_buf,
                                   uint32_t *out_len);

/**
 * Read len bytes, 1..1400, in one frame and wait for them; nothing is resent.
 *
 *   read_buf  1400 bytes: a reply may carry more than was asked for
 *   out_len   out: bytes received; above 1400 nothing was copied; untouched when nothing was sent
 *
 * Posts sem_test at the end. Returns 0, or -1: no answer after three time-outs, a refusal, a reply
 * without data or with too many, or nothing sent. Blocks: 3 x ticks x 30 ms at most.
 */
RUK_API int RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                       uint8_t code, uint32_t len, uint8_t *read_buf,
                                       uint32_t *out_len, int32_t ticks);

/**
 * Report a write's result to the record's requester as a 40-byte service message, which is also
 * dumped on standard output. Both reports build service messages, so they live above this layer:
 * ap_msg/result_report.cpp.
 */
RUK_API void WriteAckResultReport(RawMsgQueueNode *record, int result);

/**
 * Report a read's result to the record's requester: the message around record->read_buf, which
 * must come from ApMsgBuffGet, with the data when result is 0; its head is dumped as above.
 */
RUK_API void ReadResultReport(RawMsgQueueNode *record, int result);

/**
 * Completions, run under find_check_mtx: data null = a time-out, else a reply whose status and
 * length stand in the record. length is ignored.
 */
RUK_API void AckCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t length);
RUK_API void AckWaitCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t length);
RUK_API void ReadCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t length);
RUK_API void ReadWaitCompleteMsg(RawMsgQueueNode *record, void *data, uint32_t length);

/** Offer a reply to one queue of an interface; without a matching request nothing happens. */
RUK_API void AckRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                       uint8_t *data);
RUK_API void AckWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                           uint8_t *data);
RUK_API void ReadRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                        uint8_t *data);
RUK_API void ReadWaitRawMsg(int index, uint32_t addr, uint8_t ack, uint16_t seq, uint32_t recv_len,
                            uint8_t *data);

/** Handle the time-outs of one queue of an interface. */
RUK_API void CheckAckRawMsg(int index);
RUK_API void CheckAckWaitRawMsg(int index);
RUK_API void CheckReadRawMsg(int index);
RUK_API void CheckReadWaitRawMsg(int index);

/** Thread bodies; the pointer's value is the interface index. Both end only by pthread_cancel. */
RUK_API void *RawMsgRecv(void *index);
RUK_API void *RawMsgAckReadCheck(void *index);

/**
 * Open an interface and start its receive and check threads.
 *
 *   receive_thread, check_thread  out: written only when that thread was created
 *
 * Returns 0 in every case, and with errno 0 when the link is up: its socket is bound and its check
 * thread runs. Otherwise errno has the reason, and every send on it fails at once. Without a
 * receive thread (no real-time rights) the link is up, but no answer is seen.
 */
RUK_API int RawMsgModuleInit(int index, pthread_t *receive_thread, pthread_t *check_thread);

/** Close the interface; the threads are left to the caller. Returns RawSockMsgUnInit's -1. */
RUK_API int RawMsgModuleUnInit(int index);

/** Start the receive thread, SCHED_FIFO priority 90. Returns 0, or -1: not created (logged). */
RUK_API int RawMsgRecvTaskCreate(int index, pthread_t *tid);

/** Start the check thread with default scheduling. Returns 0, or -1: not created (logged). */
RUK_API int RawMsgRecvCheckTaskCreate(int index, pthread_t *tid);

/**
 * Write a picture into one of the two DDR2 memories behind an FPGA, by plain writes in chunks of at
 * most 15360 bytes. Each line begins at a multiple of 64 bytes there. Two other roads lead to
 * pictures in cards: LoadPicture (main/main.h) takes a file and comes here, DDR2Read
 * (ap_msg/ap_msg.h) reads back.
 *
 *   ts_sel    'e'; any other character sends nothing
 *   fpga_sel  1: FPGA on interface 1 · 0: FPGA on interface 2 · any other sends nothing
 *   addr      start in the memory, in words of 8 bytes
 *   hor, ver  pixels of 4 bytes in a line, lines
 *   data      hor x 4 x ver bytes, lines without gaps
 *   ddr_sel   0 or 1: which memory; any other sends nothing
 *
 * Frames that cannot be sent are logged and the next ones tried; without memory for the picture
 * nothing is sent (logged).
 */
RUK_API void DDR2Write(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint32_t hor, uint16_t ver,
                       const uint8_t *data, uint8_t ddr_sel);

/** One chunk of it into the first memory: length bytes, then the record that stores them. */
RUK_API void DDR2WriteProcess(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint16_t length,
                              uint32_t ignored, const uint8_t *chunk);

/** One chunk into the second memory. */
RUK_API void DDR2WriteProcess2(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint16_t length,
                               uint32_t ignored, const uint8_t *chunk);

/**
 * What a selector character selects: 0 for '0', 'B', 'b' · 1 for '1', 'A', 'a' · -1 for any other.
 * Only the low 8 bits of character count.
 */
RUK_API int convert_index(int character);

#ifdef __cplusplus
}
#endif
#endif
