// main.h - helpers of the front end that host processes may use too.
#ifndef RUK_MAIN_MAIN_H
#define RUK_MAIN_MAIN_H

#include "base/export.h"

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
 * upright; any other file is taken as hor x ver such pixels. Lines have no padding, which a ".bmp"
 * file leaves out only where hor is a multiple of 4.
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

typedef void (*signal_handler)(int);

/**
 * Let task_die handle SIGTERM, SIGINT, SIGQUIT and SIGSEGV, and ignore SIGHUP, in the whole
 * process. No signal mask is changed. A handler of its own the host installs afterwards.
 *
 * Returns what SIGHUP was set to before.
 * Threads: any; once, early.  Signal handlers: no.
 */
RUK_API signal_handler signal_set(void);

/**
 * End the process: log "task_die!!!" and the stack, release the free blocks of the memory pool,
 * exit with status 0. So status 0 does not tell a crash from an orderly end; the log does.
 *
 *   signo  ignored
 *
 * Entered while it is under way, by a second signal or from another thread, it ends the process at
 * once with status 1. So does an alarm after 5 s, which takes over SIGALRM and the real-time timer,
 * when the end gets stuck or what the host has registered with atexit takes longer. A second fault
 * on the same thread is left to the kernel, which ends the process by SIGSEGV.
 *
 * Does not return. Threads: any.  Signal handlers: meant for them, although the log, backtrace,
 * the pool and exit are not safe there: the process is at its end, and the above keeps it from
 * hanging.
 */
RUK_API void task_die(int signo);

/**
 * Log the call stack: the number of addresses, at most 100, then one line for each, innermost
 * first. Exits with status 1 when there is no memory for the lines (logged).
 * Threads: any.  Signal handlers: as task_die.
 */
RUK_API void putstackinfo(void);

/**
 * Print to console: let standard output go to the terminal of standard input, as the command "tty"
 * names it. What is still buffered in stdout goes there as well.
 *
 * Returns 1 when it does; another descriptor of the terminal stays open. Nonzero with standard
 * output untouched: -1, no terminal, none that may be opened, "tty" could not be run or its name
 * has more than 30 characters (the last two logged). 0: it was opened but did not become standard
 * output (logged).
 * Threads: one at a time.  Blocks: until the command has ended.  Signal handlers: no.
 */
RUK_API int ptoc(void);

/**
 * Read len bytes, 1..1400, from a card and print what came as process_recvbuf does; the address
 * line alone when nothing did. Arguments as for RawSockSendMsgWithReadWait. Errors are logged.
 *
 * Each call takes a block of 2048 bytes of the memory pool for good, and posts sem_test once.
 * Threads: any.  Blocks: 540 ms at most.  Signal handlers: no.
 */
RUK_API void read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint32_t len);

/**
 * Write one byte, 0, to a card and wait for its acknowledgement. Arguments as for
 * RawSockSendMsgWithAckWait. Errors are logged; what the card answered is not told.
 *
 * Posts sem_test as that function does. Threads: any.  Blocks: 540 ms at most.  Signal handlers:
 * no.
 */
RUK_API void write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr);

#ifdef __cplusplus
}
#endif
#endif
