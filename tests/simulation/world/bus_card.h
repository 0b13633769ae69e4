// bus_card.h - the model card's side of the bus block protocol.
#ifndef SIMULATION_BUS_CARD_H
#define SIMULATION_BUS_CARD_H

#include "calls/link.h"

namespace sim {

void reset_bus_card();

/** False: no frame of this protocol. */
bool bus_card_receives(int index, const Frame &frame);

uint8_t bus_byte(uint32_t addr);
uint32_t bus_writes();

} // namespace sim

#endif
