// eth_raw.h - the raw Ethernet link: sockets, frames and frame buffers.
//
// Every request and every answer is one Ethernet frame of the system's own format, see
// docs/protocol.md. One packet socket and one link record per interface, index 0, 1, 2 for "eth0",
// "eth1", "eth2". An index out of range fails and touches nothing.
// A link is up once its socket is bound, and for RawMsgModuleInit once its check thread runs, until
// it is closed: sends on any other fail with EBADF, and nothing goes out.
// Threads: any may send, also while the link is opened or closed; one per process may call
//          RawSockMsgRecv, whose buffer exists once.
// Locks:   each record's send lock, a leaf, held around one transmission.
#ifndef RUK_ETH_RAW_ETH_RAW_H
#define RUK_ETH_RAW_ETH_RAW_H

#include "base/export.h"

#include <netpacket/packet.h>
#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MAX_ETH 3

/** Bytes of data in one frame, at most; what a read buffer holds. */
#define RUK_MAX_DATA 1400

/** What a frame is; the codes of requests are given to the send operations. */
enum {
    RAW_MSG_CODE_READ = 0x00,      /* read request, read data in a reply */
    RAW_MSG_CODE_WRITE = 0x01,     /* write without answer */
    RAW_MSG_CODE_ACK = 0x10,       /* acknowledgement, in replies only */
    RAW_MSG_CODE_WRITE_ACK = 0x11, /* write that asks for an acknowledgement, and it */
};

/** The state of one link. Zero until it is opened, then filled for the life of the process. */
typedef struct eth_init {
    uint32_t index;            /* interface index, 0..2 */
    char name[20];             /* interface name */
    int32_t flag;              /* 1 once the socket is open */
    int32_t sock_fd;           /* the packet socket; still holds the closed one after shut-down */
    struct sockaddr_ll addr;   /* where the socket is bound and where every frame goes */
    pthread_mutex_t send_lock; /* one transmission at a time */
} eth_init;

/** The interfaces' names by index. */
extern RUK_API char g_netdev_name[MAX_ETH][20];

/** The link records by index. */
extern RUK_API eth_init g_eth_init[MAX_ETH];

/** Nonzero: dump every frame sent and received on standard output. 0 at start. */
extern RUK_API int print_flag;

/**
 * The frame that RawSockMsgRecv received last, whatever its interface. Valid until its next call.
 * The receive threads have buffers of their own.
 */
extern RUK_API uint8_t gRecvBuffer[1450];

/**
 * Open a raw socket for all protocols on a named interface and make the interface promiscuous: the
 * protocol's addresses are not the interface's own. Promiscuous mode is never switched off again.
 * Shells that the process starts do not inherit the socket.
 *
 * Returns the descriptor, or -1 with errno: no right to open it, no such interface (logged).
 */
RUK_API int socket_init(const char *name);

/**
 * Bind a socket to its interface and fill the address with family, protocol and interface number.
 * Returns 0, or the negative result of the failed call with errno (logged).
 */
RUK_API int socket_bind(struct sockaddr_ll *address, int sock_fd, const char *name);

/** Open and bind interface index into a record. Returns 0, or negative with errno (logged). */
RUK_API int init_netdev(eth_init *record, uint32_t index);

/**
 * Open and bind interfaces 0..count-1 into records[0..count-1]; count is 0..3. Stops at the first
 * failure, leaving what is open open.
 *
 * Returns 0, -1 when a socket cannot be opened or count is above 3, or the failed bind's result.
 */
RUK_API int netdev_init(eth_init *records, uint32_t count);

/**
 * Open interface index into g_eth_init; its send lock is ready. Opened once more it gets another
 * socket, and the first stays open. A socket that cannot be bound stays in the record until
 * RawSockMsgUnInit.
 *
 * Returns 0, or -1 with errno.
 */
RUK_API int RawSockMsgInit(uint32_t index);

/**
 * Close the interface's socket, if it is open. Until it is opened again, sends and receives on it
 * fail. Returns -1 in every case.
 * Blocks: while a frame is being sent.
 */
RUK_API int RawSockMsgUnInit(uint32_t index);

