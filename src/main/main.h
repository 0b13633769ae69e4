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

/**
 * Write a picture file into the DDR2 memory of an FPGA. 24-bit ".bmp" files become 32-bit pixels,
 * upright; any other file is taken as hor x ver such pixels.
 *
 *   addr  start in the memory, in words of 8 bytes
 *   hor   pixels in a line; ver  lines; their low 16 bits count in the memory
 *   ts    its second character is the target selector of DDR2Write
 *   sel   its second character selects the FPGA, its third the memory, as for convert_index
 *
 * Returns 0 when it was sent, also when the selectors select nothing; or -1: not to be opened, too
 * small (nothing is sent), no memory or a short read (logged).
 */
RUK_API int LoadPicture(uint32_t addr, uint32_t hor, uint32_t ver, const char *filename,
                        const char *ts, const char *sel);

#ifdef __cplusplus
}
#endif
#endif
