// ap_msg.h - messages between processes of the board, and the service that answers their requests.
//
// A message travels through the board's message library to the module that a 32-bit address names:
// slot << 24 | 0x0A << 16 | module << 8. See message_layout.h for its fields.
// The service runs on two threads: the receive thread answers reads and writes, one at a time; the
// file thread moves pictures and firmware, so that nothing waits for them.
// Threads: any, unless said otherwise.
// Locks:   one around the hand-over of file requests, held while the file thread works; the
//          transaction layer's and the pool's are taken under it.
#ifndef RUK_AP_MSG_AP_MSG_H
#define RUK_AP_MSG_AP_MSG_H

#include "base/export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Send a message: its 40-byte header and len bytes more.
 *
 *   aptid  the receiver's address
 *   msg    start of the message, 40 + len bytes
 *
 * Returns what the message library returns.
 */
RUK_API int ApipcDataSend(int aptid, void *msg, unsigned len);

/** Send the 40-byte header only. Returns what the message library returns. */
RUK_API int ApipcDataSendAck(int aptid, void *msg);

/** The interface that serves a target id: 0 for every id. */
RUK_API int GetIndexById(int id);

/** The target id of an interface: 0xFE for every index. */
RUK_API int GetIdByIndex(int index);

/** Print n bytes as hex on standard output, 16 in a line. */
RUK_API void print_buf(const uint8_t *p, int n);

/**
 * Take a zeroed message from the pool with room for n data bytes and two spare ones behind them.
 * Returns its data area, 38 bytes into the block, or null: no memory, or n above 8152.
 */
RUK_API uint8_t *ApMsgBuffGet(uint32_t n);

/** The start of the message that a data area belongs to: 38 bytes before it. */
RUK_API uint8_t *ApMsgBuffHeadGet(uint8_t *p);

/** Give a message back to the pool, by its data area. Null is ignored. */
RUK_API void ApMsgBuffFree(uint8_t *p);

/** Register the service, module 0x3B of this card. Returns what apipc_init returns: 0 = done. */
RUK_API int PmdApipcInit(void);

/**
 * Start the receive thread of the service, SCHED_FIFO priority 88; once per process. arg's value is
 * the interface index, which chooses the processor.
 *
 * Returns 0, or -1: not created (logged).
 */
RUK_API int PmdApRecvTaskCreate(void *arg);

/** Its body. Ends only when the service cannot be registered (logged). */
RUK_API void *ApMsgRecv(void *index);

/**
 * Take one message, as the handler of apipc_loop_wait.
 *
 *   a, b  ignored
 *
 * What is no whole request for the service is logged, dumped on standard output and dropped.
 * Returns -1: msg null, or no buffer for a read's reply (logged), else 0.
 * Threads: the receive thread.  Blocks: as long as the request takes.
 */
RUK_API int ApipcEventDeal(int a, int b, void *msg, int length);

/**
 * Carry out one request and answer it. A request service, module 0x3B of any card, gets no answer
 * (logged): it would take that for a request.
 *
 *   msg  start of the message: 40 bytes or more, with the data that its len field counts
 *   req  its request head, msg + 24
 *
 * Results, threads and blocking as for ApipcEventDeal.
 */
RUK_API int ApipcDataProc(void *msg, void *req);

/** Send the service's greeting to a module. */
RUK_API void apipc_first(int aptid);

/** Send a test read request to module 0x3A of this card. */
RUK_API void apipc_test(void);

/**
 * Start the file thread, SCHED_FIFO priority 95; once per process, before requests can come. arg as
 * for PmdApRecvTaskCreate. Returns 0, or -1: not created (logged).
 */
RUK_API int PmdApFileTaskCreate(void *arg);

/** Its body; never returns. */
RUK_API void *ApMsgFileProc(void *index);

/**
 * Carry out a file request.
 *
 *   head  first 40 bytes of the message
 *   req   request head and the data that its len field counts
 *
 * write_file_handle: results of write_file_handler. read_file_handle reads a picture from FPGA
 * memory into the named file, as it comes, and into a 32-bit BMP file with ".bmp" behind its name.
 * It returns 0, or -1: bad request, no memory, or a file that cannot be written (all logged); what
 * the card did not answer stays black. No reply is sent.
 */
RUK_API int write_file_handle(void *head, void *req);
RUK_API int read_file_handle(void *head, void *req);