/**
 * Build a request frame in place around a payload.
 *
 *   buf  in: the payload, with 28 writable bytes before it and max(len, 64) + 2 from it on, as
 *        RawMsgBuffGet gives; out: the frame's first byte
 *   len  bytes carried or, in a read, asked for: 0..1400; the frame carries it unchanged
 *
 * Returns the frame's length in bytes, 94..1430. Cannot fail.
 */
RUK_API uint32_t RawMsgHeaderPack(uint16_t model, uint8_t slot, uint8_t code, uint32_t addr,
                                  uint16_t seq, uint8_t **buf, uint16_t len);

/**
 * Check a received frame and take its header apart. Never reads outside frame[frame_len].
 *
 * Returns the payload (frame + 29), or null: not a reply of this protocol (silently, outputs
 * untouched), or a wrong checksum, which a length that runs past the frame counts as (logged).
 */
RUK_API uint8_t *RawMsgHeaderUnpack(const uint8_t *frame, uint32_t frame_len, uint8_t *ack,
                                    uint16_t *model, uint8_t *slot, uint8_t *code, uint32_t *addr,
                                    uint16_t *seq, uint16_t *len);

/** Bytes of a reply's header from its status byte on: 13. */
RUK_API uint32_t RawSockMsgHeaderSize(void);

/** The largest payload of one frame in bytes: 1400. */
RUK_API uint32_t RawSockMsgJumboFrameSize(void);

/**
 * Pack and send one request frame; the frame buffer then holds it for RawSockMsgSendAgain.
 *
 *   buf  payload of a frame buffer
 *   len  1..1400 bytes
 *
 * A frame is sent a second time after 1 ms when errno is EAGAIN, whatever the first send gave.
 * Returns the frame's length, or -1: bad argument (silently), or the send failed (perror).
 * Threads: any.  Blocks: while the interface's send buffer is full.
 */
RUK_API int RawSockMsgSend(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                           uint16_t seq, uint8_t *buf, uint32_t len);

/** Send the frame in a frame buffer once more, unchanged. Returns frame_len, or -1 (perror). */
RUK_API int RawSockMsgSendAgain(int index, uint8_t *buf, uint32_t frame_len);

/**
 * Wait for one frame and unpack it.
 *
 * Returns the payload inside gRecvBuffer, or null: no reply of this protocol, or nothing received.
 * Threads: one receiver per process.  Blocks: until a frame arrives; a cancellation point.
 */
RUK_API uint8_t *RawSockMsgRecv(int index, uint8_t *ack, uint16_t *model, uint8_t *slot,
                                uint32_t *addr, uint8_t *code, uint16_t *seq, uint16_t *len);

/**
 * Take a zeroed frame buffer for a payload of len bytes, 0..1400, from the pool.
 * Returns its payload, 28 bytes into the block, or null: too long, or no memory.
 */
RUK_API uint8_t *RawMsgBuffGet(uint32_t len);

/** The frame that belongs to a payload: 28 bytes before it. */
RUK_API uint8_t *RawMsgBuffHeadGet(uint8_t *buf);

/** Give a frame buffer back to the pool, by its payload. Null is ignored. */
RUK_API void RawMsgBuffFree(uint8_t *buf);

/** The same as RawMsgBuffFree. */
RUK_API void RawMsgFreeBuf(uint8_t *buf);

/** Take 1000 blocks of 64 bytes for the min-buffer table. Returns 0, or -1: no memory. */
RUK_API int RawMsgInitMinBuffer(void);

/** Release the table's blocks. */
RUK_API void RawMsgUninitMinBuffer(void);

/**
 * Hand out the next entry of the table, in turn. Returns an address 28 bytes into the entry itself,
 * not the entry's block; or null: the next entry is in use, or was never set up (logged).
 * Threads: one at a time.
 */
RUK_API uint8_t *RawMsgMinBuffGet(void);

/** Does nothing: a frame buffer released through it stays out until the process ends. */
RUK_API void RawMsgMinBuffFree(uint8_t *buf);

/** While print_flag is set, dump n bytes as hex on standard output, 16 in a line. */
RUK_API void print_msg(const uint8_t *buf, int n);

#ifdef __cplusplus
}
#endif
#endif
