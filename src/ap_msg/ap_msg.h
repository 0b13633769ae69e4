// ap_msg.h - messages between processes of the board.
//
// A message travels through the board's message library to the module that a 32-bit address names:
// slot << 24 | 0x0A << 16 | module << 8. See message_layout.h for its fields.
// Threads: any.
#ifndef AP_MSG_AP_MSG_H
#define AP_MSG_AP_MSG_H

#include "log/export.h"

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

#ifdef __cplusplus
}
#endif
#endif
