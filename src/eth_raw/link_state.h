// link_state.h - the state of the links, apart from what their published records tell; any thread.
#ifndef ETH_RAW_LINK_STATE_H
#define ETH_RAW_LINK_STATE_H

#include "eth_raw/eth_raw.h"

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
