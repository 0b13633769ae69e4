// trace.h - one line for each frame received and each frame sent (or lost on purpose).
#ifndef CARD_TRACE_H
#define CARD_TRACE_H

#include <cstdint>
#include <string>

#include "faults/exchange.h"

namespace card {

/** "rx" line: the frame and what became of it. No line end. */
std::string trace_received(const std::string &link, const Arrival &arrival, const Outcome &outcome);

/** "tx" line: the frame and the faults in it. No line end. */
std::string trace_sent(const std::string &link, uint64_t now_us, const Reply &reply);

} // namespace card

#endif
