// bus_block.h - the card's side of the bus block protocol: blocks written and read back.
//
// Told from the raw messages by the frame alone; both see the same memory. The frames carry neither
// model nor slot, so that every card takes them, and no number, so that a request that is sent
// again cannot be told from a new one.
#ifndef CARD_BUS_BLOCK_H
#define CARD_BUS_BLOCK_H

#include "faults/exchange.h"

namespace card {

extern const Protocol kBusBlockProtocol;

} // namespace card

#endif
