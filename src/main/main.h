// main.h - helpers of the front end that host processes may use too.
#ifndef MAIN_MAIN_H
#define MAIN_MAIN_H

#include "log/export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Print length bytes on standard output as a hex dump: an empty line, then 16 bytes a line in
 * groups of four, in the order they came in, each line behind its address in 8 digits.
 *
 *   data          null prints nothing
 *   base_address  address of the first byte
 */
RUK_API void process_recvbuf(const uint8_t *data, uint32_t base_address, uint32_t length);

/** Receives what msg_recv got. Null at start: a host sets it before it calls msg_recv. */
extern RUK_API void (*read_buffer)(const uint8_t *data, uint32_t addr, uint32_t length);

/**
 * Receive on interface 0 until a reply comes and read_buffer is set, then hand it the reply's data,
 * address and length. Returns 0.
 * Threads: as the only receiver of the process.  Blocks: until then; a cancellation point.
 */
RUK_API int msg_recv(void);

#ifdef __cplusplus
}
#endif
#endif
