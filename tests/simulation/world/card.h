// card.h - a model card: what it holds, what it was asked, what it answered.
//
// Written from the protocol's description alone. It knows no file of the product.
#ifndef SIMULATION_CARD_H
#define SIMULATION_CARD_H

#include "calls/link.h"
#include "scheduler/scheduler.h"

namespace sim {

void reset_cards();

/** A frame from the board. */
void card_receives(int index, const Frame &frame);

/** Bytes of the card's memory before anything was written. */
uint8_t initial_byte(int index, uint32_t addr);

/** What every test writes to an address: so the card knows whether a byte is right. */
uint8_t written_byte(int index, uint32_t addr);

/** Whether the card has carried out a write of these bytes. */
bool card_has_written(int index, uint32_t addr, uint32_t len);

/** The byte that a read of the card gives. */
uint8_t card_byte(int index, uint32_t addr);

/** How often a request for an address came, intact or not: what the board has sent. */
struct Asked {
    uint32_t addr;
    uint16_t seq;
    uint8_t code;
    uint32_t transmissions;
    uint32_t refusals;
    std::vector<uint8_t> refused_with; // all statuses
    uint32_t odd_replies;              // no data, too many, status 255
    Time answered_at; // when the board took a good answer from its socket; kNever: not yet
    Time stolen_by_then;
    std::vector<uint32_t> data_sent; // lengths of all replies to a read
};
const Asked *asked(int index, uint32_t addr, uint8_t code);

/** The board has sent a frame: counts it before the wire may lose it. */
void note_transmission(int index, const Frame &frame);

/** The board has taken a frame from its socket. */
void note_taken(int index, const Frame &frame);

/** Whether a good answer came so long ago that the board must have seen to it. */
bool has_been_answered(const Asked &known);

/** A card that answers nothing for a while. */
void set_card_silent(int index, bool is_silent);

} // namespace sim

#endif
