// picture_text.h - what requests mean to the card's picture side, in words, for the trace.
#ifndef CARD_PICTURE_TEXT_H
#define CARD_PICTURE_TEXT_H

#include <string>

#include "wire/wire.h"

namespace card {

/** " = ddr2 0 move addr 00000780 bursts 240" or the like; empty for ordinary registers. */
std::string describe_picture_request(const wire::Request &request);

} // namespace card

#endif
