// raw_message_text.h - raw messages in words, for the trace.
#ifndef CARD_RAW_MESSAGE_TEXT_H
#define CARD_RAW_MESSAGE_TEXT_H

#include <string>

#include "wire/bytes.h"

namespace card {

/** The fields of a request or a reply on one line, as far as the frame holds them. */
std::string describe_raw_message(Bytes frame);

} // namespace card

#endif
