// bus_block.h - the bus block protocol: blocks of up to 64 MiB to and from an FPGA's bus.
//
// An older protocol beside the raw messages of eth_raw.h, on the same kind of socket but with
// frames of its own, see docs/protocol.md. Nothing in the system uses it; it is for host processes.
//
//   EthRawTrans xfer[MAX_ETH];
//   Open_Eth_Raw(xfer, MAX_ETH);
//   Write_FPGA_Bus_Block(&xfer[0], 0x1000, size, data);
//   Read_FPGA_Bus_Block(&xfer[0], 0x1000, size, data);
//
// The interface's MTU must be at least 8012 bytes for blocks of 8000 bytes and more. All of a
// process's handles stand for sockets that receive every frame of their interface: whatever came
// since the last transfer is looked at first, and a read has only so many frames to look at.
//
// Threads: one transfer at a time in all processes of the board, by a System V semaphore with the
//          key 1234569. A process that dies in a transfer gives it up; so does a thread that is
//          cancelled. Waiting for the semaphore is not a cancellation point, receiving is.
// Locks:   none of the link's own. The sockets compete with any other reader of the same socket.
#ifndef RUK_ETH_RAW_BUS_BLOCK_H
#define RUK_ETH_RAW_BUS_BLOCK_H

#include "base/export.h"
#include "eth_raw/eth_raw.h"

#include <netpacket/packet.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What a transfer goes through. Filled by Open_Eth_Raw; points into g_eth_init. */
typedef struct EthRawTrans {
    int32_t sock_fd;          /* the interface's packet socket */
    struct sockaddr_ll *addr; /* where frames go */
} EthRawTrans;

/**
 * Open all three interfaces into g_eth_init, whatever cnt is, fill the first cnt handles, and find
 * or make the semaphore. Call it once: each call opens new sockets, and none is ever closed.
 *
 *   cnt  handles in xfer, 0..3
 *
 * Returns 0, also when the semaphore could not be had (transfers fail then); or negative with a log
 * line: bad argument, an interface that cannot be opened, a new semaphore that cannot be set.
 */
RUK_API int Open_Eth_Raw(EthRawTrans *xfer, uint32_t cnt);

/** Remove the semaphore for all processes; the sockets stay open. Returns 0 in every case. */
RUK_API int Close_Eth_Raw(void);

/**
 * Write a block in frames of 8000 bytes, up to three times until all frames went out. The card
 * does not answer: nobody notices a lost frame.
 *
 *   addr    bus address of the first byte; wraps at 4 GiB
 *   length  0..0x4000000 bytes (64 MiB)
 *
 * Returns the result of giving back the semaphore, not that of the write: 0 also when no frame went
 * out (logged). -1: bad argument, or no semaphore (logged).
 * Threads: any.  Blocks: for the semaphore and while the send buffer is full.
 */
RUK_API int Write_FPGA_Bus_Block(EthRawTrans *xfer, uint32_t addr, uint32_t length,
                                 const uint8_t *data);

/**
 * Read a block in frames of up to 8000 bytes, from its start up to ten times until all of it came.
 *
 *   addr, length  as for a write
 *   data          room for length bytes; partly filled when the read fails
 *
 * Returns as Write_FPGA_Bus_Block does: 0 also when the read failed (logged).
 * Threads: any.  Blocks: for the semaphore; then, as there is no time-out, until frames come: a
 * lost answer is given up after ten other frames, or ten receive time-outs if the host has set one
 * (SO_RCVTIMEO) on the socket. A cancellation point.
 */
RUK_API int Read_FPGA_Bus_Block(EthRawTrans *xfer, uint32_t addr, uint32_t length, uint8_t *data);

/**
 * Make handles of link records: xfer[i] gets the socket and the address of records[i]. The records
 * have to outlive the handles.
 *
 *   cnt  entries of both arrays, 0..3
 *
 * Returns 0, or -1: bad argument.
 */
RUK_API int eth_raw_tranfser_set(eth_init *records, EthRawTrans *xfer, uint32_t cnt);

/**
 * The loop of a write: one attempt, without the semaphore. Returns 0, or -1: a frame could not be
 * sent (logged); the frames before it are out.
 */
