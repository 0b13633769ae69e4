// board.h - what the board's closed libraries offer: shell commands, the card's slot, messages
// between the processes of the board.
//
// libboard.so holds stand-ins for them that work on any Linux machine. A build with
// RUK_BOARD_LIBRARIES links the board's own libraries instead; callers see no difference.
#ifndef RUK_BOARD_BOARD_H
#define RUK_BOARD_BOARD_H

#include <stdio.h>

#define BOARD_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Takes one received message.
 *
 *   a, b    0, without meaning here
 *   msg     the message, valid until the handler returns, aligned like any buffer of malloc
 *   length  its bytes, 0..65536
 *
 * What it returns is ignored.
 */
typedef int (*apipc_handler)(int a, int b, void *msg, int length);

/**
 * Register this process as a module, so that it receives the messages sent to an address.
 *
 *   aptid  the address; its upper 24 bits (slot, 0x0A, module id) count, the low 8 do not
 *   flags  ignored
 *
 * Sockets live in the directory that the environment variable APIPC_DIR names (/run/apipc without
 * it; made with mode 0750 when missing), one per address, mode 0660. The address stays taken until
 * the process ends. What a dead process left behind is replaced.
 *
 * Returns 0, also when this process has the address already. Otherwise -1 with errno:
 * EADDRINUSE    a living process has the address
 * EBUSY         this process has another address already
 * ENAMETOOLONG  the directory's name does not leave room for a socket name
 * EEXIST        something that is no socket stands where the socket belongs
 * or what the directory or the socket were refused with.
 *
 * Threads: any.  Blocks: no.  Signal handlers: no.
 */
BOARD_API int apipc_init(int aptid, int flags);

/**
 * Send a message to a module; works without apipc_init as well.
 *
 *   aptid   the module's address, as for apipc_init
 *   msg     length bytes; may be null when length is 0
 *   length  0..65536
 *
 * Messages of one thread arrive whole and in the order sent. A receiver whose queue is full makes
 * the caller wait up to 2 s for a place; a process that is module 0x3B, the request service, up to
 * 100 ms, and not at all when the last message to that receiver found no place. 0 means that the
 * message lies in the receiver's queue; it is lost only if that process ends before it reads.
 *
 * Returns 0, or -1 with errno:
 * ENOENT, ECONNREFUSED  nobody listens at the address (at once)
 * ETIMEDOUT             the receiver made no room
 * EMSGSIZE              length is too large
 * EINVAL                msg is null and length is not 0
 * ENAMETOOLONG          see apipc_init
 * or what the socket was refused with (EACCES: not in the group).
 *
 * Threads: any number at once.  Blocks: as long as said above, a cancellation point.  Signal
 * handlers: no.
 */
BOARD_API int apipc_send(int aptid, void *msg, unsigned length);

/**
 * Wait for one message to this module and hand it to a handler; called in a loop.
 *
 *   flags    ignored
 *   handler  called on this thread
 *
 * Returns 0 after the handler has returned. -1 with errno, after a pause of 100 ms that spares the
 * CPU when an endless loop calls: ENOTCONN before apipc_init, EINVAL for a null handler, or what
 * the receive failed with. A message longer than 65536 bytes, which apipc_send never sends, is
 * dropped with a line on standard error.
 *
 * Threads: any number at once, each message goes to one.  Blocks: for ever, a cancellation point.
 * Signal handlers: no.
 */
BOARD_API int apipc_loop_wait(int flags, apipc_handler handler);

/**
 * The slot that the card runs in.
 *
 * Returns 0..255 from the environment variable APCARD_SLOT, decimal or hexadecimal behind "0x".
 * 0 when it is missing, empty or no such number; the last leaves one line per process on standard
 * error.
 *
 * Threads: any number at once.  Blocks: no.  Signal handlers: no.
 */
BOARD_API int apcard_bit_self(void);

/**
 * Run a shell command line ("/bin/sh -c") and wait for its end.
 *
 *   command  the command line
 *
 * The command starts with every signal at its default and none blocked; only an ignored SIGHUP
 * stays ignored. Standard streams are shared and nothing is flushed. How the process treats
 * SIGCHLD, and whether another thread waits for children, makes no difference.
 *
 * Returns the command line's exit status 0..255, where 128 + n means ended by signal n; or -1 with
 * errno when it could not be run: EINVAL for a null command, ECHILD when its end could not be
 * observed, or what making a process failed with.
 *
 * Threads: any number at once.  Blocks: until the command ends, no cancellation point.  Signal
 * handlers: no.
 */
BOARD_API int my_system(const char *command);

/**
 * Run a shell command line with a pipe to its output or input.
 *
 *   command  the command line
 *   mode     "r" to read what it writes, "w" to write what it reads
 *
 * Returns a stream for the caller to close with pclose, which waits for the command's end; commands
 * started later do not inherit it. Null with errno when it could not be run; EINVAL for a null
 * command or any other mode.
 *
 * Threads: any number at once.  Blocks: no.  Signal handlers: no.
 */
BOARD_API FILE *my_popen(const char *command, const char *mode);

#ifdef __cplusplus
}
#endif
#endif
