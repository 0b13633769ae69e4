// received_frame.h - one frame from the link, for the receive thread.
#ifndef ETH_RAW_RECEIVED_FRAME_H
#define ETH_RAW_RECEIVED_FRAME_H

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

#endif