RUK_API int write_process_func(EthRawTrans *xfer, uint32_t addr, uint32_t length,
                               const uint8_t *data);

/**
 * The loop of a read: one attempt, without the semaphore. For each piece one request, then at most
 * ten received frames. Returns 0, or -1: a request could not be sent, none of ten frames was the
 * answer, or the card refused (logged). A cancellation point.
 */
RUK_API int read_process_func(EthRawTrans *xfer, uint32_t addr, uint32_t length, uint8_t *data);

/**
 * Build and send one frame.
 *
 *   n     bytes to write or to read: 0..8000
 *   data  type 0: n bytes; type 1: 64 bytes that fill the frame, usually zeros
 *   type  0 = write, 1 = read request
 *
 * Returns 0, or -1: bad argument, or the frame did not go out in full.
 */
RUK_API int send_message_func_unit(EthRawTrans *xfer, uint32_t addr, uint32_t n,
                                   const uint8_t *data, uint32_t type);

/** Ask for n bytes, 0..8000. Returns 0, or -1 (logged). */
RUK_API int send_request_message_func(EthRawTrans *xfer, uint32_t addr, uint32_t n);

/**
 * Receive one frame, whatever it is, and judge it.
 *
 *   addr  the bus address that it has to carry
 *   n     kind 2: the number of bytes asked for
 *   dest  kind 2: room for n bytes
 *   kind  2 = answer to a read, 3 = response; anything else takes every intact reply
 *
 * Returns, whatever the kind, -1: nothing received, or not an intact reply for this address;
 *   kind 2: 0 with n bytes in dest; 0 with dest untouched when a response says "carried out"; -2
 *   when a response refuses (logged); -1 for other lengths or more data than came;
 *   kind 3: 1 for a response "carried out", else -1 (a refusal is logged);
 *   any other kind: 0.
 * Blocks: until a frame comes or the socket's own time-out. A cancellation point.
 */
RUK_API int recv_message_func_unit(EthRawTrans *xfer, uint32_t addr, uint32_t n, uint8_t *dest,
                                   uint32_t kind);

/** The same for kind 2, logging every failure but a refusal (-2), which is logged already. */
RUK_API int recv_read_back_message_func(EthRawTrans *xfer, uint32_t addr, uint32_t n,
                                        uint8_t *dest);

/** The same for kind 3: 0 for "carried out", else -1. n plays no part. */
RUK_API int recv_response_message_func(EthRawTrans *xfer, uint32_t addr, uint32_t n);

/**
 * Check a received frame: destination, type, length, checksum and bus address. Reads nothing
 * outside frame[size]. Returns 0, or -1: no intact reply for this address.
 */
RUK_API int judge_packet(const uint8_t *frame, uint32_t size, uint32_t addr);

/** Compare count bytes. Returns 0 when they are equal, else -1. */
RUK_API int packet_header_judge(const uint8_t *a, const uint8_t *b, uint32_t count);

/** The checksum of a frame of L bytes: bytes 6 to L - 3 added up; 0 for L below 9. */
RUK_API uint16_t packet_checksum_calc(const uint8_t *frame, uint32_t L);

/** Returns 0 when both checksums are equal, else -1. */
RUK_API int packet_checksum_judge(uint16_t x, uint16_t y);

/** Returns 0 when the frame, of at least 24 bytes, says that it carries n bytes, else -1. */
RUK_API int packet_length_judge(const uint8_t *frame, uint32_t n);

/** Set the semaphore to 1: free. Returns 0, or -1 (logged). */
RUK_API int set_semvalue(void);

/** Remove the semaphore for all processes. A failure is logged. */
RUK_API void del_semvalue(void);

/**
 * Take the semaphore; the system gives it back should the process die. Waits on when a signal (one
 * tick every 30 ms) interrupts it. Returns 0, or -1 (logged): there is none, or it was removed
 * meanwhile. Blocks: until the holder gives it back; not a cancellation point.
 */
RUK_API int semaphore_p(void);

/** Give the semaphore back. Returns 0, or -1 (logged). */
RUK_API int semaphore_v(void);

#ifdef __cplusplus
}
#endif
#endif
