// raw_message.h - the card's side of the raw message protocol: reads, writes, acknowledgements.
#ifndef CARD_RAW_MESSAGE_H
#define CARD_RAW_MESSAGE_H

#include "faults/exchange.h"

namespace card {

extern const Protocol kRawMessageProtocol;

} // namespace card

#endif
