// picture_side.h - the registers behind which pictures are: which write and which read goes where.
//
// The picture side listens in on the register memory: a write is carried out there as any other,
// and has its effect here as well.
#ifndef CARD_PICTURE_SIDE_H
#define CARD_PICTURE_SIDE_H

#include <array>

#include "faults/counters.h"
#include "pictures/ddr2.h"
#include "pictures/picture_port.h"
#include "registers/memory.h"

namespace card {

struct PictureSide {
    std::array<Ddr2, kDdr2Memories> ddr2;
    PicturePort port;
};

/** What a write of `data` to `addr` does; `registers` holds what the card reports back. */
void picture_write(PictureSide &side, uint32_t addr, Bytes data, Memory &registers,
                   Counters &counters);

/** Serve a read; false when the address is an ordinary register's (so far). */
bool picture_read(PictureSide &side, const FifoRead &read, MutableBytes out, Counters &counters);

} // namespace card

#endif
