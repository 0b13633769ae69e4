// picture_card.h - the registers of the model card behind which pictures and firmware go.
#ifndef SIMULATION_PICTURE_CARD_H
#define SIMULATION_PICTURE_CARD_H

#include "calls/link.h"

namespace sim {

void reset_picture_cards();

/** Whether an address is one of these registers: what is written there is no test's own pattern. */
bool is_picture_register(uint32_t addr);
void picture_register_written(int index, uint32_t addr, const uint8_t *data, uint32_t len);
uint8_t picture_register_byte(int index, uint32_t addr, uint32_t offset);

/** What came through the picture port between start and stop. */
const Frame &port_pixels(int index);

/** The DDR2 memory of a card. */
Frame &ddr2_memory(int index);

/** The firmware image that came in blocks. */
const Frame &firmware_image(int index);

} // namespace sim

#endif
