// bus_block_text.h - bus block frames in words, for the trace.
#ifndef CARD_BUS_BLOCK_TEXT_H
#define CARD_BUS_BLOCK_TEXT_H

#include <string>

#include "wire/bytes.h"

namespace card {

/** The fields of a request that was claimed, or of a reply that was built, on one line. */
std::string describe_bus_block(Bytes frame);

} // namespace card

#endif