/**
 * Write a picture file to a card's picture port: 3 bytes for each of hor x ver pixels, from the
 * offset in the header of a ".bmp" file, else from the first byte.
 *
 *   addr  only logged
 *
 * Returns 0 when it was sent, whatever the card made of it; -1 no such file or too small, -2 not to
 * be opened, -3 no memory, -4 short read (all logged). Blocks: until everything is sent.
 */
RUK_API int write_file_handler(int index, int slot, int model, uint32_t addr, int hor, int ver,
                               const char *name);

/** The same, with the low 8 bits of slot and the low 16 bits of model. */
RUK_API int write_file_handle_test(int index, int slot, int model, uint32_t addr, int hor, int ver,
                                   const char *name);

/**
 * Read a picture of 4-byte pixels from FPGA memory.
 *
 *   addr  start in the memory, in words of 8 bytes; lines begin there at multiples of 64 bytes
 *   out   hor x 4 x ver bytes, lines without gaps
 *
 * Blocks that do not come stay zero; without memory nothing is read (logged).
 */
RUK_API void DDR2Read(int index, uint16_t model, uint8_t slot, uint32_t addr, uint16_t hor,
                      uint16_t ver, uint8_t *out);

/**
 * Read one block of at most 1400 bytes from FPGA memory.
 *
 *   buf  length bytes; what did not come is left as it was
 *
 * Returns 0, or -1: no answer, or length above 1400 (logged).
 */
RUK_API int DDR2ReadProcess(int index, uint8_t slot, uint16_t model, uint32_t addr, uint16_t length,
                            uint8_t *buf);

/**
 * Answer a file request: the 40-byte header, which is changed in place, goes back to its sender.
 * Returns what the message library returns, or -1: the sender is a request service, not sent.
 */
RUK_API int write_file_resp(void *head, int result);

/**
 * Carry out a request to update firmware and answer it.
 *
 *   head  first 40 bytes of the message
 *   req   request head and the data that its len field counts: the kind of update, 4 bytes, and the
 *         name of the file
 *
 * Returns the result that the reply carries: that of sys_update, the exit status of the programming
 * tool, 0 for a kind that needs nothing, or -1: bad request, no such file (logged).
 * Blocks: until the update is done, minutes.
 */
RUK_API int update_file_handle(void *head, void *req);

/**
 * Answer a request to update firmware: a message of 44 bytes to the sender in head.
 *
 *   data  the kind of update, 4 bytes as they came
 *
 * Returns what the message library returns, or -1: no memory, or the sender is a request service;
 * nothing is sent.
 */
RUK_API int update_file_resp(void *head, void *data, int result);

/** The same as sys_update, with the low 16 bits of device_type and the low 8 bits of slot. */
RUK_API int update_firmware(int slot, int device_type, const char *path);

/**
 * Send a firmware file to a card over interface 0. The file goes with a head in front of it through
 * /home/updatebin.tmp, which stays, empty if it could not be filled: one update at a time on a
 * board. What happens is told on standard output.
 *
 * Returns 0: everything was acknowledged, or the path holds no ".bin" and nothing was sent; or -1:
 * no such file, one that its head cannot describe (4 GiB, on a 32-bit board 2 GiB) or that cannot
 * be read or written, a write that the card refused or did not acknowledge. What the card has got
 * by then is not taken back. Blocks: until it is done.
 */
RUK_API int sys_update(const char *path, int16_t device_type, uint8_t slot);

/**
 * An acknowledged write that is made again, after 10 ms, while no acknowledgement below 0xFF comes.
 *
 *   tries  how often at most; below 1 nothing is sent
 *   model, slot  their low 16 and 8 bits
 *   data   length bytes
 *   ack    the last acknowledgement, 0xFF: none
 *   wait   ticks of 30 ms, as for RawSockSendMsgWithAckWait
 *
 * Returns the result of the last write, -1 without one.
 */
RUK_API int RawSockSendMsgWithAckWait_Try_nTimes(int tries, int index, int model, int slot,
                                                 uint32_t addr, uint8_t code, const uint8_t *data,
                                                 uint32_t length, uint8_t *ack, int32_t wait);

/** Bytes in a file; 0 when it cannot be told, or does not fit. */
RUK_API long get_file_size(const char *path);

/** The same by opening the file; what cannot be opened is logged. */
RUK_API long get_file_size_old(const char *path);

/**
 * Make an empty file by the shell's commands, in place of an old one; or remove one. Names are
 * quoted for the shell where they need it. Returns the exit status of the last command.
 */
RUK_API int update_temfile_creat(const char *path);
RUK_API int update_temfile_del(const char *path);

#ifdef __cplusplus
}
#endif
#endif
