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

/** As RawSockMsgRecv, telling a dead link from a frame that is not for us. */
Received raw_sock_recv(int index, RawMsgHeader &header, uint8_t *&payload);

/** A frame with a reply's addresses and markers, whether intact or not. */
bool is_from_card(std::span<const uint8_t> frame);

/** The record of an index, or null: out of range. */
eth_init *link_record(int index);

/** False for a record whose socket was never opened: its descriptor 0 is somebody else's. */
bool link_is_open(const eth_init &record);

#endif
