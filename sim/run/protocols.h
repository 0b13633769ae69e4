// protocols.h - hands a received frame to the protocol that claims it.
#ifndef CARD_PROTOCOLS_H
#define CARD_PROTOCOLS_H

#include "card/card.h"
#include "faults/exchange.h"

namespace card {

/** Count a received frame, let its protocol handle it and say what to send. */
void card_receive(Card &card, const Arrival &arrival, Outcome &out);

} // namespace card

#endif
