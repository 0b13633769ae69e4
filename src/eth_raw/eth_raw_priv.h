// eth_raw_priv.h - what the receive thread needs beyond the published link.
#ifndef ETH_RAW_ETH_RAW_PRIV_H
#define ETH_RAW_ETH_RAW_PRIV_H

#include "eth_raw/eth_raw.h"

#include <chrono>
#include <cstdint>
#include <span>

/** The header fields of one raw message. */
struct RawMsgHeader {
    uint16_t model;
    uint8_t slot;
    uint8_t code;
    uint32_t addr;
    uint16_t seq;
    uint16_t len;
    uint8_t ack; // replies only; 0 = carried out
};

enum class Received {
    kReply,   // header and payload are valid
    kRefused, // a frame came that is no intact reply
    kNothing, // the link gives no frames: not open, closed, or down
};

// A link that is down fails every receive at once; a real-time thread that asked again without a
// pause would take the processor away from everyone else.
constexpr std::chrono::microseconds kDeadLinkPause{10000};

/** Room for one received frame. */
using ReceiveBuffer = uint8_t[sizeof gRecvBuffer];

/**
 * As RawSockMsgRecv, but into a buffer of the caller's own, and telling a dead link from a frame
 * that is not for us. The payload points into the buffer.
 */
Received raw_sock_recv(int index, ReceiveBuffer &buffer, RawMsgHeader &header, uint8_t *&payload);

/** As print_msg, with the word that tells which way the frame went. */
void dump_frame(const char *word, const uint8_t *frame, int n);

/** A frame with a reply's addresses and markers, whether intact or not. */
bool is_from_card(std::span<const uint8_t> frame);

// --- the state of the links, apart from what their published records tell; any thread
// -------------

/** The record of an index, or null: out of range. */
eth_init *link_record(int index);

/**
 * Fill a record with its open socket. A link of the table lets frames through from now on, if the
 * socket is bound; otherwise it only keeps the socket, which belongs to no interface yet.
 */
void link_fill(eth_init &record, uint32_t index, int sock_fd, const sockaddr_ll &address,
               bool is_bound);

/** Let no frame through until the link is filled again: it did not come up. index must be 0..2. */
void link_bar_sending(int index);

/**
 * Close the link's socket, once, and neither send nor receive on it until the link is filled again.
 * index must be 0..2.  Blocks: while a frame is being sent.
 */
void link_close(int index);

/** Whether sends go out. index must be 0..2; the answer lasts for who holds the send lock. */
bool link_is_up(int index);

/** The socket to receive from, or -1: never opened, closed, or index out of range. */
int link_receiving_socket(int index);

#endif
