// card.h - all that the card is, in one record.
//
// What a frame does to it is deterministic in this record, the frame, the link and the time; it
// does no input or output.
#ifndef CARD_CARD_H
#define CARD_CARD_H

#include <cstdint>
#include <optional>

#include "faults/counters.h"
#include "faults/faults.h"
#include "faults/recent.h"
#include "firmware/firmware_side.h"
#include "pictures/picture_side.h"
#include "registers/memory.h"

namespace card {

/** Which card this is; without a value it answers for every model or every slot. */
struct Identity {
    std::optional<uint16_t> model{};
    std::optional<uint8_t> slot{};
};

struct Card {
    Identity identity;
    Memory memory; // registers
    PictureSide picture;
    FirmwareSide firmware;
    FaultEngine faults;
    RecentRequests recent;
    Counters counters;
};

} // namespace card

#endif
